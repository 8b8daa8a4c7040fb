// devsim_test.cpp - the simulated device started by the test itself, with its own options,
// and its bus connection across a broker that starts late and one that restarts.
#include "itest.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include <sys/types.h>

using itest::run;

namespace {

// Starts a command in the background with its output in /tmp/<log>; returns its pid.
pid_t start(const std::string &cmd, const std::string &log)
{
    auto r = run(cmd + " >/tmp/" + log + " 2>&1 & echo $!");
    return static_cast<pid_t>(std::stol(r.output));
}

// ubusd alone listens where current OpenWrt has it; no link at the old path here.
bool bus_up() { return itest::file_exists("/var/run/ubus/ubus.sock"); }
bool cloudclient_up() { return run("ubus list cloudclient").status == 0; }

int register_online(const std::string &cmd)
{
    return run("ubus call cloudclient register_cmd_callback '{ \"register_notify_cmd\": \"" + cmd +
               "\", \"wait_time\": 0, \"type\": \"online\", \"action\":\"add\" }'")
        .status;
}

}  // namespace

TEST(Devsim, OnlineAtStartTellsEachNewOnlineListenerAtOnce)
{
    start("ubusd", "ubusd.log");
    ASSERT_TRUE(itest::wait_until(bus_up));
    start("devsim --status online --site-id site-7 --mac aa-bb-cc-dd-ee-ff", "devsim.log");
    ASSERT_TRUE(itest::wait_until(cloudclient_up));

    EXPECT_EQ(register_online("touch /tmp/told_online"), 0);
    EXPECT_TRUE(itest::wait_until([] { return itest::file_exists("/tmp/told_online"); }))
        << itest::read_file("/tmp/devsim.log");
    // An offline listener is not told anything while the link is up.
    EXPECT_EQ(run("ubus call cloudclient register_cmd_callback '{ \"register_notify_cmd\": "
                  "\"touch /tmp/told_offline\", \"wait_time\": 0, \"type\": \"offline\", "
                  "\"action\":\"add\" }'")
                  .status,
              0);
    auto r = run("ubus -S call cloudclient get_status");
    EXPECT_NE(r.output.find("\"status\":\"online\""), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("\"launched\":1}"), std::string::npos) << r.output;

    EXPECT_EQ(run("ubus -S call cloudclient get_site_id").output, "{\"site_id\":\"site-7\"}\n");
    EXPECT_EQ(run("ubus -S call varnServer getInfo '{\"infoMask\":33}'").output,
              "{\"mac\":\"aa-bb-cc-dd-ee-ff\"}\n");

    SCOPED_TRACE("bad options: a message and exit status 2");
    r = run("devsim --status maybe");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.output, "devsim: --status must be online or offline, not 'maybe'\n");
    r = run("devsim --mac");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.output, "devsim: --mac needs a value\n");
    SCOPED_TRACE("a second devsim cannot take the objects of the first");
    r = run("devsim");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("cannot publish cloudclient"), std::string::npos) << r.output;
}

TEST(Devsim, TellsTheCloudStandInEachLinkState)
{
    start("ubusd", "ubusd.log");
    start("cloudsim", "cloudsim.log");
    ASSERT_TRUE(itest::wait_until(bus_up));
    auto device = [] { return run("curl -s http://127.0.0.1:8480/api/device").output; };
    ASSERT_TRUE(itest::wait_until([&] { return device().find("\"status\":\"unknown\"") !=
                                                std::string::npos; }));
    start("devsim --status online --tell http://127.0.0.1:8480/api/device", "devsim.log");
    ASSERT_TRUE(itest::wait_until(cloudclient_up));
    EXPECT_TRUE(itest::wait_until([&] {
        return device().find("\"status\":\"online\"") != std::string::npos;
    })) << device();
    EXPECT_EQ(run("ubus -S call cloudclient set_status '{\"status\":\"offline\"}'").status, 0);
    EXPECT_NE(device().find("\"status\":\"offline\""), std::string::npos) << device();
}

TEST(Devsim, WaitsForTheBrokerAndComesBackAfterItRestarts)
{
    // Settings from the environment, as the sandbox or the demo may pass them.
    start("DEVSIM_SITE_ID=from-env devsim", "devsim.log");
    pid_t ubusd = start("ubusd", "ubusd.log");
    ASSERT_TRUE(itest::wait_until(cloudclient_up)) << itest::read_file("/tmp/devsim.log");
    EXPECT_EQ(register_online("echo online"), 0);

    ASSERT_EQ(kill(ubusd, SIGTERM), 0);
    ASSERT_TRUE(itest::wait_until([] { return !cloudclient_up(); }));
    start("ubusd", "ubusd2.log");
    ASSERT_TRUE(itest::wait_until(cloudclient_up, std::chrono::seconds(5)))
        << itest::read_file("/tmp/devsim.log");

    // What was registered before the restart is still there.
    auto r = run("ubus -S call cloudclient get_status");
    EXPECT_NE(r.output.find("\"register_notify_cmd\":\"echo online\""), std::string::npos)
        << r.output;
    EXPECT_EQ(run("ubus -S call cloudclient get_site_id").output,
              "{\"site_id\":\"from-env\"}\n");
}
