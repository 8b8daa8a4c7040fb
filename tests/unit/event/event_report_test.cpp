// Tests of batching, dispatch of received frames and the scan, with the fake report type.
#include <cstring>
#include <string>

#include "cloud_report.h"
#include "event_dispatch.h"
#include "event_fixture.h"
#include "event_msg.h"
#include "event_schedule.h"
#include "nms_log.h"
#include "uac_thread.h"

using namespace evtest;

namespace {

class Batch : public EventTest {};

// The events of a report text between the head and the tail.
std::string events_of(const std::string &text) {
    std::string open = std::string(kFakeHead) + ",\"eventList\":[";
    EXPECT_EQ(text.compare(0, open.size(), open), 0) << text.substr(0, 80);
    EXPECT_GE(text.size(), open.size() + 5);
    EXPECT_EQ(text.substr(text.size() - 5), "]}]}}");
    return text.substr(open.size(), text.size() - open.size() - 5);
}

std::string event_text(int id, uint64_t time, const std::string &params = "{}") {
    return "{\"typeId\":\"" + std::to_string(id) + "\",\"time\":\"" + std::to_string(time) +
           "\",\"params\":" + params + "}";
}

TEST_F(Batch, SendsOldestFirstAndDeletesWhatWasSent) {
    // Fill slots 0..4, empty 0..1, insert two more: they land in slots 5 and 6 and the ring's
    // oldest is slot 2.
    fill(3, 10, 5);
    int gone[2] = {0, 1};
    ASSERT_EQ(delete_node_arr_from_list_force(3, 2, gone, nullptr), 0);
    nms_event_info a = make_info(50, 20), b = make_info(51, 21, "{\"k\":\"v\"}");
    ASSERT_EQ(insert_node_to_list(3, &a, 0), 0);
    ASSERT_EQ(insert_node_to_list(3, &b, 0), 0);

    EXPECT_EQ(multil_call_nms_event_report_handle(3, &nms_report_type_table[0]), 0);
    auto sent = sent_texts();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(events_of(sent[0]), event_text(102, 12) + "," + event_text(103, 13) + "," +
                                      event_text(104, 14) + "," + event_text(50, 20) + "," +
                                      event_text(51, 21, "{\"k\":\"v\"}"));
    EXPECT_EQ(get_list_total_node(3), 0);

    SCOPED_TRACE("nothing left: no text, result 0, the attempt still stamped");
    reset_report_time(3);
    EXPECT_EQ(multil_call_nms_event_report_handle(3, &nms_report_type_table[0]), 0);
    EXPECT_EQ(sent_texts().size(), 1u);
    EXPECT_EQ(get_update_report_time(3), static_cast<uint32_t>(uac_uptime_sec()));
}

TEST_F(Batch, FailedSendKeepsTheEventsAndStampsTheAttempt) {
    fill(1, 5, 3);
    struct Answer {
        int ret, result;
    } failures[] = {{0, 500}, {-1, -1}, {0, -1}};
    for (const Answer &f : failures) {
        SCOPED_TRACE(std::to_string(f.ret) + "/" + std::to_string(f.result));
        send_return = f.ret;
        send_result = f.result;
        reset_report_time(1);
        EXPECT_EQ(multil_call_nms_event_report_handle(1, &nms_report_type_table[0]), -1);
        EXPECT_EQ(get_list_total_node(1), 3);  // no backlog on the queue: kept
        EXPECT_NE(get_update_report_time(1), 0u);
    }
    SCOPED_TRACE("a return other than -1 with result 0 is a success");
    send_return = 1;
    send_result = 0;
    EXPECT_EQ(multil_call_nms_event_report_handle(1, &nms_report_type_table[0]), 0);
    EXPECT_EQ(get_list_total_node(1), 0);
    EXPECT_EQ(sent_texts().size(), 4u);
}

TEST_F(Batch, CutByCountAtFiveThousandNineHundredNinetyNine) {
    fill(7, 1, NMS_EVENT_LIST_SLOTS, "1");  // short params: space is no limit
    EXPECT_EQ(multil_call_nms_event_report_handle(7, &nms_report_type_table[0]), 0);
    EXPECT_EQ(get_list_total_node(7), 1);
    auto sent = sent_texts();
    ASSERT_EQ(sent.size(), 1u);
    std::string body = events_of(sent[0]);
    EXPECT_EQ(body.rfind(event_text(100 + 5998, 5999, "1")), body.size() -
                                                               event_text(5998 + 100, 5999, "1").size());
    // The one left is the newest.
    NmsEventHold hold(gNmsEventNodeListLocker[7]);
    EXPECT_EQ(get_list_first_node(7)->time, 6000u);
}

TEST_F(Batch, CutByTextSpace) {
    const std::string big = "\"" + std::string(498, 'x') + "\"";  // 500 characters
    fill(2, 1, 600, big);
    EXPECT_EQ(multil_call_nms_event_report_handle(2, &nms_report_type_table[0]), 0);
    auto sent = sent_texts();
    ASSERT_EQ(sent.size(), 1u);
    // An event goes in while its params length + 129 bytes remain; each takes its text and a
    // comma (not the first).
    int32_t r = static_cast<int32_t>(CLOUD_HEAD_LIMIT - std::strlen(kFakeHead));
    int fit = 0;
    size_t events_len = 0;
    while (r >= static_cast<int32_t>(big.size() + 129)) {
        size_t len = event_text(100 + fit, 1 + static_cast<uint64_t>(fit), big).size();
        len += fit ? 1 : 0;
        r -= static_cast<int32_t>(len);
        events_len += len;
        fit++;
    }
    ASSERT_LT(fit, 600);
    EXPECT_EQ(get_list_total_node(2), 600 - fit);
    EXPECT_LT(sent[0].size(), static_cast<size_t>(NMS_REPORT_BUF_SIZE));
    EXPECT_EQ(events_of(sent[0]).size(), events_len);
}

TEST_F(Batch, EventsNotOwedToTheTypeAreSkipped) {
    fill(0, 1, 3);
    int mid[1] = {1};
    // Clear the cloud bit of the middle node with another consumer's bit left: fake by clearing
    // a bit it does not have, then check the walk via the mask count.
    EXPECT_EQ(multil_call_delete_node_arr_from_list(0, 1, mid, nullptr, 2), 0);
    EXPECT_EQ(get_list_total_node_by_mask(0, 1), 3);
    nms_report_type other = nms_report_type_table[0];
    other.src_mask = 2;  // a consumer nothing is owed to
    EXPECT_EQ(multil_call_nms_event_report_handle(0, &other), 0);
    EXPECT_TRUE(sent_texts().empty());
    EXPECT_EQ(multil_call_nms_event_report_handle(8, &nms_report_type_table[0]), -1);
    EXPECT_EQ(multil_call_nms_event_report_handle(0, nullptr), -1);
}

TEST_F(Batch, RequestAndTimeArgumentsAreChecked) {
    EXPECT_EQ(set_multil_call_cb_begin(1, 0), -1);
    EXPECT_EQ(set_multil_call_cb_begin(0, 8), -1);
    EXPECT_EQ(set_multil_call_cb_begin(0, -1), -1);
    EXPECT_EQ(update_report_time(8), -1);
    EXPECT_EQ(get_update_report_time(-1), 0xFFFFFFFFu);
    EXPECT_EQ(reset_report_time(9), -1);
    EXPECT_EQ(multil_call_store_report_node_id(8, 0, 1), -1);
    EXPECT_EQ(multil_call_store_report_node_id(0, 6000, 1), -1);
    EXPECT_EQ(multil_call_store_report_node_id(0, 6000, 2), 0);  // not this type's bit
    EXPECT_EQ(multil_call_remove_report_node_id(0, 0, 2), -1);
    EXPECT_EQ(send_report_info_async(nullptr, "/x", 0), -1);
    EXPECT_EQ(send_report_info_async("{}", nullptr, 0), -1);
    EXPECT_EQ(statistics_params_report_handle(nullptr, 1), -1);
    char empty[1] = "";
    EXPECT_EQ(statistics_params_report_handle(empty, 1), -1);
    char offline[] = ",\"a\":1";
    EXPECT_EQ(statistics_params_report_handle(offline, 0), 0);  // offline: silently not sent
    EXPECT_EQ(test_short_link_send_one(nullptr, "/x", 0), -1);
}

class Dispatch : public EventTest {};

nms_event_msg frame_with(const std::string &params, int32_t id = 9, uint64_t time = 77) {
    nms_event_msg f{};
    f.mtype = 1;
    f.id = id;
    f.time = time;
    std::strncpy(f.params, params.c_str(), sizeof(f.params) - 1);
    return f;
}

TEST_F(Dispatch, AcceptsAnyParseableParamsAndRefusesTheRest) {
    struct Case {
        const char *params;
        int result;
    } cases[] = {{"{}", 0},     {"{\"xx\":\"xx\"}", 0}, {"", 0},     {"42", 0},
                 {"\"s\"", 0},  {"null", -1},           {"xx", -1},  {"{\"a\":", -1}};
    int stored = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.params);
        nms_event_msg f = frame_with(c.params);
        EXPECT_EQ(msg_handle_dispatch(&f, 4), c.result);
        if (c.result == 0)
            stored++;
        EXPECT_EQ(get_list_total_node(4), stored);
    }
    NmsEventHold hold(gNmsEventNodeListLocker[4]);
    nms_event_node *n = get_list_first_node(4);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->id, 9);
    EXPECT_EQ(n->time, 77u);
    EXPECT_STREQ(n->params, "{}");
    hold.release();

    nms_event_msg f = frame_with("{}");
    EXPECT_EQ(msg_handle_dispatch(&f, 8), -1);
    EXPECT_EQ(msg_handle_dispatch(nullptr, 0), -1);
    SCOPED_TRACE("a type the filter refuses passes dispatch and is not stored");
    accept_events = false;
    EXPECT_EQ(msg_handle_dispatch(&f, 5), 0);
    EXPECT_EQ(get_list_total_node(5), 0);
}

TEST_F(Dispatch, EveryHandledEventEndsWithTheReleaseTraceLine) {
    nms_event_msg f = frame_with("{\"a\":1}");
    int saved = log_trace_on.exchange(1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(msg_handle_dispatch(&f, 4), 0);
    accept_events = false;
    EXPECT_EQ(msg_handle_dispatch(&f, 4), 0);  // refused by the list: released all the same
    log_trace_on.store(0);
    EXPECT_EQ(msg_handle_dispatch(&f, 4), 0);  // switch off: nothing
    std::string out = testing::internal::GetCapturedStdout();
    log_trace_on.store(saved);
    size_t lines = 0;
    for (size_t at = out.find("msg_handle_dispatch:"); at != std::string::npos;
         at = out.find("msg_handle_dispatch:", at + 1)) {
        EXPECT_NE(out.find("::free(0x", at), std::string::npos);
        lines++;
    }
    EXPECT_EQ(lines, 2u) << out;
}

class Scan : public EventTest {
protected:
    void TearDown() override {
        nms_event_stop_scan();
        EventTest::TearDown();
    }
    // Flags as a string "01..." for lists 0..7, then clears them.
    static std::string take_flags() {
        std::string s;
        for (auto &f : event_list_report_flag)
            s += f.exchange(0) ? '1' : '0';
        return s;
    }
    static void all_reported_now() {
        for (int i = 0; i < NMS_EVENT_LIST_NUM; i++)
            update_report_time(i);
    }
};

TEST_F(Scan, ImmediateListsAreDueWhenTheyHoldEvents) {
    all_reported_now();
    nms_event_scan_cb(nullptr);
    EXPECT_EQ(take_flags(), "00000000");
    fill(1, 1, 1);
    nms_event_scan_cb(nullptr);
    EXPECT_EQ(take_flags(), "11000000");
    fill(2, 1, 1);
    fill(5, 1, 1);  // not expired: does not count
    nms_event_scan_cb(nullptr);
    EXPECT_EQ(take_flags(), "11100000");
}

TEST_F(Scan, AnExpiredListTakesEveryLowerListWithIt) {
    all_reported_now();
    fill(4, 1, 1);
    fill(6, 1, 1);
    nms_event_scan_cb(nullptr);
    EXPECT_EQ(take_flags(), "00000000");  // the clock equals the last report: not expired
    const uint32_t now = static_cast<uint32_t>(uac_uptime_sec());
    event_list_report_time[4].store(now - 600);  // buffer time 600 s has passed
    nms_event_scan_cb(nullptr);
    EXPECT_EQ(take_flags(), "11111000");
    event_list_report_time[4].store(now - 599);
    nms_event_scan_cb(nullptr);
    EXPECT_EQ(take_flags(), "00000000");

    SCOPED_TRACE("an expired list that is empty is not due; the highest expired one wins");
    event_list_report_time[7].store(now - 1000);
    event_list_report_time[6].store(now - 1000);
    event_list_report_time[4].store(now - 1000);
    nms_event_scan_cb(nullptr);
    EXPECT_EQ(take_flags(), "11111110");
    SCOPED_TRACE("with list 1 non-empty only lists above 1 are checked for expiry");
    fill(1, 1, 1);
    all_reported_now();
    event_list_report_time[0].store(now - 1000);
    nms_event_scan_cb(nullptr);
    EXPECT_EQ(take_flags(), "11000000");
}

TEST_F(Scan, FlagOperationsCheckTheList) {
    EXPECT_EQ(set_event_list_report_flag(8), -1);
    EXPECT_EQ(reset_event_list_report_flag(-1), -1);
    EXPECT_EQ(set_event_list_report_flag(7), 0);
    EXPECT_EQ(event_list_report_flag[7].load(), 1);
    EXPECT_EQ(reset_event_list_report_flag(7), 0);
    EXPECT_EQ(event_list_report_flag[7].load(), 0);
}

}  // namespace
