// security_itest.cpp - an unprivileged local user (uid 65534, as a compromised service on a
// router would be) against the daemon on a sandboxed device: the bus refuses what no rule
// grants, the queues and the files in /tmp that user made first are not adopted, and links
// are never followed.
#include "itest.h"
#include "itest_proc.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using itest::read_file;
using itest::run;

namespace {

const char kNobody[] = "setpriv --reuid=65534 --regid=65534 --clear-groups";
const char kSecret[] = "/etc/nms_secret";  // a file only root may read or write
const char kRules[] = "/usr/share/acl.d";

// Runs a shell script as the unprivileged user.
itest::Result as_nobody(const std::string &script)
{
    itest::write_file("/tmp/as_nobody.sh", script + "\n");
    chmod("/tmp/as_nobody.sh", 0755);
    return run(std::string(kNobody) + " sh /tmp/as_nobody.sh");
}

bool have_nobody()
{
    return run(std::string("command -v setpriv && ") + kNobody + " true").status == 0;
}

void make_secret()
{
    itest::write_file(kSecret, "secret\n");
    chmod(kSecret, 0600);
}

pid_t start_daemon()
{
    auto r = run("/usr/sbin/nms_report >/tmp/nms_report.out 2>&1 & echo $!");
    if (r.status != 0)
        return -1;
    pid_t pid = std::stoi(r.output);
    bool up = itest::wait_until([] { return run("ubus list nms_report_cache").status == 0; }, 20s);
    return up ? pid : -1;
}

// Makes the broker read its rule folder again and waits until it has.
void reload_rules(const std::string &file)
{
    auto loads = [] {
        std::string log = read_file(std::string(itest::sandbox_dir()) + "/ubusd.log");
        size_t n = 0;
        for (size_t p = log.find("loading"); p != std::string::npos; p = log.find("loading", p + 1))
            n++;
        return n;
    };
    size_t before = loads();
    ASSERT_EQ(run("kill -HUP $(pidof ubusd)").status, 0);
    if (file.empty()) {
        std::this_thread::sleep_for(300ms);  // nothing will say it was read
        return;
    }
    ASSERT_TRUE(itest::wait_until([&] { return loads() > before; }, 5s)) << file;
}

void grant(const std::string &name, const std::string &json)
{
    std::string path = std::string(kRules) + "/" + name;
    itest::write_file(path, json);
    chmod(path.c_str(), 0644);
    reload_rules(path);
}

// One line of /proc/sysvipc/msg for key, as its fields; empty when no queue has it.
struct QueueInfo {
    int id = -1;
    unsigned perms = 0, uid = 0, cuid = 0, qnum = 0;
};
QueueInfo queue_of(int key)
{
    std::istringstream in(read_file("/proc/sysvipc/msg"));
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
        std::istringstream f(line);
        long k;
        QueueInfo q;
        unsigned long cbytes, lspid, lrpid, gid, cgid;
        f >> k >> q.id >> std::oct >> q.perms >> std::dec >> cbytes >> q.qnum >> lspid >> lrpid >>
            q.uid >> gid >> q.cuid >> cgid;
        if (k == key)
            return q;
    }
    return {};
}

}  // namespace

// Bus: the device's broker refuses another user what no rule file grants, and the
// package's example grant opens exactly the read-only methods.
TEST(Bus, AnotherUserGetsOnlyWhatARuleGrants)
{
    if (!have_nobody())
        GTEST_SKIP() << "no second user in this sandbox";
    make_secret();
    ASSERT_GT(start_daemon(), 0) << read_file("/tmp/nms_report.out");
    const std::string reg =
        "ubus call nms_report_cache statistics_parms_reg "
        "'{\"type\":\"pwn\",\"get_cb\":\"id -u > /tmp/pwned\",\"success_cb\":\"true\"}'";
    const std::string debug =
        "ubus call nms_report_cache start_debug '{\"debug_dev\":\"/etc/nms_secret\",\"level\":1}'";
    const std::string list = "ubus call nms_report_cache get_statistics_parms_list";

    SCOPED_TRACE("no rule: the object is not even there for that user");
    auto r = as_nobody(reg);
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find("Not found"), std::string::npos) << r.output;
    r = as_nobody(debug);
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(as_nobody("ubus list").output, "");
    // (The method answers and then returns its failure status, for root as for anybody.)
    EXPECT_NE(run(list).output.find("\"param_list\""), std::string::npos) << "root: always";
    EXPECT_EQ(run(list).output.find("pwn"), std::string::npos);

    SCOPED_TRACE("the package's example, granted to that user: the read-only methods only");
    std::string example = read_file(std::string(kRules) + "/nms_report_monitor.json.example");
    ASSERT_NE(example.find("\"nms_monitor\""), std::string::npos) << example;
    grant("monitor.json", std::regex_replace(example, std::regex("\"nms_monitor\""), "\"nobody\""));
    r = as_nobody("ubus -v list");
    EXPECT_EQ(r.status, 0);
    for (const char *m : {"get_statistics_parms_list", "get_event_list", "print_list",
                          "print_params_timer"})
        EXPECT_NE(r.output.find(std::string("\"") + m + "\""), std::string::npos) << m;
    for (const char *m : {"statistics_parms_reg", "get_statistics_parms_reg", "start_debug",
                          "clean_cache", "stop_report", "send_report_info_async",
                          "update_report_cfg"})
        EXPECT_EQ(r.output.find(std::string("\"") + m + "\""), std::string::npos) << m;
    r = as_nobody(list);
    EXPECT_NE(r.output.find("\"param_list\""), std::string::npos) << r.output;
    r = as_nobody("ubus call nms_report metrics");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("\"accepted\""), std::string::npos) << r.output;
    r = as_nobody(reg);
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find("Permission denied"), std::string::npos) << r.output;
    r = as_nobody(debug);
    EXPECT_NE(r.output.find("Permission denied"), std::string::npos) << r.output;

    SCOPED_TRACE("a rule file others may write, or not root's, is not read");
    chmod((std::string(kRules) + "/monitor.json").c_str(), 0666);
    reload_rules("");
    EXPECT_NE(as_nobody(list).output.find("Not found"), std::string::npos);
    EXPECT_NE(read_file(std::string(itest::sandbox_dir()) + "/ubusd.log").find("wrong permissions"),
              std::string::npos);
    unlink((std::string(kRules) + "/monitor.json").c_str());

    SCOPED_TRACE("a group's grant, by a name's start: that method and no other");
    grant("group.json",
          R"({"group":"nogroup","access":{"nms_report*":{"methods":["get_event_list"]}}})");
    r = as_nobody("ubus -v list nms_report_cache");
    EXPECT_NE(r.output.find("\"get_event_list\""), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("\"print_list\""), std::string::npos) << r.output;
    EXPECT_NE(as_nobody(list).output.find("Permission denied"), std::string::npos);

    SCOPED_TRACE("nothing that was refused happened");
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(read_file(kSecret), "secret\n");
    EXPECT_FALSE(itest::file_exists("/tmp/pwned"));
    EXPECT_EQ(run(list).output.find("pwn"), std::string::npos);
}

// Queues: a key that user took before the daemon started is taken back, and a queue
// removed while the daemon runs is made again; its list goes on.
TEST(Queues, AKeyTakenFirstIsTakenBackAndARemovedQueueIsMadeAgain)
{
    if (!have_nobody())
        GTEST_SKIP() << "no second user in this sandbox";
    SCOPED_TRACE("list 7's key taken first");
    // The sender makes the queue when it is missing, as its creator and owner, with mode 0
    // (its own send then fails): as creator that user could still read it, set its mode or
    // remove it.
    as_nobody("nms_event_send -l 7 1001");
    QueueInfo hostile = queue_of(787790);
    ASSERT_EQ(hostile.uid, 65534u);
    ASSERT_EQ(hostile.cuid, 65534u);

    pid_t pid = start_daemon();
    ASSERT_GT(pid, 0) << read_file("/tmp/nms_report.out");
    ASSERT_TRUE(itest::wait_until([] { return queue_of(787790).uid == 0; }, 5s));
    QueueInfo q = queue_of(787790);
    EXPECT_NE(q.id, hostile.id);
    EXPECT_EQ(q.cuid, 0u);
    EXPECT_EQ(q.perms, 0u);
    EXPECT_NE(itest::console().find("event queue key[787790] msgid[" + std::to_string(hostile.id) +
                                    "]: owner 65534, creator 65534, mode 000 is not the daemon's"),
              std::string::npos)
        << itest::console();
    EXPECT_NE(as_nobody("nms_event_send -l 7 1001").status, 0)
        << "that user cannot send into the daemon's queue";

    SCOPED_TRACE("removed while the daemon runs: made again, and events flow");
    ASSERT_EQ(run("ipcrm -Q 787790").status, 0);
    ASSERT_TRUE(itest::wait_until(
        [&] {
            QueueInfo n = queue_of(787790);
            return n.id >= 0 && n.id != q.id;
        },
        5s));
    EXPECT_EQ(queue_of(787790).uid, 0u);
    EXPECT_NE(itest::console().find("event queue of list 7 (msgid[" + std::to_string(q.id) +
                                    "]) was removed; creating it again"),
              std::string::npos)
        << itest::console();
    ASSERT_EQ(run("nms_event_send -l 7 -n 5 1001").status, 0);
    EXPECT_TRUE(itest::wait_until([] { return queue_of(787790).qnum == 0; }, 5s))
        << "the daemon takes from the new queue";
    EXPECT_TRUE(itest::alive(pid));
}

// Files in /tmp: the statistics registry's folders, the debug shell's scratch and capture
// files and a log file named to start_debug are never somebody else's or a link.
TEST(TmpFiles, NothingAnotherUserMadeFirstIsTrustedOrFollowed)
{
    if (!have_nobody())
        GTEST_SKIP() << "no second user in this sandbox";
    make_secret();
    SCOPED_TRACE("the registry's folders made first: one open to all, one a link to /etc/config");
    auto r = as_nobody(
        "mkdir -m 0777 /tmp/nms_stats_report_cfg && "
        "printf 'config nms_report_stat_cb \"pwn\"\\n\\toption get_cb \"id > /tmp/pwned\"\\n' "
        "> /tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg && "
        "ln -s /etc/config /tmp/nms_stats_report_cfg.uci && "
        "ln -s /etc/nms_secret '/tmp/~udbg_sym_file.nms_report' && "
        ": > /tmp/udb.dup.stdouterr && chmod 666 /tmp/udb.dup.stdouterr && "
        "ln -s /etc/nms_secret /tmp/debug.log");
    ASSERT_EQ(r.status, 0) << r.output;
    const std::string etc_config = run("ls -la /etc/config").output;

    pid_t pid = start_daemon();
    ASSERT_GT(pid, 0) << read_file("/tmp/nms_report.out");
    struct stat st;
    for (const char *d : {"/tmp/nms_stats_report_cfg", "/tmp/nms_stats_report_cfg.uci"}) {
        ASSERT_EQ(lstat(d, &st), 0) << d;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << d;
        EXPECT_EQ(st.st_uid, 0u) << d;
        EXPECT_EQ(st.st_mode & 022, 0u) << d;
        EXPECT_NE(itest::console().find(std::string(d) + " was not the daemon's own folder"),
                  std::string::npos)
            << itest::console();
    }
    EXPECT_EQ(read_file("/tmp/nms_stats_report_cfg/nms_report_stat_cb_cfg"), "");
    EXPECT_EQ(run("ls -la /etc/config").output, etc_config);

    SCOPED_TRACE("the scratch file of a name lookup, a link to a root-only file");
    r = run("nms_dbg 'get_event_stats_print_on()'");
    EXPECT_NE(r.output.find("Execute get_event_stats_print_on() return 0"), std::string::npos)
        << r.output;
    EXPECT_EQ(read_file(kSecret), "secret\n");
    ASSERT_EQ(lstat("/tmp/~udbg_sym_file.nms_report", &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_uid, 0u);

    SCOPED_TRACE("that user rewrites the scratch file in a loop while lookups run");
    run(std::string(kNobody) +
        " sh -c 'end=$(($(date +%s)+4)); f=/tmp/~udbg_sym_file.nms_report; "
        "while [ $(date +%s) -lt $end ]; do rm -f $f; echo 41414141 > $f; chmod 666 $f; "
        "done' >/dev/null 2>&1 &");
    for (int i = 0; i < 6; i++) {
        r = run("nms_dbg 'get_event_stats_print_on()'");
        EXPECT_TRUE(r.output.find("Execute get_event_stats_print_on() return 0") != std::string::npos ||
                    r.output.find("not found") != std::string::npos)
            << r.output;
    }
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(itest::alive(pid)) << "the daemon died";

    SCOPED_TRACE("the capture file, made first and open to all");
    ASSERT_EQ(run("nms_dbg -n 'self(\"/tmp/udb.dup.stdouterr\")' && "
                  "nms_dbg -n 'get_event_stats_print_on()' && nms_dbg -n 'reset()'")
                  .status,
              0);
    ASSERT_EQ(lstat("/tmp/udb.dup.stdouterr", &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(st.st_mode & 077, 0u);
    EXPECT_NE(read_file("/tmp/udb.dup.stdouterr").find("Execute get_event_stats_print_on() return 0"),
              std::string::npos);
    EXPECT_NE(itest::console().find("Capture file /tmp/udb.dup.stdouterr was not the daemon's own"),
              std::string::npos)
        << itest::console();

    SCOPED_TRACE("start_debug on a link to a root-only file");
    r = run("ubus call nms_report_cache start_debug '{\"debug_dev\":\"/tmp/debug.log\",\"level\":0}' "
            "&& ubus call nms_report_cache flush_event_report '{\"list_id\":99}'; "
            "ubus call nms_report_cache stop_debug");
    EXPECT_EQ(read_file(kSecret), "secret\n");
    EXPECT_TRUE(itest::alive(pid));
}
