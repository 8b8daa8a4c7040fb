// ubus_wire.h - framing of bus messages, shared by the client library and the
// broker: an 8-byte header (version 0, type, big-endian seq and peer) followed
// by one blob attribute (id 0, not extended) holding the UBUS_ATTR_* attributes.
// Everything read from a socket goes through frame_length and frame_parse,
// which never read past the bytes they are given.
#pragma once

#include <cstddef>
#include <cstdint>

#include <libubox/blob.h>

#include "ubusmsg.h"

namespace ubus_wire {

constexpr size_t kHeaderLen = sizeof(ubus_msghdr);
constexpr size_t kMinFrame = kHeaderLen + sizeof(blob_attr);
// Nesting deeper than this in message data is treated as malformed, so that
// no reader of the data has to recurse without bound.
constexpr int kMaxDepth = 64;

static_assert(sizeof(ubus_msghdr) == 8, "the header is 8 bytes on the wire");
static_assert(offsetof(ubus_msghdr, seq) == 2 && offsetof(ubus_msghdr, peer) == 4,
              "version, type, seq, peer in that order");

struct Header {
    uint8_t type;
    uint16_t seq;
    uint32_t peer;
};

enum class Head { NeedMore, Bad, Ok };

// Looks at the start of a received byte stream of avail bytes. Ok: *total is
// the length of the whole frame (header and padded payload, at most
// UBUS_MAX_MSGLEN). Bad: the stream cannot be a frame (wrong version, a
// root attribute that is extended, has an id or a length out of range).
Head frame_length(const uint8_t *p, size_t avail, size_t *total);

// Checks a complete frame of len bytes (as measured by frame_length) and
// fills hdr (host order) and tb[UBUS_ATTR_MAX] with pointers into the frame.
// Every attribute must have the type its id calls for; DATA and SIGNATURE
// must hold well-formed blobmsg attributes. false: malformed, tb undefined.
bool frame_parse(const uint8_t *p, size_t len, Header *hdr, blob_attr **tb);

// True when [data, data+len) is a run of well-formed blobmsg attributes
// (nested tables and arrays included, up to kMaxDepth levels).
bool blobmsg_run_valid(const void *data, size_t len, int depth = 0);

void put_header(uint8_t *out, uint8_t type, uint16_t seq, uint32_t peer);

}  // namespace ubus_wire
