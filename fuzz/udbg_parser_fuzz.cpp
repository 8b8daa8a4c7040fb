// udbg_parser_fuzz.cpp - any line given to the debug shell's parser is either refused
// or yields a command within the documented limits.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "udbg_parser.h"

namespace {

bool name_ok(const char *n)
{
    size_t len = strlen(n);
    if (len == 0 || len > static_cast<size_t>(UDBG_NAME_MAX))
        return false;
    for (size_t i = 0; i < len; i++) {
        char c = n[i];
        bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        if (!letter && !(i > 0 && c >= '0' && c <= '9'))
            return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string line(reinterpret_cast<const char *>(data), size);
    udbg_cmd cmd;
    if (udbg_cmd_parse(line.c_str(), &cmd) != 0)
        return 0;
    if (!name_ok(cmd.name) || cmd.argc < 0 || cmd.argc > UDBG_ARGC_MAX)
        abort();
    if (!cmd.is_call && cmd.argc > 1)
        abort();   // a variable takes at most one value
    for (int i = 0; i < cmd.argc; i++) {
        const udbg_arg &a = cmd.args[i];
        if (strlen(a.text) > static_cast<size_t>(UDBG_ARG_MAX))
            abort();
        if (a.type == UDBG_ARG_INTEGER) {
            // Integers are never empty and start with a sign or a digit.
            char c = a.text[0];
            if (!(c == '-' || (c >= '0' && c <= '9')))
                abort();
        } else if (a.type != UDBG_ARG_STRING) {
            abort();
        }
    }
    return 0;
}
