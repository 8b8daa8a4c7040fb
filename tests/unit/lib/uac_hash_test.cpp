// Tests of the hash table: the string hash, duplicates, lookups, resize thresholds and
// a for-each that deletes.
#include "uac_hash.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Item {
    char key[32];
    int value;
};

uint32_t key_hash(const void *key) {
    auto *s = static_cast<const char *>(key);
    return uac_hash_string(s, static_cast<uint32_t>(strlen(s)), 0);
}
uint32_t item_hash(const void *obj) { return key_hash(static_cast<const Item *>(obj)->key); }
int32_t item_cmp(const void *obj, const void *key) {
    return strcmp(static_cast<const Item *>(obj)->key, static_cast<const char *>(key)) == 0;
}
// Sends every object to bucket 0, so chains are long and their order is visible.
uint32_t same_hash(const void *) { return 0; }

struct HashDestroy {
    void operator()(uac_hash *h) const noexcept { uac_hash_destroy(h); }
};
using HashPtr = std::unique_ptr<uac_hash, HashDestroy>;

std::vector<std::unique_ptr<Item>> make_items(int n) {
    std::vector<std::unique_ptr<Item>> items;
    for (int i = 0; i < n; ++i) {
        auto it = std::make_unique<Item>();
        snprintf(it->key, sizeof it->key, "param%d", i);
        it->value = i;
        items.push_back(std::move(it));
    }
    return items;
}

uint32_t hash_of(const char *s, uint32_t seed = 0) {
    return uac_hash_string(s, static_cast<uint32_t>(strlen(s)), seed);
}

TEST(UacHash, StringHashMatchesKnownValues) {
    EXPECT_EQ(uac_hash_string("", 0, 0), 0u);
    EXPECT_EQ(hash_of("a"), 98u);             // len 1 + byte 97, no mix after the tail
    EXPECT_EQ(hash_of("300"), 0x303036u);     // tail of three bytes only
    EXPECT_EQ(hash_of("abcd"), 0xb8142fa3u);  // one mixed word
    EXPECT_EQ(hash_of("abcdefg"), 0xe6d0ac66u);
    EXPECT_EQ(hash_of("86400"), 0x47ef3832u);
    EXPECT_EQ(hash_of("wifi_client_list"), 0xb4feb49bu);
    EXPECT_EQ(hash_of("\xff\xfe\x80"), 0x80ff02u);  // bytes are unsigned
    EXPECT_EQ(hash_of("abc", 7), 0x63626bu);        // the seed starts the sum
    EXPECT_EQ(uac_hash_string(nullptr, 5, 0), 0u);  // nothing to read
}

TEST(UacHash, RejectsBadArguments) {
    EXPECT_EQ(uac_hash_create(nullptr, key_hash, item_cmp, 0, 8), nullptr);
    EXPECT_EQ(uac_hash_create(item_hash, nullptr, item_cmp, 0, 8), nullptr);
    EXPECT_EQ(uac_hash_create_fixed(item_hash, key_hash, nullptr, 8), nullptr);
    EXPECT_EQ(uac_hash_create_fixed(item_hash, key_hash, item_cmp, 0), nullptr);
    EXPECT_EQ(uac_hash_count(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(uac_hash_add(nullptr, nullptr), -1);
    EXPECT_EQ(uac_hash_del(nullptr, nullptr), -1);
    EXPECT_EQ(uac_hash_find(nullptr, "x"), nullptr);
    uac_hash_foreach(nullptr, nullptr, nullptr);
    uac_hash_destroy(nullptr);

    HashPtr h(uac_hash_create_fixed(item_hash, key_hash, item_cmp, 8));
    ASSERT_TRUE(h);
    EXPECT_EQ(uac_hash_add(h.get(), nullptr), -1);
    EXPECT_EQ(uac_hash_find(h.get(), nullptr), nullptr);
    EXPECT_EQ(uac_hash_count(h.get()), 0u);
}

TEST(UacHash, DuplicatesAndEqualKeys) {
    HashPtr h(uac_hash_create_fixed(item_hash, key_hash, item_cmp, 60));
    Item a{"300", 1}, b{"300", 2}, c{"60", 3};

    EXPECT_EQ(uac_hash_add(h.get(), &a), 0);
    EXPECT_EQ(uac_hash_add(h.get(), &a), -4);   // this very object again
    EXPECT_EQ(uac_hash_count(h.get()), 1u);

    EXPECT_EQ(uac_hash_add(h.get(), &b), 0);    // equal key, other object: both stored
    EXPECT_EQ(uac_hash_count(h.get()), 2u);
    EXPECT_EQ(uac_hash_find(h.get(), "300"), &a);  // the older one wins
    EXPECT_EQ(uac_hash_find(h.get(), "60"), nullptr);

    EXPECT_EQ(uac_hash_del(h.get(), &c), -5);   // never added
    EXPECT_EQ(uac_hash_del(h.get(), &a), 0);
    EXPECT_EQ(uac_hash_del(h.get(), &a), -5);
    EXPECT_EQ(uac_hash_find(h.get(), "300"), &b);
    EXPECT_EQ(uac_hash_count(h.get()), 1u);
}

TEST(UacHash, LongChainKeepsInsertionOrder) {
    HashPtr h(uac_hash_create_fixed(same_hash, same_hash, item_cmp, 4));
    auto items = make_items(5);
    for (auto &it : items)
        ASSERT_EQ(uac_hash_add(h.get(), it.get()), 0);
    // chain: 0 -> 1 -> 2 -> 3 -> 4; delete from the middle
    EXPECT_EQ(uac_hash_del(h.get(), items[2].get()), 0);
    std::vector<int> order;
    uac_hash_foreach(
        h.get(),
        [](void *obj, void *arg) -> int32_t {
            static_cast<std::vector<int> *>(arg)->push_back(static_cast<Item *>(obj)->value);
            return 0;
        },
        &order);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 3, 4}));
    EXPECT_EQ(uac_hash_find(h.get(), "param4"), items[4].get());
    EXPECT_EQ(uac_hash_find(h.get(), "param2"), nullptr);
}

TEST(UacHash, ResizeThresholds) {
    {
        SCOPED_TRACE("grow: the 11th add into 10 buckets");
        HashPtr h(uac_hash_create(item_hash, key_hash, item_cmp, 1, 10));
        auto items = make_items(11);
        for (int i = 0; i < 10; ++i)
            ASSERT_EQ(uac_hash_add(h.get(), items[i].get()), 0);
        EXPECT_EQ(h->buckets, 10u);          // (9 * 100 + 100) / 10 = 100: not above
        ASSERT_EQ(uac_hash_add(h.get(), items[10].get()), 0);
        EXPECT_EQ(h->buckets, 23u);          // (10 * 100 + 100) / 10 = 110: 2 * 10 + 3
        EXPECT_EQ(uac_hash_count(h.get()), 11u);
        for (auto &it : items)
            EXPECT_EQ(uac_hash_find(h.get(), it->key), it.get()) << it->key;
    }
    {
        SCOPED_TRACE("shrink: 30 buckets down to 2 objects");
        HashPtr h(uac_hash_create(item_hash, key_hash, item_cmp, 1, 30));
        auto items = make_items(4);
        for (auto &it : items)
            ASSERT_EQ(uac_hash_add(h.get(), it.get()), 0);
        ASSERT_EQ(uac_hash_del(h.get(), items[0].get()), 0);
        EXPECT_EQ(h->buckets, 30u);          // 3 * 100 / 30 = 10
        ASSERT_EQ(uac_hash_del(h.get(), items[1].get()), 0);
        EXPECT_EQ(h->buckets, 14u);          // 2 * 100 / 30 = 6: 30 / 2 - 1
        EXPECT_EQ(uac_hash_find(h.get(), "param2"), items[2].get());
        EXPECT_EQ(uac_hash_find(h.get(), "param3"), items[3].get());
        // 14 buckets is below the shrink floor of 30: emptying keeps it.
        uac_hash_del(h.get(), items[2].get());
        uac_hash_del(h.get(), items[3].get());
        EXPECT_EQ(h->buckets, 14u);
        EXPECT_EQ(uac_hash_count(h.get()), 0u);
    }
    {
        SCOPED_TRACE("fixed tables never resize");
        HashPtr h(uac_hash_create(item_hash, key_hash, item_cmp, 2, 3));
        auto items = make_items(20);
        for (auto &it : items)
            ASSERT_EQ(uac_hash_add(h.get(), it.get()), 0);
        EXPECT_EQ(h->buckets, 3u);
    }
}

struct DeleteCtx {
    uac_hash *h;
    std::map<int, int> visits;
};

int32_t delete_visited(void *obj, void *arg) {
    auto *ctx = static_cast<DeleteCtx *>(arg);
    auto *it = static_cast<Item *>(obj);
    ctx->visits[it->value] += 1;
    EXPECT_EQ(uac_hash_del(ctx->h, it), 0);
    return 0;
}

TEST(UacHash, ForEachMayDeleteTheObjectItIsGiven) {
    for (uint32_t resize : {0u, 1u}) {
        SCOPED_TRACE(resize ? "with resize (the walk restarts after shrinking)" : "fixed");
        auto items = make_items(200);
        HashPtr h(uac_hash_create(item_hash, key_hash, item_cmp, resize, 7));
        for (auto &it : items)
            ASSERT_EQ(uac_hash_add(h.get(), it.get()), 0);
        if (resize) {
            EXPECT_GT(h->buckets, 100u);
        }
        DeleteCtx ctx{h.get(), {}};
        uac_hash_foreach(h.get(), delete_visited, &ctx);
        EXPECT_EQ(uac_hash_count(h.get()), 0u);
        ASSERT_EQ(ctx.visits.size(), items.size());
        for (auto &v : ctx.visits)
            EXPECT_EQ(v.second, 1) << "object " << v.first;
        uac_hash_foreach(h.get(), delete_visited, &ctx);  // empty: no call
        EXPECT_EQ(ctx.visits.size(), items.size());
    }
}

}  // namespace
