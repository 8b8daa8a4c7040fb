// cloud_report.h - the cloud report envelope, the device identity it carries, the request
// record's use, and the JSON utilities of the daemon.
#pragma once

#include <json-c/json.h>

#include <atomic>
#include <cstdint>

#include <info_report.h>

#define CLOUD_EVENT_URL "/nexo/devmsg/v1/reportDevEventMsg"
#define CLOUD_PARAMS_URL "/nexo/devmsg/v1/reportParamsMsg"
#define CLOUD_SEND_RETRIES 3
#define CLOUD_MAC_LEN 17          // characters of a MAC as the device service gives it
#define CLOUD_HEAD_LIMIT 260850   // the head text must stay shorter than this
#define CLOUD_TAIL_RESERVE 251    // given back to the remaining space by the tail

extern "C" {

// The device's identity as reports carry it.
struct cloud_device_info {
    char mac[20];
    char type[68];
    char name[64];
};
static_assert(sizeof(cloud_device_info) == 152, "three fixed text fields");

// 1 once MAC, type and name were fetched; they are never refreshed afterwards.
extern std::atomic<int32_t> device_info_cached;
// Site id, refreshed by local_update_site_id; empty until the first success.
extern char site_id[72];

json_object *jsonParseStr(const char *text) noexcept;
const char *getValueFromJsonObj(json_object *obj, const char *name) noexcept;
int getMacByUbus(char *dst) noexcept;
cloud_device_info *cloud_get_device_info(void) noexcept;
int local_update_site_id(void) noexcept;
const char *cloud_get_site_id(void) noexcept;

// The cloud report type's operations (type 0 of the report type table).
int cloud_event_match(int32_t id) noexcept;
int cloud_report_formate_head(char **text, int32_t *remaining) noexcept;
int format_event_report_event(char *text, int32_t id, uint64_t time, const char *params,
                              int32_t first, int32_t *remaining, int32_t *added) noexcept;
int format_event_report_tail(char *text, int32_t *remaining) noexcept;
int cloud_report_send_info(char *text, uint32_t retries, int32_t *result) noexcept;

}  // extern "C"

// jsonParseStr that also tells where the value ends: *end is the length of the value's text
// (blanks after it excluded), set only when the parse succeeds. What follows the value is
// ignored by the parse; callers that pass the text on keep only the value.
json_object *json_parse_value(const char *text, size_t *end) noexcept;

// Whether the len characters at text are one JSON value as the strict grammar has it (the
// parser above also takes comments, single quotes, trailing commas and NaN, which the
// management service's reader refuses).
bool json_text_is_strict(const char *text, size_t len) noexcept;
// When the len bytes of text are exactly one strict JSON value other than null (blanks around
// it allowed), with nothing in it the JSON library could refuse: the length up to the end of
// that value. Otherwise 0. Such a text needs no parse: the library takes it, as it stands.
size_t json_plain_value_length(const char *text, size_t len) noexcept;

// Puts the identity head {"projectId":..,"deviceMac":..,"deviceType":.. without its closing
// brace in front of the text held in buf (which must begin with a comma) and closes the object.
// buf needs room for the head, the text and one more character, with zeros after the text.
// 0, or -1 when the identity or the JSON object cannot be made (the text is then unchanged).
int cloud_params_splice(char *buf) noexcept;

// The steps of getMacByUbus and local_update_site_id after their command: take the MAC (into
// dst, CLOUD_MAC_LEN + 1 bytes) or the site id from the parsed output. 0, or -1 with the
// messages of the callers.
int cloud_take_mac(json_object *obj, char *dst) noexcept;
int cloud_take_site_id(json_object *obj) noexcept;
