// udbg_exec_test.cpp - the debug shell's executor against this binary's own symbol
// lists (made at build time beside it, like the daemon's): calls, assignments, reads,
// the messages for unknown names, the command socket handler and the help list.
#include "udbg.h"
#include "udbg_exec.h"
#include "udbg_symbols.h"

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <unistd.h>

#include "jcs.h"

// Functions and variables the shell finds by name.
extern "C" {
long udbg_test_add(long a, long b);
long udbg_test_sum10(long a, long b, long c, long d, long e, long f, long g, long h, long i,
                     long j);
long udbg_test_strlen(const char *s);
long udbg_test_strcmp(const char *a, const char *b);
long udbg_test_neg(void);
extern uint8_t udbg_test_u8;
extern int16_t udbg_test_i16;
extern int32_t udbg_test_i32;
extern int64_t udbg_test_i64;
extern char udbg_test_blob[12];

__attribute__((used, noinline)) long udbg_test_add(long a, long b) { return a + b; }
__attribute__((used, noinline)) long udbg_test_sum10(long a, long b, long c, long d, long e,
                                                     long f, long g, long h, long i, long j)
{
    return a + b + c + d + e + f + g + h + i + j;
}
__attribute__((used, noinline)) long udbg_test_strlen(const char *s) { return (long)strlen(s); }
__attribute__((used, noinline)) long udbg_test_strcmp(const char *a, const char *b)
{
    return strcmp(a, b);
}
__attribute__((used, noinline)) long udbg_test_neg(void) { return -2; }
__attribute__((used)) uint8_t udbg_test_u8 = 200;
__attribute__((used)) int16_t udbg_test_i16 = -3;
__attribute__((used)) int32_t udbg_test_i32 = 7;
__attribute__((used)) int64_t udbg_test_i64 = 0;
__attribute__((used)) char udbg_test_blob[12];
}

namespace {

std::string self_dir()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return ".";
    buf[n] = '\0';
    std::string p(buf);
    return p.substr(0, p.rfind('/'));
}

std::string run(const std::string &line)
{
    testing::internal::CaptureStdout();
    udbg_cmd_exec(line.c_str());
    return testing::internal::GetCapturedStdout();
}

class UdbgExec : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        std::string dir = self_dir();
        std::string exe = dir + "/udbg_exec_test";
        // CTest runs the cases of this binary side by side: a scratch file each.
        scratch_ = exe + "." + std::to_string(getpid()) + ".symtmp";
        udbg_symbols_set_paths((exe + "_symbol_fun").c_str(), (exe + "_symbol_obj").c_str(),
                               scratch_.c_str());
    }
    static void TearDownTestSuite() { unlink(scratch_.c_str()); }
    static std::string scratch_;
    void TearDown() override { udbg_dbg_on.store(0); }
};
std::string UdbgExec::scratch_;

}  // namespace

TEST_F(UdbgExec, GoldenTranscript)
{
    std::ifstream f(std::string(NMS_TEST_SOURCE_DIR) + "/golden/udbg_exec.txt");
    ASSERT_TRUE(f.good());
    // A case may give a second output after a line "%ilp32": what targets with 4-byte longs
    // print, where arguments and results are as wide as a long.
    std::string line, cmd, want, want_ilp32;
    bool in_ilp32 = false;
    int cases = 0;
    auto check = [&]() {
        if (cmd.empty())
            return;
        SCOPED_TRACE(cmd);
        EXPECT_EQ(run(cmd), sizeof(long) == 4 && in_ilp32 ? want_ilp32 : want);
        cases++;
    };
    while (std::getline(f, line)) {
        if (line.rfind("$ ", 0) == 0) {
            check();
            cmd = line.substr(2);
            want.clear();
            want_ilp32.clear();
            in_ilp32 = false;
        } else if (line == "%ilp32") {
            in_ilp32 = true;
        } else {
            (in_ilp32 ? want_ilp32 : want) += line + "\n";
        }
    }
    check();
    EXPECT_GT(cases, 20);
    // The sets of the transcript landed in the variables' own widths.
    EXPECT_EQ(udbg_test_i32, 5);
    EXPECT_EQ(udbg_test_i64, -16);
    EXPECT_EQ(udbg_test_u8, 0xff);
}

TEST_F(UdbgExec, ReadsVariablesInTheirWidthAtTheirRealAddress)
{
    udbg_test_u8 = 200;   // one byte reads unsigned
    udbg_test_i16 = -3;   // two and four bytes read signed
    udbg_test_i64 = 1LL << 40;
    const struct {
        const char *name;
        const void *addr;
        const char *value;
    } cases[] = {
        {"udbg_test_u8", &udbg_test_u8, "200(0xc8)"},
        {"udbg_test_i16", &udbg_test_i16, "-3(0xfffffffffffffffd)"},
        {"udbg_test_i64", &udbg_test_i64, "1099511627776(0x10000000000)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        char want[256];
        snprintf(want, sizeof want, "\n Variable [%s] : addr = %p, value = %s\n", c.name, c.addr,
                 c.value);
        EXPECT_EQ(run(c.name), want);
    }
    int len = 0;
    EXPECT_EQ(udbg_get_var_addr("udbg_test_i32", &len), reinterpret_cast<unsigned long>(&udbg_test_i32));
    EXPECT_EQ(len, 4);
    EXPECT_EQ(udbg_get_fun_addr("udbg_test_add"), reinterpret_cast<unsigned long>(&udbg_test_add));
    SCOPED_TRACE("names that are not identifiers never reach the shell command");
    EXPECT_EQ(udbg_get_fun_addr("udbg_test_add;true"), 0ul);
    EXPECT_EQ(udbg_get_var_addr("", &len), 0ul);
}

TEST_F(UdbgExec, DebugSwitchShowsStatesAndTheParsedCommand)
{
    udbg_dbg_on.store(1);
    std::string out = run("udbg_test_add(1 , \"x\")");
    for (const char *state : {"STARTING", "WAIT_FUNC_NAME", "WAIT_RECEIVE_FIRST_ARG",
                              "WAIT_RECEIVE_DEC_ARG", "unknown state", "WAIT_RECEIVE_ARG",
                              "WAIT_RECEIVE_STRING_ARG", "RECEIVE_STRING_ARG_END", "ENDING"}) {
        SCOPED_TRACE(state);
        EXPECT_TRUE(std::regex_search(out, std::regex("\\[UDBG_DBG\\]udbg_state_dump\\(\\)/[0-9]+ " +
                                                      std::string(state) + "\n")));
    }
    EXPECT_TRUE(std::regex_search(out, std::regex("\\[UDBG_DBG\\]udbg_para_dump\\(\\)/[0-9]+ ")));
    for (const char *dump : {"===============DUMP PARA START===============\n",
                             "func name:\tudbg_test_add\n", "para cnt:\t2\n", "para list:\n",
                             "para type:integer\tvalue:1\n", "para type:string\tvalue:x\n",
                             "===============DUMP PARA END===============\n"})
        EXPECT_NE(out.find(dump), std::string::npos) << dump;
    EXPECT_NE(out.find("Function udbg_test_add() found from global symbol table, addr=0x"),
              std::string::npos);
    EXPECT_NE(out.find("\n Execute udbg_test_add() return"), std::string::npos);

    out = run("udbg_test_i16 = 2");
    EXPECT_NE(out.find("variable name:\tudbg_test_i16\n"), std::string::npos);
    EXPECT_NE(out.find("variable type:integer\tvalue:2\n"), std::string::npos);
    EXPECT_NE(out.find("Object [udbg_test_i16] len=2\n"), std::string::npos);
}

TEST_F(UdbgExec, CommandSocketHandler)
{
    auto call = [](const char *request_json) {
        json_object *req = json_tokener_parse(request_json);
        json_object *reply = json_object_new_object();
        testing::internal::CaptureStdout();
        udbg_jcs_callback_set(req, reply);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_STREQ(json_object_to_json_string_ext(reply, JSON_C_TO_STRING_PLAIN), "{}");
        json_object_put(req);
        json_object_put(reply);
        return out;
    };
    EXPECT_EQ(call("{\"cmd\":\"udbg_test_add(2,3)\"}"),
              "\n Execute udbg_test_add() return 5(0x5)\n");

    SCOPED_TRACE("a missing or non-string cmd warns and runs nothing");
    const char *warn = "[JCS_ERR]udbg_jcs_callback_set()/2109 Warning: Get string with error obj "
                       "or value type is unmatch.\n";
    EXPECT_EQ(call("{\"cmd\":5}"), warn);
    EXPECT_EQ(call("{}"), warn);

    SCOPED_TRACE("the command socket's debug switch echoes the command");
    jcs_dbg_on.store(1);
    EXPECT_EQ(call("{\"cmd\":\"udbg_test_neg\"}"),
              "[JCS_DBG]udbg_jcs_callback_set()/2110 cmd=udbg_test_neg\n"
              "\n Execute udbg_test_neg() return -2(0xfffffffffffffffe)\n");
    jcs_dbg_on.store(0);

    SCOPED_TRACE("at most 256 characters of the command are taken");
    // 256 characters make a bare name; what follows them would be a syntax error.
    std::string longcmd = "udbg_test_neg" + std::string(256 - 13, ' ') + "garbage";
    EXPECT_EQ(call(("{\"cmd\":\"" + longcmd + "\"}").c_str()),
              "\n Execute udbg_test_neg() return -2(0xfffffffffffffffe)\n");
}

TEST_F(UdbgExec, HelpListsRegisteredModules)
{
    ASSERT_EQ(udbg_help_register("nms_test", "nms_test_help()"), 0);
    testing::internal::CaptureStdout();
    help();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("nms_test_help()                   -- print help information for ** "
                       "nms_test ** module \n\r"),
              std::string::npos);

    testing::internal::CaptureStdout();
    EXPECT_EQ(udbg_help_register(nullptr, "x()"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[UDBG_ERR]udbg_help_register()/2124 Error input parm\n");
}
