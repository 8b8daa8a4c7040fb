// udbg_parser_test.cpp - the debug shell's command parser through udbg_cmd_parse.
#include "udbg_parser.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Parsed {
    bool ok;
    udbg_cmd cmd;
};

Parsed parse(const std::string &line)
{
    Parsed p{};
    p.ok = udbg_cmd_parse(line.c_str(), &p.cmd) == 0;
    return p;
}

bool accepted(const std::string &line) { return parse(line).ok; }

}  // namespace

TEST(UdbgParser, KindsOfCommandKeepTheirTextAndType)
{
    const struct {
        const char *line, *name;
        uint32_t is_call;
        int argc;
        const char *args[4];   // texts; a leading '"' marks a string argument
    } cases[] = {
        {"foo(1, \"a b\", 0x1F, -010)", "foo", 1, 4, {"1", "\"a b", "0x1F", "-010"}},
        {"  foo ( )  ", "foo", 1, 0, {}},
        {"\t _foo_1 \t", "_foo_1", 0, 0, {}},
        {"var = -5", "var", 0, 1, {"-5"}},
        {"var=\"x\"", "var", 0, 1, {"\"x"}},   // parses; the executor refuses it
        {"f(0,\"\")", "f", 1, 2, {"0", "\""}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        Parsed p = parse(c.line);
        ASSERT_TRUE(p.ok);
        EXPECT_STREQ(p.cmd.name, c.name);
        EXPECT_EQ(p.cmd.is_call, c.is_call);
        ASSERT_EQ(p.cmd.argc, c.argc);
        for (int i = 0; i < c.argc; i++) {
            bool str = c.args[i][0] == '"';
            EXPECT_EQ(p.cmd.args[i].type, str ? UDBG_ARG_STRING : UDBG_ARG_INTEGER) << i;
            EXPECT_STREQ(p.cmd.args[i].text, c.args[i] + str) << i;
        }
    }
}

TEST(UdbgParser, MalformedLinesAreSyntaxErrors)
{
    for (const char *line : {
             "", "   ", "1foo", "foo(", "foo(1,)", "foo(,1)", "foo(1 2)", "foo(1) x",
             "foo(1)(2)", "foo bar", "foo(\"abc)", "foo(\"a\" \"b\")",
             "foo(0x)", "foo(0xg)", "foo(08)", "foo(-)", "foo(- 1)", "foo(1a)",
             "foo(abc)",       // names are no values
             "x =", "x = 1, 2", "x = 1 ", "x = (1)", "x = 1)", "x(1", "foo)", "foo-1"}) {
        SCOPED_TRACE(line);
        EXPECT_FALSE(accepted(line));
    }
}

TEST(UdbgParser, LengthAndCountLimits)
{
    // Characters of one integer, sign and prefix included: decimal 20 (21 with "-"),
    // octal 23 (24), hexadecimal 17 (18).
    const std::string dec20(20, '9'), oct22(22, '7'), hex15(15, 'F');
    const struct {
        std::string value;
        bool ok;
    } cases[] = {
        {dec20, true},           {"-" + dec20, true},
        {dec20 + "9", false},    {"-" + dec20 + "9", false},
        {"0" + oct22, true},     {"-0" + oct22, true},
        {"0" + oct22 + "7", false}, {"-0" + oct22 + "7", false},
        {"0x" + hex15, true},    {"-0X" + hex15, true},
        {"0x" + hex15 + "F", false}, {"-0x" + hex15 + "F", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_EQ(accepted("f(" + c.value + ")"), c.ok);
        EXPECT_EQ(accepted("v=" + c.value), c.ok);
    }

    SCOPED_TRACE("names and strings up to 96 characters, ten arguments");
    const std::string name96 = "n" + std::string(95, 'a'), s96(96, 's');
    EXPECT_EQ(std::string(parse(name96 + "()").cmd.name), name96);
    EXPECT_FALSE(accepted(name96 + "a()"));
    EXPECT_EQ(std::string(parse("f(\"" + s96 + "\")").cmd.args[0].text), s96);
    EXPECT_FALSE(accepted("f(\"" + s96 + "s\")"));
    Parsed p = parse("f(1,2,3,4,5,6,7,8,9,10)");
    ASSERT_TRUE(p.ok);
    EXPECT_STREQ(p.cmd.args[9].text, "10");
    EXPECT_FALSE(accepted("f(\"1\",2,3,4,5,6,7,8,9,10,\"11\")"));

    SCOPED_TRACE("null arguments");
    udbg_cmd c;
    EXPECT_EQ(udbg_cmd_parse(nullptr, &c), -1);
    EXPECT_EQ(udbg_cmd_parse("f()", nullptr), -1);
}
