// cloud_report.cpp - cloud envelope of event and parameter reports, the device identity it
// carries (fetched from other services and cached), and the JSON utilities.

#include "cloud_report.h"

#include <algorithm>
#include <cstdio>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

#include "event_config.h"
#include "event_report.h"
#include "nms_cmd.h"
#include "nms_ledger.h"
#include "nms_log.h"
#include "report_switch.h"
#include "uac_mem.h"
#include "uci_access.h"

std::atomic<int32_t> device_info_cached{0};
char site_id[72];

namespace {

// The identity queries with the time limit before the command, not after its arguments as
// "ubus call varnServer getInfo '{...}' -t 5" would have it: the bus tool reads its options
// with getopt, and musl's getopt (a device's) stops at the first word that is not an option,
// so a trailing "-t 5" became two more arguments of "call", which the tool refuses with its
// usage text. Every query failed on a device and reports went out without a MAC or site id.
// Same queries, same limit; only the command text in "popen exe [...] failed" differs.
constexpr const char *kMacCmd = "ubus -t 5 call varnServer getInfo '{\"infoMask\":33}'";
constexpr const char *kSiteCmd = "ubus -t 5 call cloudclient get_site_id";
constexpr size_t kCmdOutMax = 1024;
constexpr char kEventListOpen[] = ",\"eventList\":[";
constexpr char kTail[] = "]}]}}";
constexpr const char *kEventFmt = "{\"typeId\":\"%d\",\"time\":\"%llu\",\"params\":%s}";
constexpr size_t kEventOverhead = 129;  // room an event needs beyond its params

cloud_device_info g_device_info;
// Serialises the identity's fill and the site id's refresh with the readers that copy them: the
// batch thread, the statistics timers and the bus thread all get here.
std::mutex g_identity_mu;

struct JsonPut {
    void operator()(json_object *o) const noexcept { json_object_put(o); }
};
struct TokenerFree {
    void operator()(json_tokener *t) const noexcept { json_tokener_free(t); }
};
using JsonPtr = std::unique_ptr<json_object, JsonPut>;
using TokenerPtr = std::unique_ptr<json_tokener, TokenerFree>;

// Copies src into the fixed field dst, cut to fit and terminated.
template <size_t N>
void copy_field(char (&dst)[N], const char *src) {
    std::snprintf(dst, N, "%s", src);
}

// Runs cmd and parses what it printed (one bounded read). Null with the caller's messages when
// the pipe cannot be opened (pipe_failed set) or the output does not parse.
JsonPtr run_json_command(const char *cmd, bool &pipe_failed) {
    pipe_failed = false;
    // One byte more than is read, so the text is always terminated.
    char out[kCmdOutMax + 1] = {};
    // Bounded in time: the batch thread waits for this, and every list's reports with it.
    bool timed_out = false;
    if (nms_cmd_read(cmd, out, kCmdOutMax, &timed_out) < 0) {
        pipe_failed = true;
        return nullptr;
    }
    if (timed_out)
        return nullptr;
    return JsonPtr(jsonParseStr(out));
}

// Fills the identity when it is not cached yet, and the alias on every call. Caller holds
// g_identity_mu. False when a part could not be read.
bool fill_device_info() {
    if (device_info_cached.load(std::memory_order_relaxed) == 0) {
        std::memset(&g_device_info, 0, sizeof(g_device_info));
        if (getMacByUbus(g_device_info.mac) != 0) {
            NMS_LOG_ERROR("get mac failed.");
            return false;
        }
        if (getUciOption("device_info", "info", "device_type", g_device_info.type,
                         sizeof(g_device_info.type)) != 0) {
            NMS_LOG_ERROR("device_type get failed.");
            return false;
        }
        if (getUciOption("device_info", "info", "device_name", g_device_info.name,
                         sizeof(g_device_info.name)) != 0) {
            NMS_LOG_ERROR("device_type get failed.");
            return false;
        }
        device_info_cached.store(1, std::memory_order_relaxed);
    }
    // The user's alias replaces the name; a device without one sends no report at all.
    if (getUciOption("system", "sys", "dev_alias", g_device_info.name,
                     sizeof(g_device_info.name)) != 0) {
        NMS_LOG_ERROR("device_type get failed.");
        return false;
    }
    return true;
}

// A consistent copy of the identity and the site id for one report.
bool copy_identity(cloud_device_info &info, std::string &site) {
    std::lock_guard<std::mutex> hold(g_identity_mu);
    if (!fill_device_info())
        return false;
    info = g_device_info;
    site = site_id;
    return true;
}

// A string member; false when it cannot be made.
bool add_string(json_object *obj, const char *key, const char *value) {
    json_object *v = json_object_new_string(value);
    if (!v)
        return false;
    if (json_object_object_add(obj, key, v) != 0) {
        json_object_put(v);
        return false;
    }
    return true;
}

// The event report head object; null when an object or the array cannot be made.
JsonPtr make_event_head(const cloud_device_info &info, const std::string &site) {
    JsonPtr head(json_object_new_object());
    JsonPtr list(json_object_new_array());
    JsonPtr dev(json_object_new_object());
    if (!head || !list || !dev)
        return nullptr;
    if (!add_string(head.get(), "projectId", site.c_str()) ||
        !add_string(head.get(), "deviceMac", info.mac) ||
        !add_string(head.get(), "deviceType", info.type) ||
        !add_string(dev.get(), "devMac", info.mac) ||
        !add_string(dev.get(), "devType", info.type) ||
        !add_string(dev.get(), "devName", info.name))
        return nullptr;
    if (json_object_array_add(list.get(), dev.get()) != 0)
        return nullptr;
    dev.release();
    if (json_object_object_add(head.get(), "devEventList", list.get()) != 0)
        return nullptr;
    list.release();
    return head;
}

void free_traced(void *p) {
    NMS_LOG_TRACE("%s:%d::free(%p)\n", __func__, __LINE__, p);
    mem_guard_free(p);
}

// One parser per thread, reset before each use: making and freeing one per call was a
// noticeable share of a dispatch worker's time. Freed when its thread ends.
json_tokener *thread_tokener() {
    thread_local TokenerPtr tok;
    if (!tok)
        tok.reset(json_tokener_new());
    return tok.get();
}

}  // namespace

extern "C" json_object *jsonParseStr(const char *text) noexcept {
    return json_parse_value(text, nullptr);
}

namespace {

// A strict reader of JSON as the management service reads it (no comments, no single quotes,
// no trailing commas, no NaN): each step takes one element at p and returns the position after
// it, or null.
class StrictJson {
public:
    // library_safe: also refuse what strict JSON allows but the JSON library may not take
    // (nesting deeper than kLibrarySafeDepth, exponents, integers of more than 18 digits),
    // so that a text this accepts is certain to be accepted by the library too.
    StrictJson(const char *text, size_t len, bool library_safe = false)
        : end_(text + len), max_depth_(library_safe ? kLibrarySafeDepth : kMaxDepth),
          library_safe_(library_safe) {}
    const char *value(const char *p, int depth) const {
        p = blanks(p);
        if (p == end_ || depth > max_depth_)
            return nullptr;
        switch (*p) {
        case '{': return members(p + 1, depth);
        case '[': return elements(p + 1, depth);
        case '"': return string(p);
        case 't': return word(p, "true");
        case 'f': return word(p, "false");
        case 'n': return word(p, "null");
        default: return number(p);
        }
    }
    const char *blanks(const char *p) const {
        while (p < end_ && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r'))
            p++;
        return p;
    }

private:
    static constexpr int kMaxDepth = 64;
    static constexpr int kLibrarySafeDepth = 16;   // the library refuses from 32 on
    static constexpr long kLibrarySafeDigits = 18; // an int64 holds every 18-digit integer
    const char *members(const char *p, int depth) const {
        p = blanks(p);
        if (p < end_ && *p == '}')
            return p + 1;
        for (;;) {
            p = blanks(p);
            if (p == end_ || *p != '"' || !(p = string(p)))
                return nullptr;
            p = blanks(p);
            if (p == end_ || *p != ':' || !(p = value(p + 1, depth + 1)))
                return nullptr;
            p = blanks(p);
            if (p == end_)
                return nullptr;
            if (*p == '}')
                return p + 1;
            if (*p++ != ',')
                return nullptr;
        }
    }
    const char *elements(const char *p, int depth) const {
        p = blanks(p);
        if (p < end_ && *p == ']')
            return p + 1;
        for (;;) {
            if (!(p = value(p, depth + 1)))
                return nullptr;
            p = blanks(p);
            if (p == end_)
                return nullptr;
            if (*p == ']')
                return p + 1;
            if (*p++ != ',')
                return nullptr;
        }
    }
    // The plain part of a string (no quote, backslash or control character) is most of every
    // event's params, and every event is checked: it is skipped 16 bytes at a time where the
    // processor has vector instructions, else a machine word at a time (the word test holds
    // in either byte order). special() has a high bit set when one of the word's bytes ends
    // the plain part; which one it does not tell (a borrow may mark a neighbour too), so the
    // bytes of that word are then read one by one.
    using Word = unsigned long;
    static constexpr Word kOnes = ~Word(0) / 0xff, kHighs = kOnes << 7;
    static Word special(const char *p) {
        Word v;
        std::memcpy(&v, p, sizeof v);
        const Word quote = v ^ (kOnes * '"'), slash = v ^ (kOnes * '\\');
        return ((quote - kOnes) & ~quote) | ((slash - kOnes) & ~slash) | ((v - kOnes * 0x20) & ~v);
    }
    static bool plain(char c) {
        return c != '"' && c != '\\' && static_cast<unsigned char>(c) >= 0x20;
    }
    // The first byte at or after p that is not plain, or end_.
    const char *plain_run(const char *p) const {
#if defined(__SSE2__)
        const __m128i quote = _mm_set1_epi8('"'), slash = _mm_set1_epi8('\\');
        const __m128i control_max = _mm_set1_epi8(0x1f);
        // v <= 0x1f, unsigned: the smaller of v and 0x1f is v itself. Inlined even at -Os (the
        // package build), which would otherwise make a call of every 16 bytes.
        auto hits = [&](const char *at) __attribute__((always_inline)) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(at));
            return _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, slash)),
                                _mm_cmpeq_epi8(_mm_min_epu8(v, control_max), v));
        };
        // 64 bytes a branch while nothing is found, then the block of 16 that holds it.
        for (; end_ - p >= 64; p += 64) {
            const __m128i any = _mm_or_si128(_mm_or_si128(hits(p), hits(p + 16)),
                                             _mm_or_si128(hits(p + 32), hits(p + 48)));
            if (_mm_movemask_epi8(any))
                break;
        }
        for (; end_ - p >= 16; p += 16) {
            const int bits = _mm_movemask_epi8(hits(p));
            if (bits)
                return p + __builtin_ctz(static_cast<unsigned>(bits));
        }
#elif defined(__ARM_NEON)
        const uint8x16_t quote = vdupq_n_u8('"'), slash = vdupq_n_u8('\\');
        const uint8x16_t control_max = vdupq_n_u8(0x1f);
        for (; end_ - p >= 16; p += 16) {
            const uint8x16_t v = vld1q_u8(reinterpret_cast<const uint8_t *>(p));
            const uint64x2_t hit = vreinterpretq_u64_u8(vorrq_u8(
                vorrq_u8(vceqq_u8(v, quote), vceqq_u8(v, slash)), vcleq_u8(v, control_max)));
            if (vgetq_lane_u64(hit, 0) | vgetq_lane_u64(hit, 1))
                break;
        }
#endif
        for (; end_ - p >= static_cast<std::ptrdiff_t>(sizeof(Word)); p += sizeof(Word)) {
            if (special(p) & kHighs)
                break;
        }
        while (p < end_ && plain(*p))
            p++;
        return p;
    }
    const char *string(const char *p) const {
        for (p++;;) {
            p = plain_run(p);
            if (p == end_)
                return nullptr;
            const unsigned char c = static_cast<unsigned char>(*p);
            if (c == '"')
                return p + 1;
            if (c < 0x20)
                return nullptr;
            // A backslash: one escape, then plain text again.
            if (++p == end_)
                return nullptr;
            if (*p == 'u') {
                for (int i = 0; i < 4; i++)
                    if (++p == end_ || !std::isxdigit(static_cast<unsigned char>(*p)))
                        return nullptr;
            } else if (!std::strchr("\"\\/bfnrt", *p) || *p == '\0') {
                return nullptr;
            }
            p++;
        }
    }
    const char *word(const char *p, const char *w) const {
        size_t n = std::strlen(w);
        return static_cast<size_t>(end_ - p) >= n && std::memcmp(p, w, n) == 0 ? p + n : nullptr;
    }
    const char *digits(const char *p) const {
        const char *start = p;
        while (p < end_ && *p >= '0' && *p <= '9')
            p++;
        return p == start ? nullptr : p;
    }
    const char *number(const char *p) const {
        if (p < end_ && *p == '-')
            p++;
        const char *int_start = p;
        if (p < end_ && *p == '0')
            p++;
        else if (!(p = digits(p)))
            return nullptr;
        if (library_safe_ && (p - int_start > kLibrarySafeDigits ||
                              (p < end_ && (*p == 'e' || *p == 'E'))))
            return nullptr;
        if (p < end_ && *p == '.' && !(p = digits(p + 1)))
            return nullptr;
        if (p < end_ && (*p == 'e' || *p == 'E')) {
            p++;
            if (p < end_ && (*p == '+' || *p == '-'))
                p++;
            if (!(p = digits(p)))
                return nullptr;
        }
        return p;
    }
    const char *end_;
    const int max_depth_;
    const bool library_safe_;
};

}  // namespace

bool json_text_is_strict(const char *text, size_t len) noexcept {
    StrictJson reader(text, len);
    const char *p = reader.value(text, 0);
    return p && reader.blanks(p) == text + len;
}

size_t json_plain_value_length(const char *text, size_t len) noexcept {
    if (!text)
        return 0;
    StrictJson reader(text, len, true);
    const char *start = reader.blanks(text);
    const char *p = reader.value(text, 0);
    if (!p || reader.blanks(p) != text + len)
        return 0;
    // null is a value, but not params: the library's path refuses it with its message.
    if (static_cast<size_t>(p - start) == 4 && std::memcmp(start, "null", 4) == 0)
        return 0;
    return static_cast<size_t>(p - text);
}

json_object *json_parse_value(const char *text, size_t *end) noexcept {
    if (!text) {
        NMS_LOG_ERROR("Buf is NULL!");
        return nullptr;
    }
    json_tokener *tok = thread_tokener();
    if (!tok) {
        NMS_LOG_ERROR("Create tokener failed.");
        return nullptr;
    }
    json_tokener_reset(tok);
    // -1: the parser finds the length from the terminator, which also ends a bare number.
    json_object *obj = json_tokener_parse_ex(tok, text, -1);
    bool ok = json_tokener_get_error(tok) == json_tokener_success;
    if (ok && end) {
        // The parser may have stepped over blanks after the value; they are not part of it.
        size_t n = json_tokener_get_parse_end(tok);
        while (n > 0 && std::isspace(static_cast<unsigned char>(text[n - 1])))
            n--;
        *end = n;
    }
    // Drops what an incomplete or broken text left half built.
    json_tokener_reset(tok);
    if (!ok) {
        NMS_LOG_ERROR("Parse buf failed,%s.\n", text);
        json_object_put(obj);
        return nullptr;
    }
    return obj;
}

extern "C" const char *getValueFromJsonObj(json_object *obj, const char *name) noexcept {
    if (!obj || !name) {
        NMS_LOG_ERROR("jsonObj or name is NULL!");
        return nullptr;
    }
    json_object *value = nullptr;
    if (!json_object_object_get_ex(obj, name, &value))
        return nullptr;
    if (!value)
        return "null";
    if (json_object_is_type(value, json_type_string))
        return json_object_get_string(value);
    return json_object_to_json_string(value);
}

extern "C" int getMacByUbus(char *dst) noexcept {
    bool pipe_failed = false;
    JsonPtr obj = run_json_command(kMacCmd, pipe_failed);
    if (pipe_failed) {
        NMS_LOG_ERROR("popen exe [%s] failed\n", kMacCmd);
        return -1;
    }
    return cloud_take_mac(obj.get(), dst);
}

int cloud_take_mac(json_object *obj, char *dst) noexcept {
    if (!obj) {
        NMS_LOG_ERROR("get jsonrpc obj failed.");
        return -1;
    }
    const char *mac = getValueFromJsonObj(obj, "mac");
    if (!dst || !mac || std::strlen(mac) != CLOUD_MAC_LEN) {
        NMS_LOG_ERROR("device info is incomplete, return error!");
        return -1;
    }
    std::memcpy(dst, mac, CLOUD_MAC_LEN + 1);
    return 0;
}

extern "C" cloud_device_info *cloud_get_device_info(void) noexcept {
    std::lock_guard<std::mutex> hold(g_identity_mu);
    return fill_device_info() ? &g_device_info : nullptr;
}

extern "C" int local_update_site_id(void) noexcept {
    bool pipe_failed = false;
    JsonPtr obj = run_json_command(kSiteCmd, pipe_failed);
    if (pipe_failed) {
        NMS_LOG_ERROR("popen exe [%s] failed\n", kSiteCmd);
        return -1;
    }
    return cloud_take_site_id(obj.get());
}

int cloud_take_site_id(json_object *obj) noexcept {
    if (!obj) {
        NMS_LOG_ERROR("get jsonrpc obj failed.");
        return -1;
    }
    const char *site = getValueFromJsonObj(obj, "site_id");
    if (!site || !*site) {
        NMS_LOG_ERROR("device info is incomplete, return error!");
        return -1;
    }
    std::lock_guard<std::mutex> hold(g_identity_mu);
    copy_field(site_id, site);  // cut rather than overrun the buffer
    return 0;
}

extern "C" const char *cloud_get_site_id(void) noexcept { return site_id; }

extern "C" int cloud_event_match(int32_t id) noexcept {
    if (get_event_enable(id) != 0)
        return -1;
    return get_report_online() != 0 ? 0 : -1;
}

extern "C" int cloud_report_formate_head(char **text, int32_t *remaining) noexcept {
    if (!text || !remaining)
        return -1;
    cloud_device_info info;
    std::string site;
    if (!copy_identity(info, site)) {
        NMS_LOG_ERROR("cloud_get_device_info failed.");
        *text = nullptr;
        return -1;
    }
    *text = nullptr;
    char *buf = static_cast<char *>(MEM_GUARD_ALLOC(NMS_REPORT_BUF_SIZE));
    if (!buf)
        return -1;
    // Zero-filled, so that every append is terminated by the zeros after it.
    std::memset(buf, 0, NMS_REPORT_BUF_SIZE);
    *text = buf;
    auto fail = [&] {
        free_traced(buf);
        *text = nullptr;
        return -1;
    };
    JsonPtr head = make_event_head(info, site);
    if (!head) {
        NMS_LOG_ERROR("malloc obj failed.");
        return fail();
    }
    const char *h = json_object_to_json_string_ext(head.get(), JSON_C_TO_STRING_PLAIN);
    size_t len = h ? std::strlen(h) : 0;
    if (!h || len >= CLOUD_HEAD_LIMIT || len < 3)
        return fail();
    // The head without "}]}": the event list goes inside the device object.
    std::memcpy(buf, h, len - 3);
    std::memcpy(buf + len - 3, kEventListOpen, sizeof(kEventListOpen) - 1);
    *remaining = static_cast<int32_t>(CLOUD_HEAD_LIMIT - (len - 3));
    return 0;
}

extern "C" int format_event_report_event(char *text, int32_t id, uint64_t time, const char *params,
                                         int32_t first, int32_t *remaining,
                                         int32_t *added) noexcept {
    if (!text || !remaining || !params || !added)
        return -1;
    int32_t r = *remaining;
    *added = 0;
    // Compared as unsigned, as the space counter always was; it never goes below 0.
    if (static_cast<uint64_t>(static_cast<int64_t>(r)) >= std::strlen(params) + kEventOverhead) {
        // The text's length is taken from the text itself, as callers may hand in any text.
        // (The remaining count does not always mirror it: it is cut to 0 at the end.) Measuring
        // it anew for every event made a batch quadratic in its length (a quarter megabyte
        // measured two thousand times, most of a failed batch's time in an outage), so the end
        // this thread wrote last is remembered: it holds while the same text still ends there.
        // The first event of a text is always measured.
        thread_local const char *last_text = nullptr;
        thread_local size_t last_len = 0;
        size_t len;
        if (first == 0 && text == last_text && last_len > 0 && text[last_len] == '\0' &&
            text[last_len - 1] != '\0')
            len = last_len;
        else
            len = std::strlen(text);
        unsigned long long t = static_cast<unsigned long long>(time);
        size_t start = first == 0 ? len + 1 : len;
        size_t limit = static_cast<size_t>(first == 0 ? r - 1 : r);
        if (first == 0)
            text[len] = ',';
        int n = std::snprintf(text + start, limit, kEventFmt, id, t, params);
        // The new end follows from what snprintf wrote (it stops at params' terminator and
        // writes no NUL inside), so the text is not measured a second time.
        size_t new_len;
        if (n < 0)
            new_len = std::strlen(text);
        else
            new_len = start + std::min(static_cast<size_t>(n), limit - 1);
        last_text = text;
        last_len = new_len;
        int64_t left = static_cast<int64_t>(r) + static_cast<int64_t>(len) -
                       static_cast<int64_t>(new_len);
        *remaining = left < 0 ? 0 : static_cast<int32_t>(left);
        *added = 1;
        return 0;
    }
    if (first != 0)
        return -1;  // not even one event fits: the batch is abandoned
    *remaining = 0;  // ends the batch
    return 0;
}

extern "C" int format_event_report_tail(char *text, int32_t *remaining) noexcept {
    if (!text || !remaining)
        return -1;
    if (*remaining < -CLOUD_TAIL_RESERVE)
        return -1;
    // No terminator is written: the buffer's zero fill terminates the text. The fifth brace
    // closes one level more than was opened; receivers expect it.
    std::memcpy(text + std::strlen(text), kTail, sizeof(kTail) - 1);
    *remaining += CLOUD_TAIL_RESERVE;
    return 0;
}

extern "C" int cloud_report_send_info(char *text, uint32_t retries, int32_t *result) noexcept {
    if (!text || !result)
        return -1;
    char path[] = CLOUD_EVENT_URL;
    short_link_request request{};
    request.url = path;
    request.content = text;
    NMS_LOG_DEBUG("report event:%s", text);
    int ret = retries != 0 ? sendto_business_by_short_link_retran(&request, result, retries)
                           : sendto_business_by_short_link(&request, result);
    nms_ledger_cloud_send(ret, *result);
    return ret;
}

int cloud_params_splice(char *buf) noexcept {
    if (!buf)
        return -1;
    cloud_device_info info;
    std::string site;
    if (!copy_identity(info, site))
        return -1;
    JsonPtr head(json_object_new_object());
    if (!head || !add_string(head.get(), "projectId", site.c_str()) ||
        !add_string(head.get(), "deviceMac", info.mac) ||
        !add_string(head.get(), "deviceType", info.type)) {
        NMS_LOG_ERROR("malloc obj failed.");
        return -1;
    }
    const char *h = json_object_to_json_string_ext(head.get(), JSON_C_TO_STRING_PLAIN);
    if (!h) {
        NMS_LOG_ERROR("malloc obj failed.");
        return -1;
    }
    NMS_LOG_TRACE(" report params:#%s#", h);
    size_t hlen = std::strlen(h);
    size_t tlen = std::strlen(buf);
    std::memmove(buf + hlen - 1, buf, tlen);
    std::memcpy(buf, h, hlen - 1);
    buf[hlen - 1 + tlen] = '}';
    NMS_LOG_TRACE(" report params:#%s#", buf);
    return 0;
}
