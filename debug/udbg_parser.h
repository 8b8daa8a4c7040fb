// udbg_parser.h - the debug shell's command line parser (one command a line).
//
//   name                 read variable `name`, or call function `name` without arguments
//   name = value         set variable `name` (one integer)
//   name(arg, ...)       call function `name` with 0 .. 10 integer or "string" arguments
#pragma once

#include <cstdint>

constexpr int UDBG_NAME_MAX = 96;   // characters of a name
constexpr int UDBG_ARG_MAX = 96;    // characters of one argument's text
constexpr int UDBG_ARGC_MAX = 10;

constexpr uint32_t UDBG_ARG_INTEGER = 0;
constexpr uint32_t UDBG_ARG_STRING = 1;

struct udbg_arg {
    uint32_t type;                  // UDBG_ARG_INTEGER or UDBG_ARG_STRING
    char text[UDBG_ARG_MAX + 1];    // digits with sign and prefix as written, or the string
};

struct udbg_cmd {
    uint32_t is_call;               // 1: the command had parentheses; 0: a variable command
    char name[UDBG_NAME_MAX + 1];
    int32_t argc;                   // 0 .. UDBG_ARGC_MAX
    udbg_arg args[UDBG_ARGC_MAX];
};

// Clears *cmd and parses line into it. 0 when the line is a well-formed command, -1 on
// a syntax error (*cmd then holds what was read so far and must not be executed).
// With the debug switch on, every state entered and the parsed command are printed.
int udbg_cmd_parse(const char *line, udbg_cmd *cmd) noexcept;

// Prints a parsed command (with the debug switch on only).
void udbg_para_dump(const udbg_cmd *cmd) noexcept;
