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
    Parsed p;
    p.ok = udbg_cmd_parse(line.c_str(), &p.cmd) == 0;
    return p;
}

bool accepted(const std::string &line) { return parse(line).ok; }

}  // namespace

TEST(UdbgParser, CallWithMixedArgumentsKeepsTheirTextAndType)
{
    // foo(1, "a b", 0x1F, -010): integer, string with its blank, hex, negative octal.
    Parsed p = parse("foo(1, \"a b\", 0x1F, -010)");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.cmd.is_call, 1u);
    EXPECT_STREQ(p.cmd.name, "foo");
    ASSERT_EQ(p.cmd.argc, 4);
    const struct {
        uint32_t type;
        const char *text;
    } want[] = {{UDBG_ARG_INTEGER, "1"},
                {UDBG_ARG_STRING, "a b"},
                {UDBG_ARG_INTEGER, "0x1F"},
                {UDBG_ARG_INTEGER, "-010"}};
    for (int i = 0; i < 4; i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(p.cmd.args[i].type, want[i].type);
        EXPECT_STREQ(p.cmd.args[i].text, want[i].text);
    }
}

TEST(UdbgParser, KindsOfCommand)
{
    SCOPED_TRACE("empty parentheses: a call without arguments");
    Parsed p = parse("  foo ( )  ");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.cmd.is_call, 1u);
    EXPECT_EQ(p.cmd.argc, 0);

    SCOPED_TRACE("bare name, with leading and trailing blanks");
    p = parse("\t _foo_1 \t");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.cmd.is_call, 0u);
    EXPECT_EQ(p.cmd.argc, 0);
    EXPECT_STREQ(p.cmd.name, "_foo_1");

    SCOPED_TRACE("assignment");
    p = parse("var = -5");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.cmd.is_call, 0u);
    ASSERT_EQ(p.cmd.argc, 1);
    EXPECT_STREQ(p.cmd.args[0].text, "-5");

    SCOPED_TRACE("assignment of a string parses (the executor refuses it)");
    p = parse("var=\"x\"");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.cmd.args[0].type, UDBG_ARG_STRING);

    SCOPED_TRACE("zero alone and an empty string");
    p = parse("f(0,\"\")");
    ASSERT_TRUE(p.ok);
    EXPECT_STREQ(p.cmd.args[0].text, "0");
    EXPECT_STREQ(p.cmd.args[1].text, "");
}

TEST(UdbgParser, MalformedLinesAreSyntaxErrors)
{
    const char *bad[] = {
        "",               // nothing at all
        "   ",            // blanks only
        "1foo",           // name starts with a digit
        "foo(",           // stops after the opening parenthesis
        "foo(1,)",        // comma with no argument before ")"
        "foo(,1)",        // comma before the first argument
        "foo(1 2)",       // two values without a comma
        "foo(1) x",       // something after ")"
        "foo(1)(2)",
        "foo bar",        // two names
        "foo(\"abc)",     // unterminated string
        "foo(\"a\" \"b\")",
        "foo(0x)",        // hexadecimal prefix needs a digit
        "foo(0xg)",
        "foo(08)",        // 8 is no octal digit
        "foo(-)",         // sign without digits
        "foo(- 1)",
        "foo(1a)",
        "foo(abc)",       // names are no values
        "x =",            // assignment without a value
        "x = 1, 2",       // a variable takes one value
        "x = 1 ",         // an assignment ends at its integer
        "x = (1)",
        "x = 1)",
        "x(1",
        "foo)",
        "foo-1",
    };
    for (const char *line : bad) {
        SCOPED_TRACE(line);
        EXPECT_FALSE(accepted(line));
    }
}

TEST(UdbgParser, IntegerLengthLimits)
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
}

TEST(UdbgParser, NameAndStringLengthLimits)
{
    const std::string name96 = "n" + std::string(95, 'a');
    Parsed p = parse(name96 + "()");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(std::string(p.cmd.name), name96);
    EXPECT_FALSE(accepted(name96 + "a()"));

    const std::string s96(96, 's');
    p = parse("f(\"" + s96 + "\")");
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(std::string(p.cmd.args[0].text), s96);
    EXPECT_FALSE(accepted("f(\"" + s96 + "s\")"));
}

TEST(UdbgParser, AtMostTenArguments)
{
    std::string ten = "f(1,2,3,4,5,6,7,8,9,10)";
    Parsed p = parse(ten);
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.cmd.argc, 10);
    EXPECT_STREQ(p.cmd.args[9].text, "10");
    EXPECT_FALSE(accepted("f(1,2,3,4,5,6,7,8,9,10,11)"));
    EXPECT_FALSE(accepted("f(\"1\",2,3,4,5,6,7,8,9,10,\"11\")"));
}

TEST(UdbgParser, NullArgumentsAreRefused)
{
    udbg_cmd c;
    EXPECT_EQ(udbg_cmd_parse(nullptr, &c), -1);
    EXPECT_EQ(udbg_cmd_parse("f()", nullptr), -1);
}
