// stats_registry_test.cpp - the period groups, their node tables and timers, and the
// supported-parameter list.
#include <algorithm>
#include <string>
#include <vector>

#include "stats_fixture.h"
#include "stats_persist.h"
#include "stats_registry.h"
#include "uac_timer.h"

using namespace statstest;

namespace {

class StatsRegistry : public StatsTest {};

TEST_F(StatsRegistry, PeriodTableHoldsSixtyGroups) {
    for (int i = 1; i <= 60; ++i)
        ASSERT_EQ(statistics_params_timer_add(std::to_string(i).c_str()), 0) << i;
    std::string out = errors_of([] { EXPECT_EQ(statistics_params_timer_add("61"), -1); });
    EXPECT_NE(out.find("balance_dis_sta_hash is full."), std::string::npos) << out;
    EXPECT_NE(out.find("add (61) failed."), std::string::npos) << out;
    // An existing period is found, not added.
    EXPECT_EQ(statistics_params_timer_add("7"), 0);
    EXPECT_EQ(uac_hash_count(statistics_params_timer_hash), 60u);
    EXPECT_EQ(group_of("7")->timer_id, STATS_NO_TIMER);
}

TEST_F(StatsRegistry, NodeTableHoldsSixtyTypesAndKeepsTheFirstRegistration) {
    for (int i = 0; i < 60; ++i)
        add_node("30", ("t" + std::to_string(i)).c_str(), "get");
    statistics_params_cb_node extra{};
    snprintf(extra.type, sizeof(extra.type), "t60");
    std::string out = errors_of(
        [&] { EXPECT_EQ(statistics_params_cb_node_add(group_of("30")->node_hash, &extra), -1); });
    EXPECT_NE(out.find("add t60) failed."), std::string::npos) << out;

    // Same type again: 0, commands unchanged. The same type at another period is its own node.
    statistics_params_cb_node again{};
    snprintf(again.type, sizeof(again.type), "t3");
    snprintf(again.get_cb, sizeof(again.get_cb), "other");
    EXPECT_EQ(statistics_params_cb_node_add(group_of("30")->node_hash, &again), 0);
    EXPECT_STREQ(node_of("30", "t3")->get_cb, "get");
    add_node("60", "t3", "get60");
    EXPECT_STREQ(node_of("60", "t3")->get_cb, "get60");
    EXPECT_STREQ(node_of("30", "t3")->get_cb, "get");
    EXPECT_EQ(statistics_params_cb_node_delete(group_of("30")->node_hash, "t3"), 0);
    EXPECT_EQ(statistics_params_cb_node_delete(group_of("30")->node_hash, "t3"), -1);
    EXPECT_NE(node_of("60", "t3"), nullptr);
    EXPECT_EQ(statistics_params_timer_delete("30"), 0);  // with its nodes
    EXPECT_EQ(statistics_params_timer_delete("30"), -1);
}

TEST_F(StatsRegistry, LongTextsAreCutAndTerminated) {
    std::string type(100, 'y'), cmd(300, 'c'), timeout(100, '9');
    add_node(timeout.c_str(), type.c_str(), cmd, cmd);
    // The keys are stored cut, so they are found by their first characters.
    statistics_params_timer_entry *g = group_of(timeout.substr(0, STATS_TIMEOUT_LEN).c_str());
    ASSERT_NE(g, nullptr);
    statistics_params_cb_node *n = node_of(g->timeout, type.substr(0, STATS_TYPE_LEN).c_str());
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(std::string(n->get_cb), cmd.substr(0, STATS_CB_LEN));
    EXPECT_EQ(std::string(n->success_cb), cmd.substr(0, STATS_CB_LEN));
}

TEST_F(StatsRegistry, CopyHoldsEveryGroupAndNodeWithoutTimersOrPendingWork) {
    add_node("3600", "a", "get-a", "ok-a");
    add_node("3600", "b", "get-b");
    add_node("7200", "c", "get-c");
    node_of("3600", "a")->param_action = 1;
    begin_all_statistics_params_timer();

    uac_hash *copy = copy_timer_stats_timer_hash();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(uac_hash_count(copy), 2u);
    auto *g = static_cast<statistics_params_timer_entry *>(uac_hash_find(copy, "3600"));
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(g->timer_id, STATS_NO_TIMER);
    EXPECT_EQ(uac_hash_count(g->node_hash), 2u);
    auto *a = static_cast<statistics_params_cb_node *>(uac_hash_find(g->node_hash, "a"));
    ASSERT_NE(a, nullptr);
    EXPECT_STREQ(a->get_cb, "get-a");
    EXPECT_STREQ(a->success_cb, "ok-a");
    EXPECT_EQ(a->param_action, 0);

    // Disposing of the copy leaves the registry as it was.
    for (const char *t : {"3600", "7200"})
        EXPECT_EQ(_delete_all_statistics_params_hash(
                      static_cast<statistics_params_timer_entry *>(uac_hash_find(copy, t)), copy),
                  0);
    EXPECT_EQ(uac_hash_count(copy), 0u);
    uac_hash_destroy(copy);
    EXPECT_NE(node_of("7200", "c"), nullptr);
}

TEST_F(StatsRegistry, TimersStartOnceRestartOnlyNewGroupsAndStop) {
    add_node("3600", "a", "get");
    restart_new_statistics_params_timer();  // not started: nothing
    EXPECT_EQ(group_of("3600")->timer_id, STATS_NO_TIMER);

    begin_all_statistics_params_timer();
    int32_t first = group_of("3600")->timer_id;
    ASSERT_NE(first, STATS_NO_TIMER);
    EXPECT_GT(uac_timer_rest(static_cast<uint32_t>(first)), 3500u);
    begin_all_statistics_params_timer();
    EXPECT_EQ(group_of("3600")->timer_id, first);

    add_node("7200", "b", "get");
    EXPECT_EQ(group_of("7200")->timer_id, STATS_NO_TIMER);
    restart_new_statistics_params_timer();
    EXPECT_NE(group_of("7200")->timer_id, STATS_NO_TIMER);
    EXPECT_EQ(group_of("3600")->timer_id, first);

    stop_all_statistics_params_timer();
    EXPECT_EQ(group_of("3600")->timer_id, STATS_NO_TIMER);
    EXPECT_EQ(group_of("7200")->timer_id, STATS_NO_TIMER);
    EXPECT_EQ(uac_timer_rest(static_cast<uint32_t>(first)), 0u);  // removed from the wheel
    EXPECT_EQ(statistics_params_timers_started.load(), 0);
}

TEST_F(StatsRegistry, CleanTellsEveryProducerAndKeepsTheRegistry) {
    std::string log = scratch("clean.log");
    add_node("30", "a", "get", "echo a >> " + log);
    add_node("60", "b", "get", "echo b >> " + log);
    add_node("60", "quiet", "get");
    node_of("30", "a")->param_action = 1;
    node_of("60", "quiet")->param_action = 1;
    EXPECT_EQ(clean_all_statistics_params(), 0);
    auto lines = read_lines(log);
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(node_of("30", "a")->param_action, 0);
    EXPECT_EQ(node_of("60", "quiet")->param_action, 0);
    EXPECT_EQ(uac_hash_count(group_of("60")->node_hash), 2u);
}

TEST_F(StatsRegistry, SupportedListJoinsEachCommandOnceInOrder) {
    char text[64] = {0};
    EXPECT_EQ(get_support_params_list(text, sizeof(text)), 0);  // empty list: empty text
    EXPECT_STREQ(text, "");
    EXPECT_EQ(store_support_params_list("printf uptime,"), 0);
    EXPECT_EQ(store_support_params_list("printf load,"), 0);
    EXPECT_EQ(store_support_params_list("printf uptime,"), 0);  // kept once
    EXPECT_EQ(store_support_params_list(nullptr), -1);
    EXPECT_EQ(get_support_params_list(text, sizeof(text)), 0);
    EXPECT_STREQ(text, "uptime,load,");
    EXPECT_EQ(get_support_params_list(nullptr, 10), -1);
    EXPECT_EQ(get_support_params_list(text, 0), -1);
}

TEST_F(StatsRegistry, SupportedListFailsWhenAnOutputDoesNotFit) {
    std::vector<char> text(32768 + 1, '\0');
    {
        SCOPED_TRACE("an output of 2048 bytes is too much");
        store_support_params_list("head -c 2048 /dev/zero | tr '\\0' x");
        std::string out = errors_of([&] { EXPECT_EQ(get_support_params_list(text.data(), 32768), -1); });
        EXPECT_NE(out.find("too much return!"), std::string::npos) << out;
        TearDown();
    }
    {
        SCOPED_TRACE("2047 bytes fit a large text");
        store_support_params_list("head -c 2047 /dev/zero | tr '\\0' x");
        text.assign(text.size(), '\0');
        EXPECT_EQ(get_support_params_list(text.data(), 32768), 0);
        EXPECT_EQ(std::string(text.data()).size(), 2047u);
        TearDown();
    }
    {
        SCOPED_TRACE("more than the room left: the request fails after what fitted");
        store_support_params_list("printf 12345");
        store_support_params_list("printf 67890");
        char small[11] = {0};
        std::string out = errors_of([&] { EXPECT_EQ(get_support_params_list(small, 10), -1); });
        EXPECT_NE(out.find("too much return!"), std::string::npos) << out;
        EXPECT_STREQ(small, "12345");
    }
}

}  // namespace
