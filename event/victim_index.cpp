// victim_index.cpp - the victim of a replacing insertion, by the walk and by a tree of folds.

#include "victim_index.h"

namespace nms_event_victim {

namespace {

// A fold of a run of slots in walk order, in 16 bits: the slot of the earliest smallest
// nonzero stamp after the run's last node stamped 0 (kNone when there is none), and whether
// the run holds a node stamped 0 at all.
using Fold = uint16_t;
constexpr Fold kNone = 0x1FFF;   // no slot: slots are below 6000 < 8191
constexpr Fold kZero = 0x8000;
constexpr Fold kEmpty = kNone;   // a run with no node: the fold's identity

int next_slot(int slot) { return (slot + 1) % NMS_EVENT_LIST_SLOTS; }

}  // namespace

// The stamps are read from the index's own copy: the nodes lie all over the heap, and a
// choice and two updates an event compare some 80 of them.
inline Fold Index::leaf(nms_event_node *const *slots, int slot) const noexcept {
    if (slot >= NMS_EVENT_LIST_SLOTS || !slots[slot])
        return kEmpty;
    return time_[slot] == 0 ? (kZero | kNone) : static_cast<Fold>(slot);
}

// a, then b. A node stamped 0 in b cuts off a; otherwise the smaller stamp wins and on equal
// stamps the earlier run (a).
inline Fold Index::combine(Fold a, Fold b) const noexcept {
    if (b & kZero)
        return b;
    Fold x = a & kNone, y = b & kNone;
    Fold pick = x == kNone ? y : y == kNone ? x : time_[y] < time_[x] ? y : x;
    return static_cast<Fold>((a & kZero) | pick);
}

int by_walk(nms_event_node *const *slots, int cur_pos, int replace) noexcept {
    const nms_event_node *victim = nullptr;
    int slot = next_slot(cur_pos);
    // 6001 looks: the first slot is seen twice.
    for (int i = 0; i <= NMS_EVENT_LIST_SLOTS; i++, slot = next_slot(slot)) {
        const nms_event_node *node = slots[slot];
        if (!node || (replace != 1 && node->mask != 0))
            continue;
        if (!victim || victim->time == 0 || node->time < victim->time)
            victim = node;
    }
    if (!victim || victim->time == 0)
        return -1;
    return static_cast<int>(victim->node_id);
}

static_assert(NMS_EVENT_LIST_SLOTS <= Index::kLeaves && Index::kLeaves - 1 <= kNone,
              "every slot is a leaf, and a slot number fits beside the zero flag");

Index::Index(nms_event_node *const *slots) noexcept {
    for (int slot = 0; slot < NMS_EVENT_LIST_SLOTS; slot++)
        time_[slot] = slots[slot] ? slots[slot]->time : 0;
    fold_[0] = kEmpty;
    for (int k = kLeaves - 1; k >= 1; k--) {
        Fold l = 2 * k >= kLeaves ? leaf(slots, 2 * k - kLeaves) : fold_[2 * k];
        Fold r = 2 * k + 1 >= kLeaves ? leaf(slots, 2 * k + 1 - kLeaves) : fold_[2 * k + 1];
        fold_[k] = combine(l, r);
    }
}

void Index::changed(nms_event_node *const *slots, int slot) noexcept {
    if (slot < 0 || slot >= NMS_EVENT_LIST_SLOTS)
        return;
    time_[slot] = slots[slot] ? slots[slot]->time : 0;
    int k = (slot + kLeaves) / 2;
    // The lowest inner node has two leaves below it.
    Fold v = combine(leaf(slots, 2 * k - kLeaves), leaf(slots, 2 * k + 1 - kLeaves));
    for (;;) {
        // A fold that came out as before, and names a slot other than this one (whose node
        // and so whose stamp may be new), leaves every fold above it as it was.
        if (v == fold_[k] && (v & kNone) != slot)
            return;
        fold_[k] = v;
        if (k == 1)
            return;
        k /= 2;
        v = combine(fold_[2 * k], fold_[2 * k + 1]);
    }
}

int Index::choose(nms_event_node *const *slots, int cur_pos) const noexcept {
    auto node = [&](int k) { return k >= kLeaves ? leaf(slots, k - kLeaves) : fold_[k]; };
    // The fold of slots [lo, hi) in slot order.
    auto range = [&](int lo, int hi) {
        Fold left = kEmpty, right = kEmpty;
        for (int l = lo + kLeaves, r = hi + kLeaves; l < r; l /= 2, r /= 2) {
            if (l & 1)
                left = combine(left, node(l++));
            if (r & 1)
                right = combine(node(--r), right);
        }
        return combine(left, right);
    };
    const int first = next_slot(cur_pos);
    // With no node stamped 0 the choice is the smallest stamp, the first of equals from
    // `first` on. The root names the first of equals from slot 0: when that is at or after
    // `first`, no equal lies between them, and it is the choice (what a flood meets: the
    // oldest events follow the last insertion).
    const Fold root = fold_[1];
    if (!(root & kZero) && (root & kNone) != kNone && (root & kNone) >= first)
        return root & kNone;
    // The walk: first .. 5999, 0 .. first - 1, then first once more. The leaves past the last
    // slot are empty, so the first part is a suffix of the tree's leaves and the second a
    // prefix: each gathers folds on one side only.
    Fold all = combine(range(first, kLeaves), range(0, first));
    all = combine(all, leaf(slots, first));
    Fold victim = all & kNone;
    return victim == kNone ? -1 : victim;
}

}  // namespace nms_event_victim
