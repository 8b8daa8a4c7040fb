// info_report.h - the device's reporting library: short-link messages to the management service.
//
// On a device the vendor's library provides these functions; the host build provides an
// implementation that posts each message over HTTP, so the daemon links the same way on both.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define INFO_REPORT_NOEXCEPT noexcept
extern "C" {
#else
#define INFO_REPORT_NOEXCEPT
#endif

// One message for the management service. The caller owns the record and both texts; the
// library only reads them during the call. The four reserved fields are always 0.
struct short_link_request {
    char *url;              // path of the message, e.g. "/nexo/devmsg/v1/reportDevEventMsg"
    char *content;          // the message body, a NUL-terminated JSON text
    uint64_t reserved[4];
};

// Two pointers, then the reserved fields at 8-byte alignment: 48 bytes with 8-byte pointers
// (URL path at 0, content at 8, reserved at 16..47); 40 bytes on 32-bit targets, where the
// vendor's library is built with the same compiler rules.
#define SHORT_LINK_RESERVED_OFFSET \
    ((2 * sizeof(char *) + _Alignof(uint64_t) - 1) / _Alignof(uint64_t) * _Alignof(uint64_t))
#ifdef __cplusplus
#undef SHORT_LINK_RESERVED_OFFSET
#define SHORT_LINK_RESERVED_OFFSET \
    ((2 * sizeof(char *) + alignof(uint64_t) - 1) / alignof(uint64_t) * alignof(uint64_t))
static_assert(offsetof(short_link_request, url) == 0, "path pointer at offset 0");
static_assert(offsetof(short_link_request, content) == sizeof(char *), "content after the path");
static_assert(offsetof(short_link_request, reserved) == SHORT_LINK_RESERVED_OFFSET,
              "reserved fields after the two pointers");
static_assert(sizeof(short_link_request) == SHORT_LINK_RESERVED_OFFSET + 32,
              "four 8-byte reserved fields end the record");
static_assert(sizeof(char *) != 8 || sizeof(short_link_request) == 48,
              "short_link_request is a 48-byte record with 8-byte pointers");
#else
_Static_assert(sizeof(struct short_link_request) == SHORT_LINK_RESERVED_OFFSET + 32,
               "four 8-byte reserved fields end the record");
_Static_assert(sizeof(char *) != 8 || sizeof(struct short_link_request) == 48,
               "short_link_request is a 48-byte record with 8-byte pointers");
#endif

// Prepares the library. Both arguments are reserved: pass 0 and NULL. Returns 0. May be called
// more than once; the base URL is looked up again on every send, so calling it is optional.
int init_info_report2(int mode, void *reserved) INFO_REPORT_NOEXCEPT;

// Sends one message, one attempt. Returns 0 when an HTTP response came back and -1 when none
// did (or when request, its texts or result are NULL). *result is set to 0 for a 2xx status,
// to the HTTP status otherwise, and to -1 when there was no response.
int sendto_business_by_short_link(struct short_link_request *request,
                                  int *result) INFO_REPORT_NOEXCEPT;

// As above, but makes up to 1 + retries attempts while they fail (no response, or a status
// outside 2xx), waiting 200 ms before the first retry and twice as long before each next one.
// Return value and *result are those of the last attempt.
int sendto_business_by_short_link_retran(struct short_link_request *request, int *result,
                                         uint32_t retries) INFO_REPORT_NOEXCEPT;

// Turns the printing of each request and its outcome on standard output on (nonzero) or off.
void sec_request_debug_switch_set(int on) INFO_REPORT_NOEXCEPT;

#ifdef __cplusplus
}
#endif
