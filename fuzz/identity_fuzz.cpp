// identity_fuzz.cpp - whatever the device's information service and the cloud client print for
// the identity queries is taken or refused without harm: a taken MAC is exactly 17 characters,
// a taken site id fits its field.
#include <json-c/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cloud_report.h"
#include "nms_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 1024)
        return 0;  // the daemon reads at most this much of either answer
    std::string out(reinterpret_cast<const char *>(data), size);
    json_object *obj = jsonParseStr(out.c_str());
    char mac[CLOUD_MAC_LEN + 8];
    std::memset(mac, 'x', sizeof(mac));
    if (cloud_take_mac(obj, mac) == 0 && std::strlen(mac) != CLOUD_MAC_LEN)
        abort();
    if (cloud_take_site_id(obj) == 0 && strnlen(site_id, sizeof(site_id)) == sizeof(site_id))
        abort();
    json_object_put(obj);
    return 0;
}
