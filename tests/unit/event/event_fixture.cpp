// event_fixture.cpp - fakes and per-test reset for the event unit tests.
#include "event_fixture.h"

#include <cstring>
#include <mutex>

#include "cloud_report.h"
#include "event_schedule.h"
#include "uac_lock.h"
#include "uac_mem.h"
#include "uac_thread.h"

namespace evtest {

std::atomic<bool> accept_events{true};
std::atomic<int> send_return{0};
std::atomic<int> send_result{0};
const char *const kFakeHead = "{\"head\":1,\"devEventList\":[{\"devMac\":\"m\"";

namespace {

std::mutex g_sent_mu;
std::vector<std::string> g_sent;

int fake_match(int32_t) { return accept_events.load() ? 0 : -1; }

int fake_head(char **text, int32_t *remaining) {
    char *buf = static_cast<char *>(MEM_GUARD_ALLOC(NMS_REPORT_BUF_SIZE));
    if (!buf)
        return -1;
    std::memset(buf, 0, NMS_REPORT_BUF_SIZE);
    std::string head = std::string(kFakeHead) + ",\"eventList\":[";
    std::memcpy(buf, head.data(), head.size());
    *text = buf;
    *remaining = static_cast<int32_t>(CLOUD_HEAD_LIMIT - std::strlen(kFakeHead));
    return 0;
}

int fake_send(char *text, uint32_t, int32_t *result) {
    {
        std::lock_guard<std::mutex> hold(g_sent_mu);
        g_sent.emplace_back(text);
    }
    *result = send_result.load();
    return send_return.load();
}

class Env : public ::testing::Environment {
public:
    void SetUp() override {
        uac_lock_module_init();
        uac_thread_module_init();
        nms_report_type &t = nms_report_type_table[0];
        t.match_event = fake_match;
        t.format_head = fake_head;
        t.send = fake_send;
        init_event_node_list();
        ASSERT_EQ(init_nms_event_report(0, nullptr), 0);
    }
};

const auto *const g_env = ::testing::AddGlobalTestEnvironment(new Env);

}  // namespace

std::vector<std::string> sent_texts() {
    std::lock_guard<std::mutex> hold(g_sent_mu);
    return g_sent;
}

nms_event_info make_info(int32_t id, uint64_t time, const std::string &params) {
    nms_event_info info{};
    info.id = id;
    info.time = time;
    std::strncpy(info.params, params.c_str(), sizeof(info.params) - 1);
    return info;
}

void fill(int list, uint64_t first_time, int n, const std::string &params) {
    for (int i = 0; i < n; i++) {
        nms_event_info info = make_info(100 + i, first_time + static_cast<uint64_t>(i), params);
        ASSERT_EQ(insert_node_to_list(list, &info, 0), 0) << "event " << i;
    }
}

void EventTest::SetUp() {
    accept_events = true;
    send_return = 0;
    send_result = 0;
    {
        std::lock_guard<std::mutex> hold(g_sent_mu);
        g_sent.clear();
    }
    init_event_node_list();
    for (int i = 0; i < NMS_EVENT_LIST_NUM; i++) {
        multil_call_remove_report_node_id(i, 0, 1);
        event_list_report_flag[i].store(0);
    }
}

void EventTest::TearDown() { init_event_node_list(); }

}  // namespace evtest
