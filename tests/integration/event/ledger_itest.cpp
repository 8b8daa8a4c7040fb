// ledger_itest.cpp - the daemon's ledger against what really happened: every way an event can
// be refused or leave its list is driven through the installed daemon, and at the end, with
// everything quiet, each list balances (accepted = sent + replaced + dropped + cleaned +
// stopped + removed + in the list) and the events counted as sent are exactly those cloudsim
// recorded.
#include "itest.h"
#include "itest_json.h"

#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/msg.h>

#include <chrono>
#include <cstring>
#include <string>

#include "event_msg.h"

using namespace std::chrono_literals;
using itest::at;
using itest::run;
using itest::set_cloud_url;

namespace {

const char kEvents[] = "/nexo/devmsg/v1/reportDevEventMsg";
const char kCloudsim[] = "http://127.0.0.1:8480";
const char kNobody[] = "http://127.0.0.1:9";   // nothing listens: every send fails at once

// Lists hold their events for 600 s unless said otherwise; list 2 blocks its producer when
// full, list 5 reports every second.
void write_settings()
{
    std::string lists;
    for (int list = 0; list < 8; list++)
        lists += "\nconfig event_queue 'event_queue_" + std::to_string(list) +
                 "'\n\toption buffer_time '" + (list == 5 ? "1" : "600") +
                 "'\n\toption buffer_size '600'\n\toption buffer_full_processing '" +
                 (list == 2 ? "2" : "1") + "'\n";
    itest::write_file("/etc/nms_report/event_report", lists);
    // Type 100 only: type 999 is refused as disabled.
    itest::write_file("/etc/nms_report/event_params",
                      "\nconfig event '100'\n\toption enable 'on'\n\toption level '1'\n");
}

itest::JsonPtr metrics()
{
    return itest::parse(run("ubus call nms_report metrics").output);
}

long counter(json_object *m, int list, const char *name)
{
    json_object *v = at(m, {"lists", std::to_string(list).c_str(), name});
    return v ? json_object_get_int64(v) : -1;
}

long counter(int list, const char *name)
{
    auto m = metrics();
    return m ? counter(m.get(), list, name) : -1;
}

void send(int list, int n, const char *extra = "")
{
    auto r = run("nms_event_send -l " + std::to_string(list) + " -n " + std::to_string(n) + " " +
                 extra + " 100 '{\"n\":1}'");
    ASSERT_EQ(r.status, 0) << r.output;
}

// A frame as a sender built wrongly would send it: not through nms_event_send, which refuses
// both kinds of fault itself.
void send_raw(int list, const char *params, size_t text_len)
{
    int qid = msgget(NMS_EVENT_MSG_KEY_BASE + list, 0);
    ASSERT_GE(qid, 0);
    struct {
        long mtype;
        char text[1024];
    } frame{};
    frame.mtype = 1;
    nms_event_msg m{};
    m.id = 100;
    m.time = 1;
    std::strncpy(m.params, params, sizeof m.params - 1);
    std::memcpy(frame.text, reinterpret_cast<char *>(&m) + sizeof(long), NMS_EVENT_MSG_TEXT_SIZE);
    ASSERT_EQ(msgsnd(qid, &frame, text_len, 0), 0);
}

// Events of every event report cloudsim answered with 200.
long events_at_cloudsim()
{
    auto all = itest::parse(run(std::string("curl -s '") + kCloudsim +
                                "/api/reports?limit=100000&path=" + kEvents + "'")
                                .output);
    if (!all)
        return -1;
    long n = 0;
    for (size_t i = 0; i < json_object_array_length(all.get()); i++) {
        json_object *rec = json_object_array_get_idx(all.get(), i);
        if (json_object_get_int(at(rec, {"status"})) != 200)
            continue;
        if (json_object *events = at(rec, {"json", "devEventList", "0", "eventList"}))
            n += static_cast<long>(json_object_array_length(events));
    }
    return n;
}

long in_lists()
{
    auto m = metrics();
    long n = 0;
    for (int l = 0; l < 8; l++)
        n += m ? counter(m.get(), l, "in_list") : 1;
    return n;
}

}  // namespace

TEST(Ledger, EveryPathIsCountedAndEveryListBalances)
{
    write_settings();
    set_cloud_url(kNobody);
    ASSERT_EQ(run("env -u INFO_REPORT_URL /usr/sbin/nms_report >/tmp/nms_report.out 2>&1 &").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return run("ubus list nms_report").status == 0; }, 20s));

    // Offline: the report switch is off until the cloud client says it is online.
    send(5, 3);
    ASSERT_TRUE(itest::wait_until([] { return counter(5, "refused_offline") == 3; }));
    ASSERT_EQ(run("ubus call nms_report_cache begin_report").status, 0);

    // Stopped: reporting stopped and begun again drops what was held.
    send(4, 10);
    ASSERT_TRUE(itest::wait_until([] { return counter(4, "in_list") == 10; }));
    ASSERT_EQ(run("ubus call nms_report_cache stop_report").status, 0);
    ASSERT_EQ(run("ubus call nms_report_cache begin_report").status, 0);
    EXPECT_EQ(counter(4, "stopped"), 10);

    // Cleaned, and removed by hand through the debug shell (slot 0: the list's first event).
    send(3, 10);
    send(6, 1);
    ASSERT_TRUE(itest::wait_until([] { return counter(3, "in_list") == 10 && counter(6, "in_list") == 1; }));
    ASSERT_EQ(run("ubus call nms_report_cache clean_cache '{\"type\":\"event\"}'").status, 0);
    EXPECT_EQ(counter(3, "cleaned"), 10);
    EXPECT_EQ(counter(6, "in_list"), 0) << "a clean takes every list's events";
    send(6, 1);
    ASSERT_TRUE(itest::wait_until([] { return counter(6, "in_list") == 1; }));
    auto r = run("nms_dbg 'delete_node_from_list(6, 0)'");
    EXPECT_EQ(counter(6, "removed"), 1) << r.output;

    // Refused: a disabled type, params that are no JSON, a frame too long for any target.
    ASSERT_EQ(run("nms_event_send -l 5 999 '{}' && nms_event_send -l 5 999 '{}'").status, 0);
    send_raw(5, "{\"no\":", NMS_EVENT_MSG_TEXT_SIZE);
    send_raw(5, "not json", NMS_EVENT_MSG_TEXT_SIZE);
    send_raw(5, "{}", 600);
    ASSERT_TRUE(itest::wait_until([] {
        auto m = metrics();
        return counter(m.get(), 5, "refused_disabled") == 2 &&
               counter(m.get(), 5, "refused_bad_params") == 2 &&
               counter(m.get(), 5, "refused_too_long") == 1;
    }));

    // Full lists while every send fails. Replace-oldest: events stamped 0 are no victims, so
    // list 0 refuses; list 1 replaces. Producer held back (list 2): its queue backs up past
    // the backlog limit and a failed batch is dropped to make room.
    send(0, 6000, "-t 0");
    ASSERT_TRUE(itest::wait_until([] { return counter(0, "in_list") == 6000; }, 60s));
    send(0, 5, "-t 0");
    send(1, 6100);
    ASSERT_TRUE(itest::wait_until([] { return counter(0, "refused_no_victim") >= 1; }, 30s));
    ASSERT_TRUE(itest::wait_until([] { return counter(1, "replaced") >= 1; }, 60s));
    ASSERT_EQ(run("nms_event_send -l 2 -n 11500 100 '{\"n\":2}' >/tmp/flood.out 2>&1 &").status, 0);
    EXPECT_TRUE(itest::wait_until([] { return counter(2, "dropped") >= 1; }, 120s))
        << itest::read_file("/tmp/nms_report.out");
    EXPECT_TRUE(itest::wait_until([] { return run("pgrep -x nms_event_send").status != 0; }, 120s));
    // A full list asks for a batch at every scan; the batch thread takes the lists one after
    // the other, each failed send after its retries, so under an emulator this takes a while.
    for (int l : {0, 1, 2})
        EXPECT_TRUE(itest::wait_until([l] { return counter(l, "failed_batches") >= 1; }, 60s))
            << "list " << l;
    {
        auto m = metrics();
        EXPECT_GE(counter(m.get(), 2, "waits"), 1);
        EXPECT_GE(json_object_get_int64(at(m.get(), {"cloud_send_failures"})), 1);
    }

    // The cloud is back: list 5 reports on its own, the rest is flushed until nothing is left.
    set_cloud_url(kCloudsim);
    send(5, 20);
    ASSERT_TRUE(itest::wait_until([] { return counter(5, "sent") == 20; }, 20s));
    for (int i = 0; i < 20 && in_lists() > 0; i++)
        run("ubus call nms_report_cache flush_event_report '{\"list_id\":7}'");
    ASSERT_TRUE(itest::wait_until([] { return in_lists() == 0; }, 60s));

    auto m = metrics();
    ASSERT_TRUE(m);
    long sent = 0;
    for (int l = 0; l < 8; l++) {
        SCOPED_TRACE("list " + std::to_string(l));
        long out = 0;
        for (const char *gone : {"sent", "replaced", "dropped", "cleaned", "stopped", "removed",
                                 "in_list"})
            out += counter(m.get(), l, gone);
        EXPECT_EQ(counter(m.get(), l, "accepted"), out);
        sent += counter(m.get(), l, "sent");
    }
    EXPECT_EQ(sent, events_at_cloudsim());
    EXPECT_EQ(counter(m.get(), 0, "accepted"), 6000);
    EXPECT_EQ(counter(m.get(), 1, "accepted"), 6100);
    EXPECT_EQ(counter(m.get(), 2, "accepted") + counter(m.get(), 2, "refused_no_victim"), 11500);

    auto status = itest::parse(run("ubus call nms_report status").output);
    ASSERT_TRUE(status);
    EXPECT_TRUE(json_object_get_boolean(at(status.get(), {"cloud_online"})));
    EXPECT_NE(at(status.get(), {"cloud_last_failure_result"}), nullptr);
    EXPECT_STREQ(json_object_get_string(at(status.get(), {"lists", "5", "last_batch", "result"})), "ok");
    EXPECT_EQ(json_object_get_int(at(status.get(), {"bus_connects"})), 1);
    auto table = run("nms_dbg -l");
    EXPECT_EQ(table.status, 0);
    EXPECT_NE(table.output.find("no_victim 5"), std::string::npos) << table.output;
    // The state after every path was driven, for whoever reads the test's output.
    std::printf("%s\n%s\n", run("ubus call nms_report status").output.c_str(), table.output.c_str());
}

TEST(Ledger, TheObjectIgnoresArgumentsAndTheOldObjectKeepsItsMethods)
{
    write_settings();
    ASSERT_EQ(run("/usr/sbin/nms_report >/tmp/nms_report.out 2>&1 &").status, 0);
    ASSERT_TRUE(itest::wait_until([] { return run("ubus list nms_report").status == 0; }, 20s));
    EXPECT_EQ(run("ubus call nms_report metrics '{\"list\":3,\"junk\":[1,2]}'").status, 0);
    EXPECT_EQ(run("ubus call nms_report status '{\"verbose\":true}'").status, 0);
    EXPECT_NE(run("ubus call nms_report nothing").status, 0);
    auto listing = run("ubus -v list nms_report_cache").output;
    size_t methods = 0;
    for (size_t p = listing.find("\":{"); p != std::string::npos; p = listing.find("\":{", p + 1))
        methods++;
    EXPECT_EQ(methods, 19u) << listing;
}
