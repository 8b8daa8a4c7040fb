// The victim of a replacing insertion: the index must choose exactly what the walk chooses.
#include <random>
#include <vector>

#include "event_fixture.h"
#include "event_list.h"
#include "victim_index.h"

using namespace evtest;
namespace victim = nms_event_victim;

namespace {

// A list's slots built by hand: nodes in a vector, pointers in the slot array.
struct Slots {
    std::vector<nms_event_node> nodes = std::vector<nms_event_node>(NMS_EVENT_LIST_SLOTS);
    nms_event_node *slots[NMS_EVENT_LIST_SLOTS] = {};

    void put(int slot, uint64_t time, int32_t mask) {
        nms_event_node &n = nodes[static_cast<size_t>(slot)];
        n.node_id = static_cast<uint32_t>(slot);
        n.time = time;
        n.mask = mask;
        slots[slot] = &n;
    }
};

// Stamps from a handful of values, so that ties and stamps of 0 are common.
struct Draw {
    std::mt19937 rng;
    double fill, zeros;
    int values;

    uint64_t time() {
        if (std::uniform_real_distribution<double>(0, 1)(rng) < zeros)
            return 0;
        return 1 + std::uniform_int_distribution<uint64_t>(0, static_cast<uint64_t>(values))(rng);
    }
    bool occupied() { return std::uniform_real_distribution<double>(0, 1)(rng) < fill; }
    int slot() { return std::uniform_int_distribution<int>(0, NMS_EVENT_LIST_SLOTS - 1)(rng); }
    int mask() { return std::uniform_int_distribution<int>(0, 3)(rng); }  // 0 now and then
};

TEST(VictimIndex, ChoosesWhatTheWalkChoosesOnRandomLists) {
    // fill, share of stamps 0, distinct stamps: full lists of ties, sparse lists, lists where
    // stamps of 0 are everywhere or nowhere, and an empty one.
    const struct {
        double fill, zeros;
        int values;
    } shapes[] = {{1.0, 0.0, 3}, {1.0, 0.001, 2},  {1.0, 0.3, 5},    {0.5, 0.01, 1000},
                  {0.01, 0.2, 2}, {0.001, 0.5, 1}, {1.0, 1.0, 1},    {0.0, 0.0, 1},
                  {0.9, 0.0, 0},  {1.0, 0.0, 1 << 30}};
    std::mt19937 seed(20261125);
    for (const auto &shape : shapes) {
        Draw d{std::mt19937(seed()), shape.fill, shape.zeros, shape.values};
        Slots s;
        for (int i = 0; i < NMS_EVENT_LIST_SLOTS; i++)
            if (d.occupied())
                s.put(i, d.time(), d.mask());
        victim::Index index(s.slots);
        // cur_pos anywhere, -1 and the ends of the ring included; then the list changes a
        // slot at a time (as insertions and deletions change it) and the index follows.
        for (int round = 0; round < 300; round++) {
            for (int cur_pos : {-1, 0, NMS_EVENT_LIST_SLOTS - 2, NMS_EVENT_LIST_SLOTS - 1,
                                d.slot(), d.slot()}) {
                ASSERT_EQ(index.choose(s.slots, cur_pos), victim::by_walk(s.slots, cur_pos, 1))
                    << "fill " << shape.fill << " zeros " << shape.zeros << " values "
                    << shape.values << " round " << round << " cur_pos " << cur_pos;
            }
            int slot = d.slot();
            if (s.slots[slot] && !d.occupied())
                s.slots[slot] = nullptr;
            else
                s.put(slot, d.time(), d.mask());
            index.changed(s.slots, slot);
        }
    }
}

TEST(VictimIndex, TheWalksOwnRulesAtTheFirstSlot) {
    Slots s;
    s.put(0, 5, 1);
    s.put(1, 0, 1);
    s.put(2, 9, 1);
    victim::Index index(s.slots);
    const struct {
        int cur_pos, victim;
    } cases[] = {
        {1, 2},   // 9 ... 5, 0, 9: the 0 cuts off 5 and 9 is left
        {-1, 0},  // 5, 0, 9 ... 5: the first slot, seen again at the end, beats 9
        {5999, 0},
        {0, -1},  // 0, 9 ... 5, 0: the first slot is stamped 0 and looked at last
    };
    for (const auto &c : cases) {
        EXPECT_EQ(victim::by_walk(s.slots, c.cur_pos, 1), c.victim) << c.cur_pos;
        EXPECT_EQ(index.choose(s.slots, c.cur_pos), c.victim) << c.cur_pos;
    }
    s.put(0, 0, 1);
    index.changed(s.slots, 0);
    EXPECT_EQ(index.choose(s.slots, -1), -1);
    EXPECT_EQ(index.choose(s.slots, 1), 2);
    // Other replace values take only nodes whose mask is 0 (the walk decides those alone).
    s.put(0, 5, 1);
    s.put(2, 9, 0);
    EXPECT_EQ(victim::by_walk(s.slots, 1, 2), 2);
    EXPECT_EQ(victim::by_walk(s.slots, 1, 3), 2);
    s.put(2, 9, 1);
    EXPECT_EQ(victim::by_walk(s.slots, 1, 2), -1);
}

// The shape a flood gives a full list: stamps that grow in insertion order, in runs of equal
// stamps (events of the same millisecond), one of which crosses the end of the ring. Each
// victim is taken and its slot refilled with the newest stamp, as an insertion does.
TEST(VictimIndex, AFloodTakesTheOldestAfterTheLastInsertion) {
    for (int start : {0, 1, 2999, NMS_EVENT_LIST_SLOTS - 3}) {
        Slots s;
        uint64_t seq = 0;
        auto stamp = [&seq] { return 100 + seq++ / 7; };
        for (int i = 0; i < NMS_EVENT_LIST_SLOTS; i++)
            s.put((start + i) % NMS_EVENT_LIST_SLOTS, stamp(), 1);
        victim::Index index(s.slots);
        int cur_pos = (start + NMS_EVENT_LIST_SLOTS - 1) % NMS_EVENT_LIST_SLOTS;
        for (int round = 0; round < 3 * NMS_EVENT_LIST_SLOTS; round++) {
            int v = index.choose(s.slots, cur_pos);
            ASSERT_EQ(v, victim::by_walk(s.slots, cur_pos, 1)) << "start " << start << " round "
                                                               << round;
            ASSERT_EQ(v, (cur_pos + 1) % NMS_EVENT_LIST_SLOTS);
            s.slots[v] = nullptr;
            index.changed(s.slots, v);
            s.put(v, stamp(), 1);
            index.changed(s.slots, v);
            cur_pos = v;
        }
    }
}

class VictimOfAFullList : public EventTest {};

// Through the list itself: a flood into a full list with deletions in between, each victim
// compared with the walk over the list as it stood before the insertion.
TEST_F(VictimOfAFullList, EveryReplacementTakesTheWalksChoice) {
    const int list = 5;
    std::mt19937 rng(7);
    auto stamp = [&rng] { return static_cast<uint64_t>(rng() % 50); };  // ties and zeros
    for (int i = 0; i < NMS_EVENT_LIST_SLOTS; i++) {
        nms_event_info info = make_info(1, 1 + stamp());
        ASSERT_EQ(insert_node_to_list(list, &info, 0), 0);
    }
    // The list's slots and cur_pos as they stand, read through its walker.
    auto snapshot = [list](Slots &s, int &cur_pos) {
        NmsEventHold hold(gNmsEventNodeListLocker[list]);
        for (int i = 0; i < NMS_EVENT_LIST_SLOTS; i++)
            s.slots[i] = nullptr;
        // The walker goes round the ring: stop where it wraps.
        int last = -1;
        for (nms_event_node *n = get_list_node(list, -1, -1);
             n && static_cast<int>(n->node_id) > last; n = get_list_node(list, last, -1)) {
            last = static_cast<int>(n->node_id);
            s.put(last, n->time, n->mask);
        }
        nms_event_node *first = get_list_first_node(list);
        cur_pos = -1;  // the slot before the first candidate, when the list is full
        if (first)
            cur_pos = (static_cast<int>(first->node_id) + NMS_EVENT_LIST_SLOTS - 1) %
                      NMS_EVENT_LIST_SLOTS;
    };
    int32_t marker = 1000;
    for (int round = 0; round < 400; round++) {
        if (round % 50 == 49) {  // a sent batch: deletions anywhere, then the list fills again
            std::vector<int> gone;
            for (int i = 0; i < 20; i++)
                gone.push_back(static_cast<int>(rng() % NMS_EVENT_LIST_SLOTS));
            delete_node_arr_from_list_force(list, static_cast<int>(gone.size()), gone.data(),
                                            nullptr);
            while (get_list_total_node(list) < NMS_EVENT_LIST_SLOTS) {
                nms_event_info info = make_info(1, stamp());
                ASSERT_EQ(insert_node_to_list(list, &info, 0), 0);
            }
        }
        Slots s;
        int cur_pos = -1;
        snapshot(s, cur_pos);
        int expect = victim::by_walk(s.slots, cur_pos, 1);
        nms_event_info info = make_info(++marker, stamp());
        if (expect < 0) {
            EXPECT_EQ(insert_node_to_list(list, &info, 1), -1);
            continue;
        }
        ASSERT_EQ(insert_node_to_list(list, &info, 1), 0);
        NmsEventHold hold(gNmsEventNodeListLocker[list]);
        nms_event_node *n = get_list_node(list, expect - 1, -1);
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(n->node_id, static_cast<uint32_t>(expect)) << "round " << round;
        EXPECT_EQ(n->id, marker) << "round " << round;
    }
}

}  // namespace
