// Tests of the event lists through their public functions.
#include <string>

#include "event_fixture.h"
#include "event_list.h"

using namespace evtest;

namespace {

class EventList : public EventTest {};

TEST_F(EventList, InsertsInSlotOrderAndTheLastDeletionResetsCurPos) {
    fill(3, 10, 3);
    EXPECT_EQ(get_list_total_node(3), 3);
    NmsEventHold hold(gNmsEventNodeListLocker[3]);
    nms_event_node *first = get_list_first_node(3);  // the slot after cur_pos (2) is empty: 0
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->node_id, 0u);
    EXPECT_EQ(first->time, 10u);
    EXPECT_EQ(first->mask, 1);
    hold.release();

    // before: slots 0 1 2, cur_pos 2; deleting another node keeps cur_pos
    int one = 1;
    EXPECT_EQ(delete_node_arr_from_list_force(3, 1, &one, nullptr), 0);
    int two = 2;
    EXPECT_EQ(delete_node_arr_from_list_force(3, 1, &two, nullptr), 0);
    nms_event_info info = make_info(7, 99);
    EXPECT_EQ(insert_node_to_list(3, &info, 0), 0);  // lands after the old cur_pos: slot 3
    NmsEventHold hold2(gNmsEventNodeListLocker[3]);
    EXPECT_EQ(get_list_first_node(3)->node_id, 0u);  // slot 4 empty, walk wraps to slot 0
    hold2.release();

    SCOPED_TRACE("deleting the only node resets cur_pos so the next insert starts at slot 0");
    int zero = 0, three = 3, deleted = -1;
    EXPECT_EQ(delete_node_arr_from_list_force(3, 1, &zero, &deleted), 0);
    EXPECT_EQ(deleted, 1);
    EXPECT_EQ(delete_node_arr_from_list_force(3, 1, &three, nullptr), 0);
    EXPECT_EQ(is_list_not_empty(3), -1);
    EXPECT_EQ(delete_node_arr_from_list_force(3, 1, &three, nullptr), -1);  // nothing there now
    fill(3, 1, 1);
    NmsEventHold hold3(gNmsEventNodeListLocker[3]);
    EXPECT_EQ(get_list_first_node(3)->node_id, 0u);
}

TEST_F(EventList, FullListRefusesPlainInsertAndReplacesTheOldest) {
    // Times 1000 onward, except slot 2500 which is the oldest (5) and 4000 an equal one.
    for (int i = 0; i < NMS_EVENT_LIST_SLOTS; i++) {
        uint64_t t = 1000 + static_cast<uint64_t>(i);
        if (i == 2500 || i == 4000)
            t = 5;
        nms_event_info info = make_info(1, t);
        ASSERT_EQ(insert_node_to_list(6, &info, 0), 0);
    }
    EXPECT_EQ(is_list_full(6), 0);
    nms_event_info info = make_info(2, 777777);
    EXPECT_EQ(insert_node_to_list(6, &info, 0), -1);
    EXPECT_EQ(get_list_total_node(6), NMS_EVENT_LIST_SLOTS);

    // The smallest time wins; of equals the first after cur_pos (5999): slot 2500.
    EXPECT_EQ(insert_node_to_list(6, &info, 1), 0);
    EXPECT_EQ(get_list_total_node(6), NMS_EVENT_LIST_SLOTS);
    {
        NmsEventHold hold(gNmsEventNodeListLocker[6]);
        nms_event_node *n = get_list_node(6, 2499, -1);
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(n->node_id, 2500u);
        EXPECT_EQ(n->time, 777777u);
    }
    // Next replacement takes the equal one in slot 4000.
    nms_event_info again = make_info(3, 888888);
    EXPECT_EQ(insert_node_to_list(6, &again, 1), 0);
    {
        NmsEventHold hold(gNmsEventNodeListLocker[6]);
        EXPECT_EQ(get_list_node(6, 3999, -1)->time, 888888u);
    }
    SCOPED_TRACE("a replace mode other than 1 only takes nodes whose mask is 0: none here");
    EXPECT_EQ(insert_node_to_list(6, &again, 2), -1);
    EXPECT_EQ(get_list_total_node(6), NMS_EVENT_LIST_SLOTS);
}

TEST_F(EventList, RefusesLongTextsAndEventsTheFilterRejects) {
    nms_event_info ok = make_info(1, 1, "\"" + std::string(498, 'a') + "\"");  // 500 characters
    EXPECT_EQ(insert_node_to_list(0, &ok, 0), 0);
    nms_event_info too_long = make_info(1, 2, "\"" + std::string(499, 'a') + "\"");  // 501
    EXPECT_EQ(insert_node_to_list(0, &too_long, 0), -1);
    accept_events = false;
    nms_event_info refused = make_info(1, 3);
    EXPECT_EQ(insert_node_to_list(0, &refused, 0), -1);
    EXPECT_EQ(get_list_total_node(0), 1);
    SCOPED_TRACE("bad arguments change nothing");
    EXPECT_EQ(insert_node_to_list(8, &ok, 0), -1);
    EXPECT_EQ(insert_node_to_list(-1, &ok, 0), -1);
    EXPECT_EQ(insert_node_to_list(0, nullptr, 0), -1);
    EXPECT_EQ(get_list_total_node(8), -1);
    EXPECT_EQ(init_event_node_from_event_info(nullptr, &ok), -1);
    EXPECT_EQ(delete_event_node(nullptr, nullptr), -1);
}

TEST_F(EventList, CleanVisitsSlotIndexesBelowTheCountOnly) {
    fill(2, 1, 13);
    int low[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    int deleted = 0;
    ASSERT_EQ(delete_node_arr_from_list_force(2, 10, low, &deleted), 0);
    ASSERT_EQ(deleted, 10);
    // Nodes sit in slots 10..12 with count 3: only slots 0..2 are visited.
    EXPECT_EQ(clean_one_list(1), -1);
    EXPECT_EQ(get_list_total_node(2), 3);
    EXPECT_EQ(clean_one_list(0), 0);  // no bits: nothing to do

    SCOPED_TRACE("with a node in every list at slot 0 the clean empties them and answers 0");
    init_event_node_list();
    for (int l = 0; l < NMS_EVENT_LIST_NUM; l++)
        fill(l, 1, 2);
    EXPECT_EQ(clean_one_list(1), 0);
    for (int l = 0; l < NMS_EVENT_LIST_NUM; l++)
        EXPECT_EQ(get_list_total_node(l), 0) << "list " << l;
}

TEST_F(EventList, WalksStopAtTheirStartAndMaskDeletionKeepsOwedNodes) {
    fill(5, 1, 4);  // slots 0..3
    {
        NmsEventHold hold(gNmsEventNodeListLocker[5]);
        EXPECT_EQ(get_list_node(5, 1, -1)->node_id, 2u);
        EXPECT_EQ(get_list_node(5, 3, -1)->node_id, 0u);  // wraps
        EXPECT_EQ(get_list_node(5, 3, 0), nullptr);      // ...unless slot 0 is where it began
        EXPECT_EQ(get_list_node(5, -1, -1)->node_id, 0u);
        EXPECT_EQ(get_list_node(5, -2, -1), nullptr);
        EXPECT_EQ(get_list_node(5, 6000, -1), nullptr);
    }
    EXPECT_EQ(get_list_total_node_by_mask(5, 1), 4);
    EXPECT_EQ(get_list_total_node_by_mask(5, 2), 0);
    int ids[3] = {0, 1, 4000};
    int deleted = -1;
    // A bit the nodes do not owe: found, nothing deleted.
    EXPECT_EQ(multil_call_delete_node_arr_from_list(5, 3, ids, &deleted, 2), 0);
    EXPECT_EQ(deleted, 0);
    EXPECT_EQ(get_list_total_node(5), 4);
    EXPECT_EQ(multil_call_delete_node_arr_from_list(5, 3, ids, &deleted, 1), 0);
    EXPECT_EQ(deleted, 2);
    EXPECT_EQ(get_list_total_node(5), 2);
    EXPECT_EQ(multil_call_delete_node_arr_from_list(5, 3, ids, &deleted, 0), 0);  // no bits
    int gone[1] = {0};
    EXPECT_EQ(multil_call_delete_node_arr_from_list(5, 1, gone, &deleted, 1), -1);
}

TEST_F(EventList, ThresholdIsTheBufferSizeAndOnlyPolicyTwoMakesItDue) {
    // Settings never loaded here: buffer size reads 50, the policy 0.
    fill(4, 1, 49);
    EXPECT_EQ(trigger_logic_full_threshold(4), -1);
    fill(4, 100, 1);
    EXPECT_EQ(trigger_logic_full_threshold(4), 0);
    EXPECT_EQ(is_list_can_report(4), -1);
    EXPECT_EQ(is_list_full(4), -1);
    SCOPED_TRACE("policy other than 2: inserting by policy replaces once full, never waits");
    for (int i = 50; i < NMS_EVENT_LIST_SLOTS; i++) {
        nms_event_info info = make_info(1, 1000 + static_cast<uint64_t>(i));
        ASSERT_EQ(insert_node_to_list_by_policy(4, &info), 0);
    }
    nms_event_info last = make_info(1, 99999);
    EXPECT_EQ(insert_node_to_list_by_policy(4, &last), 0);
    EXPECT_EQ(get_list_total_node(4), NMS_EVENT_LIST_SLOTS);
}

}  // namespace
