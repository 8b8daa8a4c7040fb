// event_fixture.h - shared set-up of the event unit tests: the pipeline's state without any
// device path. The report type's operations that need the device (identity, the cloud) and
// the event filter (settings under /etc) are replaced by fakes the tests steer.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "event_list.h"
#include "event_report.h"

namespace evtest {

// Whether the fake event filter accepts events.
extern std::atomic<bool> accept_events;
// What the fake send answers: its return value and its result.
extern std::atomic<int> send_return;
extern std::atomic<int> send_result;
// Texts the fake send was given, in order.
std::vector<std::string> sent_texts();
// The head the fake head operation writes (what precedes the events).
extern const char *const kFakeHead;

nms_event_info make_info(int32_t id, uint64_t time, const std::string &params = "{}");
// Inserts events with the given times into list (never replacing); all must succeed.
void fill(int list, uint64_t first_time, int n, const std::string &params = "{}");

class EventTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace evtest
