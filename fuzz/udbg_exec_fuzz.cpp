// udbg_exec_fuzz.cpp - any command given to the debug shell through the command socket's "udbg"
// service is executed or refused without harm. Names that are not in the process's symbol
// lists are refused, so what runs here is the request handling, the parse, the dispatch to
// call, assignment or read, and the refusals; lines naming `self` or `reset` are left out,
// since those point the process's output elsewhere.
#include <json-c/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "udbg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

// The shell answers on standard output, one line per refused command; libFuzzer reports on
// standard error, which stays.
bool quiet_output()
{
    return std::freopen("/dev/null", "w", stdout) != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = quiet_output();
    (void)quiet;
    if (size > 512)
        return 0;
    std::string line(reinterpret_cast<const char *>(data), size);
    // Any line naming them is left out, whatever the parser makes of it: the service cuts
    // and reads the text in its own way, and one redirection ends the run's own reports.
    if (line.find("self") != std::string::npos || line.find("reset") != std::string::npos)
        return 0;
    udbg_err_on.store(0);
    json_object *request = json_object_new_object();
    json_object_object_add(request, "cmd", json_object_new_string_len(line.data(), static_cast<int>(line.size())));
    json_object *reply = json_object_new_object();
    udbg_jcs_callback_set(request, reply);
    json_object_put(request);
    json_object_put(reply);
    return 0;
}
