// uac_list_test.cpp - the intrusive list: linking at every position, removing, moving.
#include <gtest/gtest.h>

#include <string>

#include "uac_list.h"

namespace {

struct Item {
    char tag;
    uac_list_entry entry;
};

char tag_of(uac_list_entry *e) { return uac_container_of(e, Item, entry)->tag; }

// The list's tags front to back, checked against the walk back to front and the count.
std::string shape(uac_list_head *head) {
    std::string fwd, back;
    for (uac_list_entry *e = uac_list_first(head); e; e = uac_list_next(e)) {
        EXPECT_EQ(e->list, head);
        fwd += tag_of(e);
    }
    for (uac_list_entry *e = uac_list_last(head); e; e = uac_list_prev(e))
        back.insert(back.begin(), tag_of(e));
    EXPECT_EQ(fwd, back) << "forward and backward walks differ";
    EXPECT_EQ(uac_list_size(head), fwd.size());
    return fwd;
}

TEST(UacList, LinksAtEveryPosition) {
    uac_list_head head;
    uac_list_init(&head);
    EXPECT_EQ(uac_list_first(&head), nullptr);
    EXPECT_EQ(uac_list_last(&head), nullptr);
    EXPECT_EQ(uac_list_size(&head), 0u);

    Item a{'a', {}}, b{'b', {}}, c{'c', {}}, d{'d', {}}, e{'e', {}};
    uac_list_insert_last(&head, &a.entry);
    uac_list_insert_last(&head, &b.entry);  // [head] -> a -> b
    EXPECT_EQ(shape(&head), "ab");
    uac_list_insert_first(&head, &c.entry);  // [head] -> c -> a -> b
    EXPECT_EQ(shape(&head), "cab");
    uac_list_insert_before(&c.entry, &d.entry);  // before the first: d -> c -> a -> b
    EXPECT_EQ(shape(&head), "dcab");
    uac_list_insert_after(&b.entry, &e.entry);  // after the last: d -> c -> a -> b -> e
    EXPECT_EQ(shape(&head), "dcabe");
    EXPECT_EQ(uac_list_first(&head), &d.entry);
    EXPECT_EQ(uac_list_last(&head), &e.entry);
    EXPECT_EQ(uac_list_next(&e.entry), nullptr);
    EXPECT_EQ(uac_list_prev(&d.entry), nullptr);

    // In the middle: d -> c -> x -> a -> y -> b -> e
    Item x{'x', {}}, y{'y', {}};
    uac_list_insert_before(&a.entry, &x.entry);
    uac_list_insert_after(&a.entry, &y.entry);
    EXPECT_EQ(shape(&head), "dcxaybe");
}

TEST(UacList, RemoveLeavesTheEntryReinsertable) {
    uac_list_head head;
    uac_list_init(&head);
    Item a{'a', {}}, b{'b', {}}, c{'c', {}};
    for (Item *i : {&a, &b, &c})
        uac_list_insert_last(&head, &i->entry);

    uac_list_remove(&b.entry);  // a -> c
    EXPECT_EQ(shape(&head), "ac");
    EXPECT_EQ(b.entry.next, nullptr);
    EXPECT_EQ(b.entry.prev, nullptr);
    EXPECT_EQ(b.entry.list, nullptr);
    uac_list_remove(&b.entry);  // not in a list: nothing happens
    EXPECT_EQ(shape(&head), "ac");

    uac_list_remove(&a.entry);  // first
    uac_list_remove(&c.entry);  // last, leaves the list empty
    EXPECT_EQ(shape(&head), "");
    EXPECT_EQ(uac_list_first(&head), nullptr);

    uac_list_insert_first(&head, &b.entry);
    uac_list_insert_after(&b.entry, &a.entry);
    EXPECT_EQ(shape(&head), "ba");
}

TEST(UacList, MoveAppendsTheSourceInOrder) {
    uac_list_head dst, src;
    uac_list_init(&dst);
    uac_list_init(&src);
    Item a{'a', {}}, x{'x', {}}, y{'y', {}};
    uac_list_insert_last(&dst, &a.entry);

    uac_list_move(&dst, &src);  // empty source: nothing changes
    EXPECT_EQ(shape(&dst), "a");

    uac_list_insert_last(&src, &x.entry);
    uac_list_insert_last(&src, &y.entry);
    uac_list_move(&dst, &src);  // before: [dst] a, [src] x y   after: [dst] a x y, [src] empty
    EXPECT_EQ(shape(&dst), "axy");
    EXPECT_EQ(shape(&src), "");
    EXPECT_EQ(uac_list_first(&src), nullptr);

    uac_list_move(&dst, &dst);  // onto itself: unchanged, and it returns
    EXPECT_EQ(shape(&dst), "axy");
}

TEST(UacList, BadArgumentsPrintTheirLineAndChangeNothing) {
    uac_list_head head;
    uac_list_init(&head);
    Item a{'a', {}}, loose{'l', {}};
    uac_list_insert_last(&head, &a.entry);

    testing::internal::CaptureStdout();
    uac_list_init(nullptr);
    EXPECT_EQ(uac_list_first(nullptr), nullptr);
    EXPECT_EQ(uac_list_last(nullptr), nullptr);
    EXPECT_EQ(uac_list_next(nullptr), nullptr);
    EXPECT_EQ(uac_list_prev(nullptr), nullptr);
    uac_list_insert_first(nullptr, &loose.entry);
    uac_list_insert_last(&head, nullptr);
    uac_list_insert_before(nullptr, &loose.entry);
    uac_list_insert_after(&a.entry, nullptr);
    uac_list_insert_after(&loose.entry, &a.entry);  // an anchor in no list
    uac_list_remove(nullptr);
    EXPECT_EQ(uac_list_size(nullptr), 0u);
    uac_list_move(nullptr, &head);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out,
              "[UAC_LIST_ERROR]uac_list_init()/line 79 : Input head invalid.\n"
              "[UAC_LIST_ERROR]uac_list_first()/line 174 : Input head invalid.\n"
              "[UAC_LIST_ERROR]uac_list_last()/line 200 : Input head invalid.\n"
              "[UAC_LIST_ERROR]uac_list_next()/line 227 : Input entry invalid.\n"
              "[UAC_LIST_ERROR]uac_list_prev()/line 253 : Input entry invalid.\n"
              "[UAC_LIST_ERROR]uac_list_insert_first()/line 278 : Input head or entry invalid.\n"
              "[UAC_LIST_ERROR]uac_list_insert_last()/line 314 : Input head or entry invalid.\n"
              "[UAC_LIST_ERROR]uac_list_insert_before()/line 352 : Input inlist or entry invalid.\n"
              "[UAC_LIST_ERROR]uac_list_insert_after()/line 392 : Input inlist or entry invalid.\n"
              "[UAC_LIST_ERROR]uac_list_insert_after()/line 392 : Input inlist or entry invalid.\n"
              "[UAC_LIST_ERROR]uac_list_remove()/line 429 : Input entry invalid.\n"
              "[UAC_LIST_ERROR]uac_list_size()/line 463 : Input head invalid.\n"
              "[UAC_LIST_ERROR]uac_list_move()/line 491 : Input inlist or outlist invalid.\n");
    EXPECT_EQ(shape(&head), "a");
    EXPECT_EQ(loose.entry.list, nullptr);

    // With the debug switch off the same calls are silent.
    uac_list_debug_set(0);
    testing::internal::CaptureStdout();
    uac_list_init(nullptr);
    uac_list_remove(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    uac_list_debug_set(1);
    EXPECT_EQ(uac_list_debug_get(), 1);
}

}  // namespace
