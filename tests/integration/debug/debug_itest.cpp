// debug_itest.cpp - the command socket and the debug shell of a running process
// (udbg_testd), driven from the sandbox with the nms_dbg and jcs_call clients and raw
// datagrams, as a developer on the device would.
#include "itest.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <sys/stat.h>

#include "debug_itest_util.h"

using itest::run;

namespace {

const char *const kServiceSock = "/tmp/jcs.service.srv.udbg_testd";
const char *const kUiSock = "/tmp/jcs.ui.srv.udbg_testd";

class Testd : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dbgtest::start_testd("serve", "/tmp/testd.out")); }
};

std::string dbg(const std::string &cmd)
{
    auto r = run("nms_dbg -p udbg_testd '" + cmd + "'");
    EXPECT_EQ(r.status, 0) << r.output;
    return r.output;
}

}  // namespace

TEST_F(Testd, CliCallsFunctionsAndSetsVariablesByName)
{
    EXPECT_EQ(dbg("itest_mul(6, 0x7)"), "\n Execute itest_mul() return 42(0x2a)\n");
    EXPECT_EQ(dbg("itest_concat_len(\"a b\", \"cd\")"),
              "\n Execute itest_concat_len() return 5(0x5)\n");

    SCOPED_TRACE("a 4-byte variable: read, set, read back");
    EXPECT_TRUE(std::regex_match(dbg("itest_counter"),
                                 std::regex("\n Variable \\[itest_counter\\] : addr = 0x[0-9a-f]+, "
                                            "value = 41\\(0x29\\)\n")));
    EXPECT_EQ(dbg("itest_counter = -5"), "\n Set variable itest_counter = -5 (0xfffffffffffffffb)\n");
    EXPECT_NE(dbg("itest_counter").find("value = -5(0xfffffffffffffffb)"), std::string::npos);

    SCOPED_TRACE("functions of the loaded shared libraries, found through the library list");
    EXPECT_EQ(dbg("strlen(\"four\")"), "\n Execute strlen() return 4(0x4)\n");

    SCOPED_TRACE("the help list and the messages for bad input");
    EXPECT_EQ(dbg("help()"), "help()                            -- print help information for "
                             "** dbg ** module \n\r"
                             "\n Execute help() return 0(0x0)\n");
    EXPECT_EQ(dbg("itest_mul("), "\n Syntax Error\n");
    EXPECT_EQ(dbg("no_such_thing"), "\n Variable or function named [no_such_thing] not found\n");
    EXPECT_EQ(dbg("no_such_thing(1)"), "\n Function named no_such_thing() not found\n");
    EXPECT_EQ(dbg("nope = 1"), "\n Variable named [nope] not found\n");

    SCOPED_TRACE("without capture the reply is the socket's empty JSON reply");
    auto r = run("nms_dbg -n -p udbg_testd 'itest_mul(1, 1)'");
    EXPECT_EQ(r.output, "{}\n");
}

TEST_F(Testd, SelfRedirectsOutputAndResetSendsItBackToTheConsole)
{
    const std::string capture = "/tmp/udb.dup.stdouterr.itest";
    auto cmd = [](const std::string &line) {
        std::string json = "{\"cmd\":\"" + std::regex_replace(line, std::regex("\""), "\\\"") + "\"}";
        return run("jcs_call udbg_testd udbg 2 '" + json + "'");
    };
    EXPECT_EQ(cmd("self(\"" + capture + "\")").output, "{}\n");
    cmd("itest_mul(2, 3)");
    EXPECT_NE(itest::read_file(capture).find("\n Execute itest_mul() return 6(0x6)\n"),
              std::string::npos);

    SCOPED_TRACE("a path that is neither a device nor the capture file is just a call of self");
    cmd("self(\"/tmp/elsewhere\")");
    EXPECT_NE(itest::read_file(capture).find("\n Function named self() not found\n"),
              std::string::npos);
    EXPECT_FALSE(itest::file_exists("/tmp/elsewhere"));

    SCOPED_TRACE("reset: back to /dev/console");
    cmd("reset()");
    cmd("itest_mul(3, 3)");
    EXPECT_EQ(itest::read_file(capture).find("return 9(0x9)"), std::string::npos);
    EXPECT_TRUE(itest::wait_until(
        [] { return itest::console().find("\n Execute itest_mul() return 9(0x9)\n") != std::string::npos; }));

    SCOPED_TRACE("a device that cannot be opened leaves the output where it is");
    cmd("self(\"/dev/no_such_tty\")");
    cmd("itest_mul(4, 4)");
    EXPECT_TRUE(itest::wait_until(
        [] { return itest::console().find("return 16(0x10)") != std::string::npos; }));
}

TEST_F(Testd, BothSocketsServeRequests)
{
    SCOPED_TRACE("the service socket, through the client call");
    auto r = run("jcs_call udbg_testd itest 1 '[1,\"two\",{\"three\":3}]'");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output, "{\"echo\":[1,\"two\",{\"three\":3}]}\n");
    r = run("jcs_call udbg_testd example 0 '{\"enable\":false,\"ints\":[1]}'");
    EXPECT_EQ(r.output, "{\"result\":0,\"read\":2}\n");
    r = run("jcs_call udbg_testd example 2");
    EXPECT_EQ(r.output, "{}\n") << "a known service with an empty slot still replies";

    SCOPED_TRACE("the user-interface socket takes the same requests");
    dbgtest::DgramClient c("/tmp/itest.ui.cclt");
    ASSERT_TRUE(c.send_to(kUiSock, "{\"name\":\"itest\",\"op\":1,\"clt_path\":\"" + c.path() +
                                       "\",\"data\":\"ui\"}"));
    std::string reply;
    ASSERT_TRUE(c.receive(&reply, 5000));
    EXPECT_EQ(reply, "{\"echo\":\"ui\"}");

    SCOPED_TRACE("only the daemon's own user may write to the sockets");
    struct stat st;
    ASSERT_EQ(stat(kServiceSock, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(stat(kUiSock, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(Testd, MalformedRequestsGetNoReplyAndTheServerGoesOn)
{
    dbgtest::DgramClient c("/tmp/itest.bad.cclt");
    const std::string reply_to = "\"clt_path\":\"" + c.path() + "\"";
    const std::string bad[] = {
        "this is not json",
        "{" + reply_to + ",\"op\":1,\"data\":{}}",                     // no name
        "{" + reply_to + ",\"name\":\"itest\",\"data\":{}}",           // no op
        "{" + reply_to + ",\"name\":\"itest\",\"op\":1}",              // no data
        "{" + reply_to + ",\"name\":\"itest\",\"op\":4,\"data\":{}}",  // op out of range
        "{" + reply_to + ",\"name\":\"itest\",\"op\":-1,\"data\":{}}",
        "{" + reply_to + ",\"name\":\"itest\",\"op\":\"1\",\"data\":{}}",
        // Longer than a datagram may be: refused whole, though it starts as a request.
        "{" + reply_to + ",\"name\":\"itest\",\"op\":1,\"data\":\"" + std::string(131072, 'x') + "\"}",
    };
    for (const std::string &text : bad) {
        SCOPED_TRACE(text.substr(0, 60));
        ASSERT_TRUE(c.send_to(kServiceSock, text));
        std::string reply;
        EXPECT_FALSE(c.receive(&reply, 300)) << reply;
    }
    std::string out = itest::read_file("/tmp/testd.out");
    EXPECT_NE(out.find("Invalid json string: this is not json"), std::string::npos) << out;
    EXPECT_NE(out.find("Parse json string failed, no expected field."), std::string::npos);
    EXPECT_NE(out.find("Operation wrong, op=4."), std::string::npos);
    EXPECT_NE(out.find("Operation wrong, op=-1."), std::string::npos);
    EXPECT_NE(out.find("longer than 131072, refused."), std::string::npos);

    SCOPED_TRACE("the same server still answers a good request");
    ASSERT_TRUE(c.send_to(kServiceSock, "{\"name\":\"itest\",\"op\":1," + reply_to + ",\"data\":7}"));
    std::string reply;
    ASSERT_TRUE(c.receive(&reply, 5000));
    EXPECT_EQ(reply, "{\"echo\":7}");
}

TEST_F(Testd, ClientCallsThatGetNoReplyEnd)
{
    SCOPED_TRACE("a refused request: the client's time-out ends the wait");
    auto r = run("jcs_call -t 1 udbg_testd itest 4");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(std::regex_search(r.output, std::regex("\\[JCS_ERR\\]jcs_send_to_process\\(\\)/"
                                                       "[0-9]+ receive failed.\n")))
        << r.output;

    SCOPED_TRACE("no such process: the send fails at once");
    r = run("jcs_call -t 0 nobody example 3");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("send {\"name\":\"example\",\"op\":3,\"clt_path\":\"/tmp/jcs.service."
                            "srv.nobody."),
              std::string::npos)
        << r.output;

    SCOPED_TRACE("the client removes its own socket file in every case");
    EXPECT_EQ(run("ls /tmp | grep -c cclt").output, "0\n");

    SCOPED_TRACE("a client of another user cannot reach the sockets");
    if (run("command -v setpriv && setpriv --reuid=65534 --regid=65534 --clear-groups true").status != 0)
        GTEST_SKIP() << "no second user in this sandbox";
    r = run("setpriv --reuid=65534 --regid=65534 --clear-groups jcs_call -t 1 udbg_testd itest 1 5");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_EQ(r.output.find("echo"), std::string::npos);
}

TEST(Crash, SegmentFaultPrintsBannerThreadAndBacktraceAndWritesTheTraceFile)
{
    dbgtest::install_testd();
    const struct {
        const char *mode;
        const char *banner;
    } cases[] = {
        {"segv", "\n====================Segment Fault======================\n"},
        {"sigbus", "\n====================Bus Error======================\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.mode);
        itest::run("rm -f /tmp/trace.log.udbg_testd");
        auto r = run(std::string(dbgtest::kSanitizerEnv) + "/usr/bin/udbg_testd " + c.mode);
        EXPECT_EQ(r.status, 0) << r.output;   // the handler ends the process with 0
        const std::regex report(std::string(c.banner) +
                                "Thread name: \\[crash_thread\\], tid: \\[0x[0-9a-f]+\\], real pid: "
                                "\\[[0-9]+\\]\nPC: 0x0\nObtained [0-9]+ stack frames:\n(  .*\n)+");
        EXPECT_TRUE(std::regex_search(r.output, report)) << r.output;
        std::string trace = itest::read_file("/tmp/trace.log.udbg_testd");
        EXPECT_TRUE(std::regex_search(trace, report)) << trace;
    }
}
