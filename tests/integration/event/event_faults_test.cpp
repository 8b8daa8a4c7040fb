// event_faults_test.cpp - the event pipeline under the faults that used to lose accepted events
// or stall a list: replacements and cleans while a batch is being sent, producers backing up
// behind a full policy-2 list, over-long frames, params with text after the JSON value, and
// asynchronous sends against a cloud that answers slowly. Events carry a sequence number in
// their params and are counted at the cloud and in the list.
#include <dirent.h>
#include <json-c/json.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "event_dispatch.h"
#include "event_itest_util.h"
#include "event_msg.h"
#include "report_switch.h"

using namespace std::chrono_literals;

namespace {

const nms_report_type *cloud_type() { return &nms_report_type_table[0]; }

std::string seq_params(int seq) { return "{\"seq\":" + std::to_string(seq) + "}"; }

// Sequence numbers of the events in every report the cloud received, with repeats.
std::multiset<int> seqs_at_cloud(Cloud &cloud) {
    static const std::regex kSeq("\\{\"seq\":([0-9]+)\\}");
    std::multiset<int> out;
    for (const std::string &post : cloud.posts())
        for (std::sregex_iterator it(post.begin(), post.end(), kSeq), end; it != end; ++it)
            out.insert(std::stoi((*it)[1]));
    return out;
}

// Sequence numbers of the events list holds.
std::multiset<int> seqs_in_list(int list) {
    std::multiset<int> out;
    NmsEventHold hold(gNmsEventNodeListLocker[list]);
    for (nms_event_node *n = get_list_node(list, -1, -1); n;
         n = get_list_node(list, static_cast<int>(n->node_id), 0)) {
        int seq = -1;
        if (std::sscanf(n->params, "{\"seq\":%d}", &seq) == 1)
            out.insert(seq);
        if (n->node_id == NMS_EVENT_LIST_FULL)
            break;
    }
    return out;
}

void insert_seq(int list, int type, int seq, int replace) {
    nms_event_info info = info_of(type, 1 + static_cast<uint64_t>(seq), seq_params(seq).c_str());
    ASSERT_EQ(insert_node_to_list(list, &info, replace), 0) << seq;
}

class EventFaults : public ::testing::Test {
protected:
    void SetUp() override {
        itest::install_identity_stand_in(kMac, "site-42");
        init_lists_and_sender();
        set_report_online(1);
    }
    // Fills list with events 0..n-1 and starts one batch of it in the background; returns
    // once the cloud has the post, whose answer comes after delay_ms.
    void start_slow_batch(int list, int type, int n, int delay_ms) {
        for (int seq = 0; seq < n; seq++)
            insert_seq(list, type, seq, 0);
        cloud_.delay(delay_ms);
        batch_ = std::thread([this, list] {
            batch_rc_ = multil_call_nms_event_report_handle(static_cast<uint32_t>(list), cloud_type());
        });
        ASSERT_TRUE(itest::wait_until([this] { return cloud_.received() == 1; }, 5s));
    }
    int finish_batch() {
        batch_.join();
        return batch_rc_;
    }
    Cloud cloud_;
    std::thread batch_;
    std::atomic<int> batch_rc_{-2};
};

TEST_F(EventFaults, EventsThatReplaceABatchInFlightStayAfterItsSuccess) {
    write_list_settings({{3, 600, 50, 1}});
    enable_types({{31, 3}});
    start_slow_batch(3, 31, NMS_EVENT_LIST_SLOTS, 1500);
    // The list is full under policy 1: each new event replaces the oldest node, a node of the
    // batch being sent, and takes its slot.
    for (int seq = NMS_EVENT_LIST_SLOTS; seq < NMS_EVENT_LIST_SLOTS + 1000; seq++)
        insert_seq(3, 31, seq, 1);
    ASSERT_EQ(finish_batch(), 0);

    std::multiset<int> sent = seqs_at_cloud(cloud_), kept = seqs_in_list(3);
    ASSERT_GT(sent.size(), 1000u);
    // Every event is either sent once or still held; the new ones are all held.
    std::multiset<int> all = sent;
    all.insert(kept.begin(), kept.end());
    EXPECT_EQ(all.size(), static_cast<size_t>(NMS_EVENT_LIST_SLOTS + 1000));
    EXPECT_EQ(std::set<int>(all.begin(), all.end()).size(), all.size()) << "duplicates";
    for (int seq = NMS_EVENT_LIST_SLOTS; seq < NMS_EVENT_LIST_SLOTS + 1000; seq++)
        ASSERT_EQ(kept.count(seq), 1u) << "new event " << seq << " lost";
    EXPECT_EQ(get_list_total_node(3), static_cast<int>(kept.size()));
}

TEST_F(EventFaults, EventsAcceptedAfterACleanDuringASendStay) {
    write_list_settings({{2, 600, 50, 1}});
    enable_types({{21, 2}});
    start_slow_batch(2, 21, NMS_EVENT_LIST_SLOTS, 1500);
    // The bus's clean empties every slot; new events then take the batch's slots.
    clean_one_list(1);
    ASSERT_EQ(get_list_total_node(2), 0);
    for (int seq = 10000; seq < 10300; seq++)
        insert_seq(2, 21, seq, 0);
    ASSERT_EQ(finish_batch(), 0);
    std::multiset<int> kept = seqs_in_list(2);
    EXPECT_EQ(kept.size(), 300u);
    EXPECT_EQ(*kept.begin(), 10000);
    EXPECT_EQ(*kept.rbegin(), 10299);
}

// Sends one frame of text_len bytes of text (the params filled with text) to list's queue.
void send_frame(int list, int id, const std::string &params, size_t text_len = NMS_EVENT_MSG_TEXT_SIZE) {
    struct {
        long mtype;
        char text[1024];
    } msg{};
    ASSERT_LE(text_len, sizeof(msg.text));
    msg.mtype = 1;
    nms_event_msg frame{};
    frame.id = id;
    frame.time = 7;
    std::snprintf(frame.params, sizeof(frame.params), "%s", params.c_str());
    std::memcpy(msg.text, reinterpret_cast<char *>(&frame) + offsetof(nms_event_msg, id),
                std::min(text_len, sizeof(frame) - offsetof(nms_event_msg, id)));
    ASSERT_EQ(msgsnd(gNmsEventMsgId[list].load(), &msg, text_len, IPC_NOWAIT), 0);
}

long queue_waiting(int list) {
    msqid_ds state{};
    return msgctl(gNmsEventMsgId[list].load(), IPC_STAT, &state) == 0 ? static_cast<long>(state.msg_qnum) : -1;
}

std::atomic<int> g_handled{0};
int counting_dispatch(nms_event_msg *frame, int list) {
    int rc = msg_handle_dispatch(frame, list);
    g_handled++;
    return rc;
}

void *receive_loop(void *arg) {
    recv_notify_nms_event(counting_dispatch, nullptr, *static_cast<int *>(arg));
    return nullptr;
}

void start_receive_loop(int *list) {
    pthread_t tid;
    ASSERT_EQ(uac_thread_create(&tid, "test_receive", receive_loop, list), 0);
}

TEST_F(EventFaults, AWorkerHeldByPolicyTwoSeesTheBacklogGrowAndAFailedBatchMakesRoom) {
    write_list_settings({{4, 600, 50, 2}});
    enable_types({{41, 4}});
    for (int seq = 0; seq < NMS_EVENT_LIST_SLOTS; seq++)
        insert_seq(4, 41, seq, 0);
    static int list = 4;
    ASSERT_EQ(init_nms_event_msg(list), 0);
    start_receive_loop(&list);
    // The worker's round takes this one message and is then held: the list is full.
    send_frame(4, 41, seq_params(20000));
    ASSERT_TRUE(itest::wait_until([] { return queue_waiting(4) == 0; }, 5s));
    EXPECT_EQ(is_msg_list_is_full(4), -1);
    // Producers back up behind it. The held worker sleeps and counts nothing...
    for (int i = 0; i < 5300; i++)
        send_frame(4, 41, seq_params(20001 + i));
    ASSERT_TRUE(itest::wait_until([] { return is_list_producer_waiting(4) == 0; }, 5s));
    EXPECT_EQ(queue_waiting(4), 5300);

    // ...so the failing batch looks at the queue itself: it is dropped to make room, and the
    // worker goes on.
    cloud_.fail_next(4, 500);
    EXPECT_EQ(multil_call_nms_event_report_handle(4, cloud_type()), -1);
    EXPECT_LT(get_list_total_node(4), NMS_EVENT_LIST_SLOTS);
    EXPECT_TRUE(itest::wait_until([] { return queue_waiting(4) < 5000; }, 5s));
}

TEST_F(EventFaults, AnOverlongFrameIsDroppedAndTheQueueGoesOn) {
    enable_types({{11, 1}});
    static int list = 1;
    ASSERT_EQ(init_nms_event_msg(list), 0);
    send_frame(1, 11, seq_params(1));
    send_frame(1, 11, std::string(600, 'x'), 700);  // a sender that breaks the limit
    send_frame(1, 11, seq_params(2));
    start_receive_loop(&list);
    ASSERT_TRUE(itest::wait_until([] { return get_list_total_node(1) == 2; }, 5s));
    EXPECT_EQ(queue_waiting(1), 0);
    EXPECT_EQ(seqs_in_list(1), (std::multiset<int>{1, 2}));
    // A receive that keeps failing (the queue removed under it) waits between rounds instead
    // of spinning; the loop's thread stays mostly asleep.
    const int before = g_handled.load();
    send_frame(1, 11, seq_params(3));
    ASSERT_TRUE(itest::wait_until([&] { return g_handled.load() == before + 1; }, 5s));
}

TEST_F(EventFaults, OnlyTheJsonValueOfTheParamsGoesIntoTheReport) {
    enable_types({{31, 3}});
    const std::pair<const char *, const char *> cases[] = {
        {"{}]}]}},{\"x\":1", "{}"},
        {"{\"a\":[1,2]}  trailing words", "{\"a\":[1,2]}"},
        {"\"text\" 12", "\"text\""},
        {"  {\"b\":true}\t", "  {\"b\":true}"},
        {"17", "17"},
        {"{\"a\":1 /* note */}", "{\"a\":1}"},
        {"[1,2,]", "[1,2]"},
    };
    for (const auto &c : cases) {
        nms_event_msg frame{};
        frame.id = 31;
        frame.time = 5;
        std::snprintf(frame.params, sizeof(frame.params), "%s", c.first);
        ASSERT_EQ(msg_handle_dispatch(&frame, 3), 0) << c.first;
    }
    {
        NmsEventHold hold(gNmsEventNodeListLocker[3]);
        int i = 0;
        for (nms_event_node *n = get_list_first_node(3); n && i < 7;
             n = get_list_node(3, static_cast<int>(n->node_id), -1), i++)
            EXPECT_STREQ(n->params, cases[i].second);
    }
    ASSERT_EQ(multil_call_nms_event_report_handle(3, cloud_type()), 0);
    ASSERT_EQ(cloud_.posts().size(), 1u);
    const std::string body = cloud_.posts()[0].substr(cloud_.posts()[0].find(' ') + 1);
    json_tokener *tok = json_tokener_new();
    json_object *obj = json_tokener_parse_ex(tok, body.c_str(), static_cast<int>(body.size()));
    EXPECT_NE(obj, nullptr) << body;
    // The whole report is one JSON value; only the envelope's last brace, which every event
    // report carries once more, follows it.
    EXPECT_EQ(json_tokener_get_parse_end(tok), body.size() - 1) << body;
    EXPECT_EQ(body.back(), '}');
    json_object_put(obj);
    json_tokener_free(tok);
}

int threads_named(const char *name) {
    int n = 0;
    DIR *dir = opendir("/proc/self/task");
    if (!dir)
        return -1;
    while (dirent *e = readdir(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string line;
        // The kernel keeps 15 characters of a name.
        if (std::getline(comm, line) && line == std::string(name).substr(0, 15))
            n++;
    }
    closedir(dir);
    return n;
}

TEST_F(EventFaults, AsynchronousSendsUseFewThreadsAndAllArrive) {
    cloud_.delay(400);
    const int kCalls = 24;
    for (int i = 0; i < kCalls; i++)
        ASSERT_EQ(send_report_info_async(seq_params(i).c_str(), "/nexo/devmsg/v1/async", 0), 0);
    int most = 0;
    bool all = itest::wait_until([&] {
        most = std::max(most, threads_named("send_report_info"));
        return static_cast<int>(cloud_.posts().size()) == kCalls;
    }, 20s);
    EXPECT_TRUE(all) << cloud_.posts().size();
    EXPECT_GT(most, 0);
    EXPECT_LE(most, 4);
    std::multiset<int> sent = seqs_at_cloud(cloud_);
    EXPECT_EQ(std::set<int>(sent.begin(), sent.end()).size(), static_cast<size_t>(kCalls));
    // The senders end once the queue is empty.
    EXPECT_TRUE(itest::wait_until([] { return threads_named("send_report_info") == 0; }, 5s));
}

}  // namespace

namespace {

void write_type_61(const char *enable) {
    itest::write_file("/etc/nms_report/event_params",
                      std::string("\nconfig event '61'\n\toption enable '") + enable +
                          "'\n\toption level '6'\n\nconfig event '62'\n\toption enable 'on'\n"
                          "\toption level '6'\n");
}

TEST_F(EventFaults, SettingsWrittenBeforeAnEventAreTheOnesItMeets) {
    write_list_settings({{6, 600, 6000, 1}});
    write_type_61("on");
    static int list = 6;
    ASSERT_EQ(init_nms_event_msg(list), 0);
    start_receive_loop(&list);
    int held = 0;
    // Each round writes the setting, then sends type 61 and a marker that is always taken;
    // once the marker is in the list, 61 was handled before it, under the new setting.
    for (int round = 0; round < 120; round++) {
        const bool on = round % 2 == 0;
        switch (round % 6) {
        case 0: case 1: case 2: case 3:
            // The uci tool's delta of earlier rounds would override the file: drop it first.
            if (round % 6 == 0 && round > 0) {
                ASSERT_EQ(itest::run("uci -c /etc/nms_report revert event_params").status, 0);
            }
            // Rewritten in place: "on" and "of" have the same length, so size and, within
            // one clock tick, the times stay as they were.
            {
                std::FILE *f = std::fopen("/etc/nms_report/event_params", "r+");
                ASSERT_NE(f, nullptr);
                std::string text = itest::read_file("/etc/nms_report/event_params");
                size_t at = text.find("enable '");
                ASSERT_NE(at, std::string::npos);
                std::fseek(f, static_cast<long>(at + 8), SEEK_SET);
                std::fputs(on ? "on" : "of", f);
                std::fclose(f);
            }
            break;
        default:
            // An uncommitted change through the uci tool (a delta in its save directory).
            ASSERT_EQ(itest::run(std::string("uci -c /etc/nms_report set event_params.61.enable=") +
                                 (on ? "on" : "of"))
                          .status,
                      0);
        }
        send_frame(6, 61, seq_params(round));
        send_frame(6, 62, "{}");
        held += 2;
        int want = held - (on ? 0 : 1);
        ASSERT_TRUE(itest::wait_until([&] { return get_list_total_node(6) == want; }, 5s))
            << "round " << round << (on ? " (on)" : " (off)") << ": " << get_list_total_node(6)
            << " held, " << want << " expected";
        held = want;
    }
}

}  // namespace
