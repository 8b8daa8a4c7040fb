// uci_access_test.cpp - the UCI helpers against real package files in a scratch
// folder of the build tree.
#include "nms_log.h"
#include "uci_access.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace {

std::string read_file(const std::string &path)
{
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// A configuration folder of its own per test, with messages captured and the
// log switches put back afterwards.
class UciAccess : public ::testing::Test {
protected:
    void SetUp() override
    {
        mkdir(NMS_TEST_TMPDIR, 0755);
        const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir_ = std::string(NMS_TEST_TMPDIR) + "/uci-" + info->name() + "-" +
               std::to_string(getpid());
        remove_dirs();
        mkdir(dir_.c_str(), 0755);
        saved_[0] = log_error_on.load();
        saved_[1] = log_trace_on.load();
        saved_[2] = log_debug_on.load();
        switches(0, 0, 0);
    }
    void TearDown() override
    {
        if (!HasFailure())
            remove_dirs();
        switches(saved_[0], saved_[1], saved_[2]);
    }

    void remove_dirs()
    {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
        std::filesystem::remove_all(dir_ + ".uci", ec);
    }
    static void switches(int error, int trace, int debug)
    {
        log_error_on.store(error);
        log_trace_on.store(trace);
        log_debug_on.store(debug);
    }
    // What fn prints on standard output.
    static std::string printed(const std::function<void()> &fn)
    {
        testing::internal::CaptureStdout();
        fn();
        return testing::internal::GetCapturedStdout();
    }
    void write_package(const char *name, const std::string &text)
    {
        std::ofstream(dir_ + "/" + name, std::ios::trunc) << text;
    }
    int read(const char *pkg, const char *sec, const char *opt, char *dst, size_t size)
    {
        return getUciOptionSpecifyPath(pkg, sec, opt, dst, dir_.c_str(), size);
    }

    std::string dir_;
    int saved_[3] = {};
};

const char kQueues[] =
    "config queue 'event_queue_0'\n"
    "\toption buffer_time '30'\n"
    "\tlist servers 'a'\n"
    "\tlist servers 'b'\n"
    "\n"
    "config queue 'event_queue_1'\n"
    "\toption buffer_size '12'\n";

}  // namespace

TEST_F(UciAccess, ReadsOnlyPlainStringOptions)
{
    write_package("event_report", kQueues);
    char buf[32];

    ASSERT_EQ(read("event_report", "event_queue_0", "buffer_time", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "30");
    ASSERT_EQ(read("event_report", "event_queue_1", "buffer_size", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "12");

    struct Miss {
        const char *what, *pkg, *sec, *opt;
    } misses[] = {
        {"list option", "event_report", "event_queue_0", "servers"},
        {"missing option", "event_report", "event_queue_1", "buffer_time"},
        {"missing section", "event_report", "event_queue_7", "buffer_time"},
        {"missing package", "no_such_package", "event_queue_0", "buffer_time"},
    };
    for (const Miss &m : misses) {
        SCOPED_TRACE(m.what);
        strcpy(buf, "kept");
        EXPECT_EQ(read(m.pkg, m.sec, m.opt, buf, sizeof buf), -1);
        EXPECT_STREQ(buf, "kept");
    }
}

TEST_F(UciAccess, ReportsMissingEntriesUnderTheDebugSwitchOnly)
{
    write_package("event_report", kQueues);
    char buf[32];

    switches(1, 1, 0);
    EXPECT_EQ(printed([&] { read("event_report", "nosec", "buffer_time", buf, sizeof buf); }), "");
    EXPECT_EQ(printed([&] { read("event_report", "event_queue_0", "servers", buf, sizeof buf); }),
              "");

    switches(0, 0, 1);
    std::string out = printed([&] { read("event_report", "nosec", "buffer_time", buf, 32); });
    EXPECT_EQ(out.rfind("Function is:getUciOptionSpecifyPath, Line is:", 0), 0u) << out;
    EXPECT_NE(out.find(".find section(nosec) failed\n\n"), std::string::npos) << out;
    out = printed([&] { read("event_report", "event_queue_0", "servers", buf, 32); });
    EXPECT_NE(out.find(".parse uci config file servers failed\n\n"), std::string::npos) << out;

    SCOPED_TRACE("a package that cannot be loaded is an error");
    switches(1, 0, 0);
    out = printed([&] { read("no_such_package", "s", "o", buf, 32); });
    EXPECT_NE(out.find("uci_load package[no_such_package] failed\n\n"), std::string::npos) << out;
    EXPECT_NE(out.find(".uciPkg is NULL!\n"), std::string::npos) << out;
}

TEST_F(UciAccess, EmptyPackageLoadsWithoutSections)
{
    write_package("event_report", "");
    uci_context *ctx = uci_alloc_context();
    ASSERT_NE(ctx, nullptr);
    ASSERT_EQ(init_specifyUciPath(ctx, "event_report", dir_.c_str()), 0);

    uci_package *pkg = initConfigPackage(ctx, "event_report");
    ASSERT_NE(pkg, nullptr);
    EXPECT_TRUE(uci_list_empty(&pkg->sections));
    // Loading again in the same context replaces the earlier copy.
    EXPECT_NE(initConfigPackage(ctx, "event_report"), nullptr);
    EXPECT_EQ(getUciSection(ctx, "event_report", "event_queue_0"), nullptr);
    EXPECT_EQ(freeUciContext(ctx), 0);
}

TEST_F(UciAccess, CutsLongValuesToTheBuffer)
{
    std::string value(100, 'v');
    write_package("p", "config t 's'\n\toption long '" + value + "'\n");

    char buf[32];
    memset(buf, 'X', sizeof buf);
    ASSERT_EQ(read("p", "s", "long", buf, 16), 0);
    EXPECT_EQ(std::string(buf), value.substr(0, 15));
    EXPECT_EQ(buf[16], 'X') << "nothing written past the given size";

    char whole[101];
    ASSERT_EQ(read("p", "s", "long", whole, sizeof whole), 0);
    EXPECT_EQ(std::string(whole), value);

    char one[1] = {'X'};
    ASSERT_EQ(read("p", "s", "long", one, 1), 0);
    EXPECT_EQ(one[0], '\0');

    SCOPED_TRACE("a zero size is refused");
    switches(1, 0, 0);
    std::string out = printed([&] { EXPECT_EQ(read("p", "s", "long", buf, 0), -1); });
    EXPECT_NE(out.find(".uci parameters are invalid.\n"), std::string::npos) << out;
}

TEST_F(UciAccess, WritesSectionsAndOptionsAndCommitsThem)
{
    write_package("stats", "");
    ASSERT_EQ(setUciSectionSpecifyPath("stats", "group_1", "timer", dir_.c_str()), 0);
    ASSERT_EQ(setUciOptionSpecifyPath("stats", "group_1", "period", "60", dir_.c_str()), 0);
    ASSERT_EQ(setUciOptionSpecifyPath("stats", "group_1", "period", "90", dir_.c_str()), 0);

    char buf[16];
    ASSERT_EQ(read("stats", "group_1", "period", buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "90");
    std::string file = read_file(dir_ + "/stats");
    EXPECT_NE(file.find("config timer 'group_1'"), std::string::npos) << file;
    EXPECT_NE(file.find("option period '90'"), std::string::npos) << file;
    // Committed: nothing is left pending in the save directory.
    EXPECT_EQ(read_file(dir_ + ".uci/stats"), "");

    SCOPED_TRACE("retyping a section keeps its options");
    ASSERT_EQ(setUciSectionSpecifyPath("stats", "group_1", "group", dir_.c_str()), 0);
    file = read_file(dir_ + "/stats");
    EXPECT_NE(file.find("config group 'group_1'"), std::string::npos) << file;
    EXPECT_EQ(read("stats", "group_1", "period", buf, sizeof buf), 0);
}

TEST_F(UciAccess, RefusedWritesChangeNothing)
{
    write_package("stats", "config timer 'g'\n\toption period '5'\n");
    const std::string before = read_file(dir_ + "/stats");
    switches(1, 0, 0);

    std::string out = printed([&] {
        EXPECT_EQ(setUciOptionSpecifyPath("stats", "nosec", "period", "1", dir_.c_str()), -1);
    });
    EXPECT_NE(out.find(".uci_set != UCI_OK\n"), std::string::npos) << out;
    // The failing step is reported under the helper that was called.
    EXPECT_NE(out.find("Function is:setUciOptionSpecifyPath, Line is:"), std::string::npos) << out;

    out = printed([&] {
        EXPECT_EQ(setUciOptionSpecifyPath("absent", "g", "period", "1", dir_.c_str()), -1);
    });
    EXPECT_NE(out.find(".ctx or uciPkg is NULL!\n"), std::string::npos) << out;

    out = printed([&] {
        EXPECT_EQ(setUciOptionSpecifyPath("stats", "bad-name", "period", "1", dir_.c_str()), -1);
    });
    EXPECT_NE(out.find(".uci_lookup_ptr != UCI_OK\n"), std::string::npos) << out;

    out = printed([&] {
        EXPECT_EQ(setUciOptionSpecifyPath("stats", "g", "period", nullptr, dir_.c_str()), -1);
        EXPECT_EQ(setUciSectionSpecifyPath("stats", nullptr, "t", dir_.c_str()), -1);
    });
    EXPECT_NE(out.find(".configFile or sectionName or optName or optValue or path is NULL!\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find(".configFile or sectionName or sectionType is NULL!\n"), std::string::npos)
        << out;

    EXPECT_EQ(read_file(dir_ + "/stats"), before);
}

TEST_F(UciAccess, LookupStringMustFitItsBuffer)
{
    write_package("p", "");
    switches(1, 0, 0);
    const char *refused = ".lookupStr is too short to save config info.\n";

    // Section: "p.s=<type>"; the three names may add up to 1021 characters.
    std::string type(1021 - 2, 't');
    EXPECT_EQ(setUciSectionSpecifyPath("p", "s", type.c_str(), dir_.c_str()), 0);
    EXPECT_NE(read_file(dir_ + "/p").find("config " + type + " 's'"), std::string::npos);
    type += 't';
    std::string out = printed([&] {
        EXPECT_EQ(setUciSectionSpecifyPath("p", "s2", type.c_str(), dir_.c_str()), -1);
    });
    EXPECT_NE(out.find(refused), std::string::npos) << out;

    // Option: "p.s.o=<value>"; the four names may add up to 1020 characters.
    std::string value(1020 - 3, 'v');
    EXPECT_EQ(setUciOptionSpecifyPath("p", "s", "o", value.c_str(), dir_.c_str()), 0);
    std::string back(1100, '\0');
    ASSERT_EQ(read("p", "s", "o", &back[0], back.size()), 0);
    EXPECT_EQ(std::string(back.c_str()), value);
    value += 'v';
    out = printed([&] {
        EXPECT_EQ(setUciOptionSpecifyPath("p", "s", "o", value.c_str(), dir_.c_str()), -1);
    });
    EXPECT_NE(out.find(refused), std::string::npos) << out;
}

TEST(UciPaths, SaveDirectoryIsTheConfigDirectoryWithUciAppended)
{
    uci_context *ctx = uci_alloc_context();
    ASSERT_NE(ctx, nullptr);
    // Only the context is changed; nothing is created on disk.
    ASSERT_EQ(init_specifyUciPath(ctx, "nms_report_stat_cb_cfg", "/tmp/nms_stats_report_cfg"), 0);
    EXPECT_STREQ(ctx->confdir, "/tmp/nms_stats_report_cfg");
    EXPECT_STREQ(ctx->savedir, "/tmp/nms_stats_report_cfg.uci");

    std::string deep = "/" + std::string(600, 'd');
    ASSERT_EQ(init_specifyUciPath(ctx, "p", deep.c_str()), 0);
    EXPECT_EQ(std::string(ctx->savedir), (deep + ".uci").substr(0, 511));

    EXPECT_EQ(init_specifyUciPath(ctx, nullptr, "/x"), -1);
    EXPECT_EQ(init_specifyUciPath(nullptr, "p", "/x"), -1);
    EXPECT_EQ(init_specifyUciPath(ctx, "p", nullptr), -1);
    EXPECT_EQ(freeUciContext(ctx), 0);
    EXPECT_EQ(freeUciContext(nullptr), 0);
}

TEST(UciPaths, NullArgumentsAreRefusedWithTheirMessages)
{
    int saved = log_error_on.load();
    log_error_on.store(1);
    testing::internal::CaptureStdout();
    char buf[8];
    EXPECT_EQ(getUciOptionSpecifyPath("p", "s", "o", buf, nullptr, sizeof buf), -1);
    EXPECT_EQ(getUciLookupOptionStr(nullptr, nullptr, "o"), nullptr);
    EXPECT_EQ(getUciSection(nullptr, "p", "s"), nullptr);
    std::string out = testing::internal::GetCapturedStdout();
    log_error_on.store(saved);

    // A null pointer prints as the C library writes %p: "(nil)" on glibc, "0" on musl.
    char nil[16];
    snprintf(nil, sizeof nil, "%p", static_cast<void *>(nullptr));
    const std::string ptrs = std::string(".ctx(") + nil + ") or section(" + nil + ") or optName(";
    EXPECT_EQ(out.rfind("Function is:getUciOptionSpecifyPath, Line is:", 0), 0u) << out;
    for (const std::string &e : {std::string(".uci parameters are invalid.\n"), ptrs,
                                 std::string(".ctx or package or section is NULL!\n")})
        EXPECT_NE(out.find(e), std::string::npos) << e << " in:\n" << out;
}
