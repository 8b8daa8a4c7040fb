// Tests of the id allocator: order of ids, double frees, reserve, expand, compact, copy.
#include "uid_allocator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

namespace {

struct UidDestroy {
    void operator()(uid_allocator *a) const noexcept { uid_destroy(a); }
};
using UidPtr = std::unique_ptr<uid_allocator, UidDestroy>;

std::vector<int32_t> drain(uid_allocator *a) {
    std::vector<int32_t> ids;
    for (int32_t id; (id = uid_get(a)) >= 0;)
        ids.push_back(id);
    return ids;
}

// Checks the invariants: allocated equals the set bits, and the free ids sit once each
// in the ring from `get` onwards with every other entry taken.
void expect_consistent(const uid_allocator *a) {
    int32_t bits = 0;
    for (int32_t id = 0; id < a->size; ++id)
        bits += (a->bitmap[id / 32] >> (id % 32)) & 1;
    EXPECT_EQ(bits, a->allocated);
    std::vector<int> seen(a->size, 0);
    int32_t free_ids = a->size - a->allocated;
    for (int32_t n = 0, i = a->get; n < a->size; ++n, i = (i + 1) % a->size) {
        if (n < free_ids) {
            ASSERT_NE(a->ring[i], UID_TAKEN) << "hole in the free run at " << i;
            ASSERT_LT(a->ring[i], static_cast<uint32_t>(a->size));
            EXPECT_EQ(++seen[a->ring[i]], 1) << "id " << a->ring[i] << " twice";
            EXPECT_FALSE((a->bitmap[a->ring[i] / 32] >> (a->ring[i] % 32)) & 1);
        } else {
            EXPECT_EQ(a->ring[i], UID_TAKEN) << "stray entry at " << i;
        }
    }
}

TEST(UidAllocator, RejectsBadArguments) {
    EXPECT_EQ(uid_create(0), nullptr);
    EXPECT_EQ(uid_create(-5), nullptr);
    EXPECT_EQ(uid_get(nullptr), -1);
    uid_put(nullptr, 0);
    uid_reserve(nullptr, 0);
    uid_compact(nullptr);
    uid_destroy(nullptr);
    EXPECT_EQ(uid_expand(nullptr, 4), -1);
    UidPtr a(uid_create(4));
    EXPECT_EQ(uid_expand(a.get(), 0), -1);
    EXPECT_EQ(uid_expand(a.get(), -2), -1);
    uid_copy(a.get(), nullptr);
    uid_copy(nullptr, a.get());
}

TEST(UidAllocator, HandsOutInOrderAndReusesFreedIdsLast) {
    UidPtr a(uid_create(4));
    ASSERT_TRUE(a);
    EXPECT_EQ(drain(a.get()), (std::vector<int32_t>{0, 1, 2, 3}));
    EXPECT_EQ(uid_get(a.get()), -1);

    // Freed ids come back in the order they were freed.
    uid_put(a.get(), 2);
    uid_put(a.get(), 0);
    expect_consistent(a.get());
    EXPECT_EQ(drain(a.get()), (std::vector<int32_t>{2, 0}));

    // A freed id waits behind every id that is already free.
    UidPtr b(uid_create(6));
    EXPECT_EQ(uid_get(b.get()), 0);
    uid_put(b.get(), 0);
    EXPECT_EQ(drain(b.get()), (std::vector<int32_t>{1, 2, 3, 4, 5, 0}));
}

TEST(UidAllocator, DoubleAndForeignFreesChangeNothing) {
    UidPtr a(uid_create(4));
    uid_get(a.get());
    uid_get(a.get());
    uid_put(a.get(), 1);
    const int32_t allocated = a->allocated;
    uid_put(a.get(), 1);   // already free
    uid_put(a.get(), 3);   // never handed out
    uid_put(a.get(), 4);   // out of range
    uid_put(a.get(), -1);
    EXPECT_EQ(a->allocated, allocated);
    expect_consistent(a.get());  // no id entered the ring twice
    EXPECT_EQ(drain(a.get()), (std::vector<int32_t>{2, 3, 1}));
}

TEST(UidAllocator, ReserveTakesAnIdOutOfCirculation) {
    {
        SCOPED_TRACE("fresh allocator");
        UidPtr a(uid_create(5));
        uid_reserve(a.get(), 2);
        uid_reserve(a.get(), 2);   // already out: ignored
        uid_reserve(a.get(), 5);   // out of range: ignored
        EXPECT_EQ(a->allocated, 1);
        expect_consistent(a.get());
        EXPECT_EQ(drain(a.get()), (std::vector<int32_t>{0, 1, 3, 4}));
        uid_put(a.get(), 2);       // a reserved id can be given back
        EXPECT_EQ(uid_get(a.get()), 2);
    }
    {
        SCOPED_TRACE("after ids were taken and freed");
        UidPtr a(uid_create(4));
        drain(a.get());
        uid_put(a.get(), 3);
        uid_put(a.get(), 1);
        uid_put(a.get(), 0);
        uid_reserve(a.get(), 1);   // no longer at ring index 1
        expect_consistent(a.get());
        EXPECT_EQ(drain(a.get()), (std::vector<int32_t>{3, 0}));
        EXPECT_EQ(a->allocated, 4);
    }
}

TEST(UidAllocator, ExpandGrowsOnlyAFullAllocator) {
    UidPtr a(uid_create(4));
    uid_get(a.get());
    EXPECT_EQ(uid_expand(a.get(), 4), -1);   // ids still free
    EXPECT_EQ(a->size, 4);
    drain(a.get());

    ASSERT_EQ(uid_expand(a.get(), -1), 0);   // doubles
    EXPECT_EQ(a->size, 8);
    expect_consistent(a.get());
    EXPECT_EQ(uid_get(a.get()), 4);
    uid_put(a.get(), 1);                     // old ids are still tracked
    EXPECT_EQ(a->allocated, 4);
    EXPECT_EQ(drain(a.get()), (std::vector<int32_t>{5, 6, 7, 1}));

    // Growth across a bitmap word keeps the old bits.
    ASSERT_EQ(uid_expand(a.get(), 30), 0);
    EXPECT_EQ(a->size, 38);
    uid_put(a.get(), 7);
    uid_put(a.get(), 7);
    EXPECT_EQ(a->allocated, 7);
    expect_consistent(a.get());
    std::vector<int32_t> rest = drain(a.get());
    ASSERT_EQ(rest.size(), 31u);
    EXPECT_EQ(rest.front(), 8);
    EXPECT_EQ(rest.back(), 7);
}

TEST(UidAllocator, CompactPacksTakenEntriesToTheFront) {
    UidPtr a(uid_create(6));
    drain(a.get());
    uid_put(a.get(), 4);
    uid_put(a.get(), 1);
    uid_get(a.get());                        // 4 again; free run is now [1] at index 1
    uid_put(a.get(), 5);
    // ring before: [-, 1, 5, -, -, -]
    uid_compact(a.get());
    // after: the 4 taken entries first, then the free ids
    EXPECT_EQ(a->get, 4);
    EXPECT_EQ(a->put, 0);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(a->ring[i], UID_TAKEN);
    expect_consistent(a.get());
    std::vector<int32_t> ids = drain(a.get());
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<int32_t>{1, 5}));
    uid_put(a.get(), 0);                     // and the ring keeps working
    EXPECT_EQ(uid_get(a.get()), 0);

    UidPtr none(uid_create(3));              // nothing out: unchanged
    uid_compact(none.get());
    EXPECT_EQ(drain(none.get()), (std::vector<int32_t>{0, 1, 2}));
}

TEST(UidAllocator, CopyNeedsEqualSizes) {
    UidPtr src(uid_create(5));
    UidPtr dst(uid_create(5));
    UidPtr small(uid_create(4));
    uid_get(src.get());
    uid_get(src.get());
    uid_put(src.get(), 0);
    uid_copy(dst.get(), src.get());
    EXPECT_EQ(dst->allocated, 1);
    EXPECT_EQ(drain(dst.get()), drain(src.get()));

    testing::internal::CaptureStdout();
    uid_copy(small.get(), src.get());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "uid_dst's size is not equal to uid_src's size\n");
    EXPECT_EQ(small->allocated, 0);
}

TEST(UidAllocator, DumpShowsRingAndBitmap) {
    UidPtr a(uid_create(3));
    uid_get(a.get());
    testing::internal::CaptureStdout();
    uid_dump(a.get());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "=======================ID dump==============================\n"
              "put=0,get=1,allocated=1\n"
              "bitmap: 0x1 \n"
              "array data: -1 1 2 \n"
              "=======================Dump End=============================\n\n");
}

}  // namespace
