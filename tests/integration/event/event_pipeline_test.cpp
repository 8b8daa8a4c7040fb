// event_pipeline_test.cpp - the event pipeline on a sandboxed device: queues, lists, scan,
// batches and the envelope as the cloud receives it.
#include "itest.h"
#include "event_itest_util.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cloud_report.h"
#include "event_config.h"
#include "event_dispatch.h"
#include "event_list.h"
#include "event_msg.h"
#include "event_report.h"
#include "event_schedule.h"
#include "nms_event_send.h"
#include "report_switch.h"
#include "uac_lock.h"
#include "uac_thread.h"
#include "uac_timer.h"

using namespace std::chrono_literals;

namespace {

std::string expected_head() {
    return "{\"projectId\":\"\",\"deviceMac\":\"" + std::string(kMac) +
           "\",\"deviceType\":\"AP\",\"devEventList\":[{\"devMac\":\"" + kMac +
           "\",\"devType\":\"AP\",\"devName\":\"sandbox\"";
}

class EventPipeline : public ::testing::Test {
protected:
    void SetUp() override {
        itest::install_identity_stand_in(kMac, "site-42");
        init_lists_and_sender();
    }
    Cloud cloud_;
};

TEST_F(EventPipeline, OneEventReachesTheCloudInTheDocumentedEnvelope) {
    enable_types({{1001, 3}});
    set_report_online(1);
    nms_event_info info = info_of(1001, 1700000000123ULL, "{\"port\":\"eth0\",\"up\":true}");
    ASSERT_EQ(insert_node_to_list(3, &info, 0), 0);
    ASSERT_EQ(multil_call_nms_event_report_handle(3, &nms_report_type_table[0]), 0);
    auto posts = cloud_.posts();
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0], "/nexo/devmsg/v1/reportDevEventMsg " + expected_head() +
                            ",\"eventList\":[{\"typeId\":\"1001\",\"time\":\"1700000000123\","
                            "\"params\":{\"port\":\"eth0\",\"up\":true}}]}]}}");
    EXPECT_EQ(get_list_total_node(3), 0);

    SCOPED_TRACE("after the site id is fetched it is the projectId");
    ASSERT_EQ(local_update_site_id(), 0);
    ASSERT_EQ(insert_node_to_list(3, &info, 0), 0);
    ASSERT_EQ(multil_call_nms_event_report_handle(3, &nms_report_type_table[0]), 0);
    posts = cloud_.posts();
    ASSERT_EQ(posts.size(), 2u);
    EXPECT_NE(posts[1].find("{\"projectId\":\"site-42\",\"deviceMac\""), std::string::npos);
}

TEST_F(EventPipeline, EventsAreRefusedOfflineOrWhenTheTypeIsDisabled) {
    enable_types({{5, 0}});
    nms_event_info on = info_of(5, 1, "{}"), off = info_of(6, 1, "{}");
    set_report_online(0);
    EXPECT_EQ(insert_node_to_list(0, &on, 0), -1);
    set_report_online(1);
    EXPECT_EQ(insert_node_to_list(0, &on, 0), 0);
    EXPECT_EQ(insert_node_to_list(0, &off, 0), -1);  // no settings for type 6
    itest::write_file("/tmp/tmp_nms_event_test_ignore_enable", "");
    EXPECT_EQ(insert_node_to_list(0, &off, 0), 0);
    EXPECT_EQ(get_list_total_node(0), 2);
}

TEST_F(EventPipeline, PolicyTwoIsDueAtItsThresholdAndPolicyOneIsNot) {
    write_list_settings({{5, 600, 3, 2}, {6, 600, 3, 1}});
    enable_types({{7, 5}});
    set_report_online(1);
    for (int list = 0; list < 8; list++)
        update_report_time(list);
    nms_event_info info = info_of(7, 1, "{}");
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(insert_node_to_list(6, &info, 0), 0);
    nms_event_scan_cb(nullptr);
    for (int list = 0; list < 8; list++)
        EXPECT_EQ(event_list_report_flag[list].exchange(0), 0) << "list " << list;
    for (int i = 0; i < 2; i++)
        ASSERT_EQ(insert_node_to_list(5, &info, 0), 0);
    nms_event_scan_cb(nullptr);
    EXPECT_EQ(event_list_report_flag[5].load(), 0);
    ASSERT_EQ(insert_node_to_list(5, &info, 0), 0);
    nms_event_scan_cb(nullptr);
    for (int list = 0; list < 8; list++)
        EXPECT_EQ(event_list_report_flag[list].exchange(0), list <= 5 ? 1 : 0) << "list " << list;
    nms_event_stop_scan();
}

// A producer held back by a full policy-2 list, on a thread of its own as the list's worker.
class HeldProducer {
public:
    HeldProducer(int list, const char *params) : list_(list), params_(params) {
        thread_ = std::thread([this] {
            nms_event_info info = info_of(9, 1, params_);
            insert_node_to_list_by_policy(list_, &info);
            done_ = true;
        });
    }
    ~HeldProducer() {
        if (thread_.joinable())
            thread_.join();
    }
    // Asleep on the full list, having replaced nothing.
    bool held() {
        return itest::wait_until([&] { return is_list_producer_waiting(list_) == 0; }, 5s) &&
               !done_.load() && get_list_total_node(list_) == NMS_EVENT_LIST_SLOTS;
    }
    bool resumed() { return itest::wait_until([&] { return done_.load(); }, 5s); }

private:
    int list_;
    const char *params_;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

void fill_list(int list, int id) {
    for (int i = get_list_total_node(list); i < NMS_EVENT_LIST_SLOTS; i++) {
        nms_event_info info = info_of(id, 1000 + static_cast<uint64_t>(i), "{}");
        ASSERT_EQ(insert_node_to_list(list, &info, 0), 0);
    }
}

// The held producer sleeps until room is made, whoever makes it: a deletion, a clean, a
// policy switched to replace-oldest. Nothing is replaced while it waits, nothing is lost.
TEST_F(EventPipeline, PolicyTwoHoldsTheProducerUntilRoomIsMade) {
    write_list_settings({{4, 600, 50, 2}});
    enable_types({{9, 4}});
    set_report_online(1);
    fill_list(4, 9);
    {
        SCOPED_TRACE("a deleted node");
        HeldProducer p(4, "{\"late\":1}");
        ASSERT_TRUE(p.held());
        int slot = 17;
        ASSERT_EQ(delete_node_arr_from_list_force(4, 1, &slot, nullptr), 0);
        ASSERT_TRUE(p.resumed());
        EXPECT_EQ(get_list_total_node(4), NMS_EVENT_LIST_SLOTS);
        NmsEventHold hold(gNmsEventNodeListLocker[4]);
        EXPECT_STREQ(get_list_node(4, 16, -1)->params, "{\"late\":1}");
    }
    {
        SCOPED_TRACE("clean_cache's clean");
        HeldProducer p(4, "{\"late\":2}");
        ASSERT_TRUE(p.held());
        EXPECT_EQ(clean_one_list(1), -1);  // lists without nodes say so; list 4 is emptied
        ASSERT_TRUE(p.resumed());
        EXPECT_EQ(get_list_total_node(4), 1);
    }
    {
        SCOPED_TRACE("the policy switched to replace-oldest");
        fill_list(4, 9);
        HeldProducer p(4, "{\"late\":3}");
        ASSERT_TRUE(p.held());
        write_list_settings({{4, 600, 50, 1}});
        ASSERT_TRUE(p.resumed());
        EXPECT_EQ(get_list_total_node(4), NMS_EVENT_LIST_SLOTS);  // the oldest gave way
    }
}

// Sends n frames with raw msgsnd to list's queue.
void stuff_queue(int list, int n) {
    ASSERT_EQ(init_nms_event_msg(list), 0);
    int qid = gNmsEventMsgId[list].load();
    nms_event_msg frame{};
    frame.mtype = 1;
    frame.id = 1;
    for (int i = 0; i < n; i++)
        ASSERT_EQ(msgsnd(qid, &frame, NMS_EVENT_MSG_TEXT_SIZE, IPC_NOWAIT), 0) << i;
}

// While the producer is held it counts nothing: a failed batch looks at the queue itself, and
// a backed-up queue makes the batch give its events up, which lets the producer in.
TEST_F(EventPipeline, FailedBatchSeesTheQueueBehindAHeldProducer) {
    write_list_settings({{4, 600, 50, 2}});
    enable_types({{9, 4}});
    set_report_online(1);
    fill_list(4, 9);
    HeldProducer p(4, "{\"late\":1}");
    ASSERT_TRUE(p.held());
    stuff_queue(4, 5250);
    cloud_.fail_next(4, 500);  // 1 + 3 attempts
    EXPECT_EQ(multil_call_nms_event_report_handle(4, &nms_report_type_table[0]), -1);
    ASSERT_TRUE(p.resumed());
    EXPECT_LT(get_list_total_node(4), NMS_EVENT_LIST_SLOTS);
}

std::atomic<bool> g_hold_handler{true};
int holding_handler(nms_event_msg *, int) {
    while (g_hold_handler.load())
        std::this_thread::sleep_for(10ms);
    return 0;
}

void *receive_loop(void *arg) {
    recv_notify_nms_event(holding_handler, nullptr, *static_cast<int *>(arg));
    return nullptr;
}

TEST_F(EventPipeline, FailedSendDeletesOnlyWhileTheQueueIsBackedUp) {
    enable_types({{11, 6}, {12, 5}});
    set_report_online(1);
    // List 6's queue holds 5250 waiting messages, list 5's 5249, when their loops look.
    static int lists[2] = {6, 5};
    stuff_queue(6, 5250);
    stuff_queue(5, 5249);
    for (int &l : lists) {
        pthread_t tid;
        ASSERT_EQ(uac_thread_create(&tid, "test_receive", receive_loop, &l), 0);
    }
    ASSERT_TRUE(itest::wait_until([] { return is_msg_list_is_full(6) == 0; }, 5s));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(is_msg_list_is_full(5), -1);

    for (int list : {5, 6}) {
        nms_event_info info = info_of(list == 6 ? 11 : 12, 1, "{}");
        for (int i = 0; i < 4; i++)
            ASSERT_EQ(insert_node_to_list(list, &info, 0), 0);
    }
    cloud_.fail_next(8, 500);  // 1 + 3 attempts per batch
    EXPECT_EQ(multil_call_nms_event_report_handle(5, &nms_report_type_table[0]), -1);
    EXPECT_EQ(multil_call_nms_event_report_handle(6, &nms_report_type_table[0]), -1);
    EXPECT_EQ(cloud_.posts().size(), 8u);
    EXPECT_EQ(get_list_total_node(5), 4);  // kept for the next attempt
    EXPECT_EQ(get_list_total_node(6), 0);  // dropped to make room
    g_hold_handler = false;
}

TEST_F(EventPipeline, SentEventsFlowFromTheQueuesToTheCloud) {
    enable_types({{21, 0}, {22, 2}, {23, 6}});
    set_report_online(1);
    ASSERT_EQ(uac_timer_init(10), 0);
    ASSERT_EQ(init_nms_event_list_report_task(), 0);
    ASSERT_EQ(init_msg_handle(), 0);
    ASSERT_EQ(nms_event_begin_scan(), 0);

    const std::string p495 = "\"" + std::string(493, 'z') + "\"";
    EXPECT_EQ(nms_event_send(NMS_EVENT_SEND_AUTO_LIST, 21, 111, "{\"n\":1}"), 0);
    EXPECT_EQ(nms_event_send(NMS_EVENT_SEND_AUTO_LIST, 22, 222, p495.c_str()), 0);
    auto r = itest::run("nms_event_send -t 333 23 '{\"cli\":true}' && nms_event_send -l 1 21");
    EXPECT_EQ(r.status, 0) << r.output;
    SCOPED_TRACE("bad input is refused by the sender with a message");
    r = itest::run("nms_event_send 21 'not json'");
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.output.find("JSON"), std::string::npos) << r.output;
    r = itest::run("nms_event_send 21 '\"" + std::string(494, 'y') + "\"'");
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(nms_event_send(NMS_EVENT_SEND_AUTO_LIST, 21, 1, "null"), NMS_EVENT_SEND_ERR_PARAMS);

    // Lists 0 to 2 go at the next scan; list 6 (type 23) waits for its buffer time.
    auto has = [&](const std::string &piece) {
        for (auto &p : cloud_.posts())
            if (p.find(piece) != std::string::npos)
                return true;
        return false;
    };
    EXPECT_TRUE(itest::wait_until([&] { return has("\"typeId\":\"21\",\"time\":\"111\""); }, 10s));
    EXPECT_TRUE(itest::wait_until([&] { return has(p495); }, 10s));
    EXPECT_TRUE(itest::wait_until([&] { return has("\"typeId\":\"21\",\"time\":\""); }, 10s));
    EXPECT_FALSE(has("\"cli\":true"));
    EXPECT_EQ(get_list_total_node(6), 1);
    SCOPED_TRACE("a flush request sends list 6 now");
    EXPECT_EQ(set_multil_call_cb_begin(0, 6), 0);
    EXPECT_TRUE(itest::wait_until([&] { return has("\"typeId\":\"23\",\"time\":\"333\""); }, 10s));
}

}  // namespace
