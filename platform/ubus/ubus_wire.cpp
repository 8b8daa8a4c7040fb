// ubus_wire.cpp - frame measurement and validation of bus messages.
#include "ubus_wire.h"

#include <cstring>

#include <libubox/blobmsg.h>

namespace ubus_wire {

namespace {

uint32_t read_be32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof(v));
    return be32_to_cpu(v);
}

uint16_t read_be16(const uint8_t *p)
{
    uint16_t v;
    memcpy(&v, p, sizeof(v));
    return be16_to_cpu(v);
}

size_t pad4(size_t n)
{
    return (n + 3) & ~static_cast<size_t>(3);
}

// What the payload of each bus attribute must look like.
enum class Kind { Ignore, Int32, Int8, String, Blobmsg, Nested };

Kind kind_of(unsigned id)
{
    switch (id) {
    case UBUS_ATTR_STATUS:
    case UBUS_ATTR_OBJID:
    case UBUS_ATTR_OBJTYPE:
    case UBUS_ATTR_TARGET:
        return Kind::Int32;
    case UBUS_ATTR_ACTIVE:
    case UBUS_ATTR_NO_REPLY:
        return Kind::Int8;
    case UBUS_ATTR_OBJPATH:
    case UBUS_ATTR_METHOD:
    case UBUS_ATTR_USER:
    case UBUS_ATTR_GROUP:
        return Kind::String;
    case UBUS_ATTR_SIGNATURE:
    case UBUS_ATTR_DATA:
        return Kind::Blobmsg;
    case UBUS_ATTR_SUBSCRIBERS:
        return Kind::Nested;
    default:
        return Kind::Ignore;
    }
}

bool string_ok(const uint8_t *payload, size_t len)
{
    return len >= 1 && payload[len - 1] == '\0';
}

// Walks a run of plain blob attributes; every one, padding included, must lie
// inside the run, as the iteration macros of blob.h expect.
bool plain_run_valid(const uint8_t *p, size_t len)
{
    while (len > 0) {
        if (len < sizeof(blob_attr))
            return false;
        size_t raw = read_be32(p) & BLOB_ATTR_LEN_MASK;
        if (raw < sizeof(blob_attr) || pad4(raw) > len)
            return false;
        p += pad4(raw);
        len -= pad4(raw);
    }
    return true;
}

bool blobmsg_attr_valid(const uint8_t *p, size_t raw, int depth)
{
    uint32_t word = read_be32(p);
    if (!(word & BLOB_ATTR_EXTENDED))
        return false;
    unsigned type = (word & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
    if (type > BLOBMSG_TYPE_LAST)
        return false;
    size_t body = raw - sizeof(blob_attr);
    if (body < sizeof(uint16_t))
        return false;
    const uint8_t *hdr = p + sizeof(blob_attr);
    size_t namelen = read_be16(hdr);
    size_t hdrlen = pad4(sizeof(uint16_t) + namelen + 1);
    if (hdrlen > body || hdr[sizeof(uint16_t) + namelen] != '\0')
        return false;
    const uint8_t *payload = hdr + hdrlen;
    size_t plen = body - hdrlen;
    switch (type) {
    case BLOBMSG_TYPE_INT8:
        return plen == 1;
    case BLOBMSG_TYPE_INT16:
        return plen == 2;
    case BLOBMSG_TYPE_INT32:
        return plen == 4;
    case BLOBMSG_TYPE_INT64:
    case BLOBMSG_TYPE_DOUBLE:
        return plen == 8;
    case BLOBMSG_TYPE_STRING:
        return string_ok(payload, plen);
    case BLOBMSG_TYPE_ARRAY:
    case BLOBMSG_TYPE_TABLE:
        return blobmsg_run_valid(payload, plen, depth + 1);
    default:
        return true;
    }
}

}  // namespace

bool blobmsg_run_valid(const void *data, size_t len, int depth)
{
    if (depth > kMaxDepth)
        return false;
    const uint8_t *p = static_cast<const uint8_t *>(data);
    while (len > 0) {
        if (len < sizeof(blob_attr))
            return false;
        size_t raw = read_be32(p) & BLOB_ATTR_LEN_MASK;
        if (raw < sizeof(blob_attr) || pad4(raw) > len)
            return false;
        if (!blobmsg_attr_valid(p, raw, depth))
            return false;
        p += pad4(raw);
        len -= pad4(raw);
    }
    return true;
}

Head frame_length(const uint8_t *p, size_t avail, size_t *total)
{
    if (avail >= 1 && p[0] != 0)
        return Head::Bad;
    if (avail < kMinFrame)
        return Head::NeedMore;
    uint32_t word = read_be32(p + kHeaderLen);
    if (word & (BLOB_ATTR_EXTENDED | BLOB_ATTR_ID_MASK))
        return Head::Bad;
    size_t raw = word & BLOB_ATTR_LEN_MASK;
    if (raw < sizeof(blob_attr))
        return Head::Bad;
    size_t len = kHeaderLen + pad4(raw);
    if (len > UBUS_MAX_MSGLEN)
        return Head::Bad;
    *total = len;
    return Head::Ok;
}

bool frame_parse(const uint8_t *p, size_t len, Header *hdr, blob_attr **tb)
{
    size_t total = 0;
    if (frame_length(p, len, &total) != Head::Ok || total != len)
        return false;
    hdr->type = p[1];
    hdr->seq = read_be16(p + 2);
    hdr->peer = read_be32(p + 4);
    for (int i = 0; i < UBUS_ATTR_MAX; i++)
        tb[i] = nullptr;

    const uint8_t *root = p + kHeaderLen;
    size_t rem = (read_be32(root) & BLOB_ATTR_LEN_MASK) - sizeof(blob_attr);
    const uint8_t *cur = root + sizeof(blob_attr);
    while (rem > 0) {
        if (rem < sizeof(blob_attr))
            return false;
        uint32_t word = read_be32(cur);
        size_t raw = word & BLOB_ATTR_LEN_MASK;
        if (raw < sizeof(blob_attr) || pad4(raw) > rem || (word & BLOB_ATTR_EXTENDED))
            return false;
        unsigned id = (word & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
        const uint8_t *payload = cur + sizeof(blob_attr);
        size_t plen = raw - sizeof(blob_attr);
        bool ok = true;
        switch (kind_of(id)) {
        case Kind::Int32: ok = plen == 4; break;
        case Kind::Int8: ok = plen == 1; break;
        case Kind::String: ok = string_ok(payload, plen); break;
        case Kind::Blobmsg: ok = blobmsg_run_valid(payload, plen); break;
        case Kind::Nested: ok = plain_run_valid(payload, plen); break;
        case Kind::Ignore: break;
        }
        if (!ok)
            return false;
        if (id < UBUS_ATTR_MAX && kind_of(id) != Kind::Ignore) {
            // blob_attr is a packed struct, so pointing into the byte buffer is fine.
            tb[id] = reinterpret_cast<blob_attr *>(const_cast<uint8_t *>(cur));
        }
        cur += pad4(raw);
        rem -= pad4(raw);
    }
    return true;
}

void put_header(uint8_t *out, uint8_t type, uint16_t seq, uint32_t peer)
{
    out[0] = 0;
    out[1] = type;
    uint16_t s = cpu_to_be16(seq);
    uint32_t q = cpu_to_be32(peer);
    memcpy(out + 2, &s, sizeof(s));
    memcpy(out + 4, &q, sizeof(q));
}

}  // namespace ubus_wire
