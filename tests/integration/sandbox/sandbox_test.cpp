// sandbox_test.cpp - the sandbox gives a private device and leaves the host alone.
#include "itest.h"

#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/msg.h>

using itest::run;

TEST(Sandbox, StartsFromAFreshDevice)
{
    SCOPED_TRACE("/tmp holds nothing but the host folders the run lives in (bound in)");
    auto tmp = run("for f in /tmp/* /tmp/.[!.]*; do "
                   "[ -e \"$f\" ] && ! mountpoint -q \"$f\" && echo \"$f\"; done; true");
    EXPECT_EQ(tmp.status, 0);
    EXPECT_EQ(tmp.output, "");

    SCOPED_TRACE("the message-queue table is empty");
    auto q = run("ipcs -q | awk 'NR > 3 && NF'");
    EXPECT_EQ(q.output, "");

    SCOPED_TRACE("the default identity packages are in place");
    auto type = run("uci -q get device_info.info.device_type || "
                    "sed -n \"s/.*device_type '\\(.*\\)'/\\1/p\" /etc/config/device_info");
    EXPECT_NE(type.output, "");
    EXPECT_TRUE(itest::file_exists("/etc/config/system"));
    EXPECT_NE(itest::read_file("/etc/config/system").find("config system 'sys'"),
              std::string::npos);

    SCOPED_TRACE("only loopback is there");
    auto links = run("ls /sys/class/net");
    EXPECT_EQ(links.output, "lo\n");
}

TEST(Sandbox, WritesStayInside)
{
    // A queue made here lives in this sandbox's IPC namespace only; the next
    // case (another sandbox) must not see it.
    int id = msgget(787783, IPC_CREAT | 0600);
    ASSERT_GE(id, 0);
    itest::write_file("/etc/nms_report/marker", "x");
    itest::write_file("/dev/console", "hello console\n");
    EXPECT_NE(itest::console().find("hello console"), std::string::npos);
}

TEST(Sandbox, SeesNothingOfAnotherSandbox)
{
    EXPECT_LT(msgget(787783, 0), 0);
    EXPECT_FALSE(itest::file_exists("/etc/nms_report/marker"));
}

TEST(Sandbox, ExitStatusIsTheCommands)
{
    auto r = run(std::string(NMS_SOURCE_DIR) + "/scripts/sandbox sh -c 'exit 7' 2>&1");
    // Nested: a sandbox inside the sandbox still reports the command's status.
    EXPECT_EQ(r.status, 7) << r.output;
}
