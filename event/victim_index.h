// victim_index.h - which node a replacing insertion into a full list removes, without walking
// the 6000 slots for every new event.
//
// The walk that defines the choice looks at 6001 slots from cur_pos + 1 (the first slot twice)
// and keeps, among the nodes that qualify, the one with the smallest time stamp, the earliest
// on ties; a kept node stamped 0 gives way to whatever qualifying node comes next. Folded over
// the walk that means: a node stamped 0 cuts off everything before it, and the victim is the
// earliest smallest stamp after the last such cut, or none when nothing nonzero follows it.
// That fold is associative, so a tree over the slots whose every inner node keeps the fold of
// its range answers in O(log n) and is kept up to date in O(log n) per changed slot.
//
// The index covers replace 1 (every node qualifies). Other replace values qualify a node by
// its mask, which changes without the slot changing; they keep the walk (only the debug shell
// passes them).
#pragma once

#include <cstdint>

#include "event_list.h"

namespace nms_event_victim {

// The walk itself: the reference the index must agree with, and the choice for replace values
// other than 1. Returns the victim's slot or -1.
int by_walk(nms_event_node *const *slots, int cur_pos, int replace) noexcept;

class Index {
public:
    // Built from the slots as they stand: O(slots).
    explicit Index(nms_event_node *const *slots) noexcept;
    // The slot has been filled or emptied (its node's time never changes while it is stored).
    void changed(nms_event_node *const *slots, int slot) noexcept;
    // The choice of by_walk(slots, cur_pos, 1).
    int choose(nms_event_node *const *slots, int cur_pos) const noexcept;

    // Inner nodes of a tree over 8192 leaves, 2 bytes each, and a copy of the 6000 stamps:
    // 64 KiB a list that uses it.
    static constexpr int kLeaves = 8192;

private:
    uint16_t leaf(nms_event_node *const *slots, int slot) const noexcept;
    uint16_t combine(uint16_t a, uint16_t b) const noexcept;

    uint16_t fold_[kLeaves];  // [1, kLeaves): inner nodes; leaves are read from the slots
    uint64_t time_[NMS_EVENT_LIST_SLOTS];  // the stamp of each slot's node (0 when empty)
};

}  // namespace nms_event_victim
