// storage_itest.cpp - the statistics registry on a /tmp that fills up or turns read-only: each
// failed write says so in one line, no file is left half written (a broken line would make
// every later load fail), and writes succeed again once there is room. libuci (the device's,
// and the stand-in as it) does not check its writes: on a full file system it reports success
// with a broken line saved or a cut-off file committed, so the daemon must not let it write
// what does not fit.
#include "itest.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using itest::read_file;
using itest::run;

namespace {

const char kDir[] = "/tmp/nms_stats_report_cfg";
const char kSaveDir[] = "/tmp/nms_stats_report_cfg.uci";

// A long type name: the saved change (a line naming the section) is about 250 bytes, so
// the save folder's last page fills part way and then a line does not fit whole.
std::string type_of(const std::string &name)
{
    return name + "_" + std::string(100, 'x');
}

int reg(const std::string &name)
{
    return run("ubus call nms_report_cache statistics_parms_reg '{\"type\":\"" + type_of(name) +
               "\",\"get_cb\":\"echo " + name + "\",\"success_cb\":\"true\"}'")
        .status;
}

std::string registry()
{
    return run(std::string("uci -c ") + kDir + " show nms_report_stat_cb_cfg 2>&1").output;
}

bool has(const std::string &text, const std::string &name)
{
    return text.find("nms_report_stat_cb_cfg." + type_of(name) + "=nms_report_stat_cb") !=
           std::string::npos;
}

}  // namespace

TEST(Storage, AFullOrReadOnlyRegistryIsNeverLeftHalfWrittenAndRecovers)
{
    // Two small file systems of their own, as the device's /tmp is.
    for (const char *d : {kDir, kSaveDir}) {
        mkdir(d, 0755);
        ASSERT_EQ(run(std::string("mount -t tmpfs -o size=64k,mode=0755 tmpfs ") + d).status, 0);
    }
    ASSERT_EQ(run("/usr/sbin/nms_report >/tmp/nms_report.out 2>&1 &").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return run("ubus list nms_report_cache").status == 0; }, 20s));
    ASSERT_EQ(reg("a1"), 0);
    ASSERT_TRUE(has(registry(), "a1"));

    SCOPED_TRACE("the registry's folder full: commits fail, saves go on until the save folder fills");
    run(std::string("dd if=/dev/zero of=") + kDir + "/fill bs=4k count=64 2>/dev/null");
    run(std::string("dd if=/dev/zero of=") + kSaveDir + "/fill bs=4k count=15 2>/dev/null");
    for (int i = 2; i <= 40; i++)
        reg("a" + std::to_string(i));
    EXPECT_NE(itest::console().find("cannot write /tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg"),
              std::string::npos)
        << itest::console();
    EXPECT_NE(itest::console().find("cannot save a change of nms_report_stat_cb_cfg"),
              std::string::npos)
        << itest::console();
    // What is there still loads: the file as it was, the saved changes whole.
    std::string text = registry();
    EXPECT_TRUE(has(text, "a1")) << text;
    EXPECT_EQ(text.find("rror"), std::string::npos) << text;

    SCOPED_TRACE("room again: the next write takes every saved change with it");
    run(std::string("rm -f ") + kDir + "/fill " + kSaveDir + "/fill");
    ASSERT_EQ(reg("b1"), 0);
    text = registry();
    EXPECT_TRUE(has(text, "b1")) << text;
    EXPECT_TRUE(has(text, "a2")) << text;

    SCOPED_TRACE("read-only: refused with a line, then written again once writable");
    ASSERT_EQ(run(std::string("mount -o remount,ro ") + kDir + " && mount -o remount,ro " + kSaveDir)
                  .status,
              0);
    reg("c1");
    EXPECT_NE(itest::console().find("Read-only file system"), std::string::npos) << itest::console();
    ASSERT_EQ(run(std::string("mount -o remount,rw ") + kDir + " && mount -o remount,rw " + kSaveDir)
                  .status,
              0);
    ASSERT_EQ(reg("d1"), 0);
    EXPECT_TRUE(has(registry(), "d1"));
    EXPECT_EQ(run("kill -0 $(pidof nms_report)").status, 0) << "the daemon is up";
}
