// uac_hash_bench.cpp - uac_hash_add and uac_hash_find on the daemon's fixed tables (60 and
// 256 buckets, filled to one object a bucket) against std::unordered_map over the same
// keys. Limits: add+del 2x; find 2.5x, because every lookup goes through two indirect
// callbacks (key hash, compare) and a strlen that the string_view map does inline.
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bench_ratio.h"
#include "uac_hash.h"

namespace {

struct Item {
    char key[64];
};

uint32_t key_hash(const void *key) {
    auto *s = static_cast<const char *>(key);
    return uac_hash_string(s, static_cast<uint32_t>(strlen(s)), 0);
}
uint32_t item_hash(const void *obj) { return key_hash(static_cast<const Item *>(obj)->key); }
int32_t item_cmp(const void *obj, const void *key) {
    return strcmp(static_cast<const Item *>(obj)->key, static_cast<const char *>(key)) == 0;
}

// `n` items keyed like the statistics registry's parameter types, plus one spare.
std::vector<Item> make_items(int64_t n) {
    std::vector<Item> items(static_cast<size_t>(n) + 1);
    for (size_t i = 0; i < items.size(); ++i)
        snprintf(items[i].key, sizeof items[i].key, "wireless_client_stats_%zu", i);
    return items;
}

void BM_UacHashFind(benchmark::State &state) {
    auto items = make_items(state.range(0));
    uac_hash *h = uac_hash_create_fixed(item_hash, key_hash, item_cmp,
                                        static_cast<uint32_t>(state.range(0)));
    for (size_t i = 0; i + 1 < items.size(); ++i)
        uac_hash_add(h, &items[i]);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(uac_hash_find(h, items[i].key));
        i = i + 2 < items.size() ? i + 1 : 0;
    }
    uac_hash_destroy(h);
}

// add of one more object into the full table, with the del that makes it repeatable.
void BM_UacHashAddDel(benchmark::State &state) {
    auto items = make_items(state.range(0));
    uac_hash *h = uac_hash_create_fixed(item_hash, key_hash, item_cmp,
                                        static_cast<uint32_t>(state.range(0)));
    for (size_t i = 0; i + 1 < items.size(); ++i)
        uac_hash_add(h, &items[i]);
    Item *spare = &items.back();
    for (auto _ : state) {
        benchmark::DoNotOptimize(uac_hash_add(h, spare));
        uac_hash_del(h, spare);
    }
    uac_hash_destroy(h);
}

using StdMap = std::unordered_map<std::string_view, Item *>;

StdMap make_map(std::vector<Item> &items, int64_t buckets) {
    StdMap m(static_cast<size_t>(buckets));
    for (size_t i = 0; i + 1 < items.size(); ++i)
        m.emplace(items[i].key, &items[i]);
    return m;
}

void BM_StdMapFind(benchmark::State &state) {
    auto items = make_items(state.range(0));
    StdMap m = make_map(items, state.range(0));
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(m.find(std::string_view(items[i].key)));
        i = i + 2 < items.size() ? i + 1 : 0;
    }
}

void BM_StdMapInsertErase(benchmark::State &state) {
    auto items = make_items(state.range(0));
    StdMap m = make_map(items, state.range(0));
    Item *spare = &items.back();
    for (auto _ : state) {
        benchmark::DoNotOptimize(m.emplace(spare->key, spare));
        m.erase(std::string_view(spare->key));
    }
}

}  // namespace

BENCHMARK(BM_StdMapFind)->Arg(60)->Arg(256);
BENCHMARK(BM_UacHashFind)->Arg(60)->Arg(256);
BENCHMARK(BM_StdMapInsertErase)->Arg(60)->Arg(256);
BENCHMARK(BM_UacHashAddDel)->Arg(60)->Arg(256);

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    nms_bench::RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    int over = reporter.print_ratios({
        {"BM_UacHashFind/60", "BM_StdMapFind/60", 2.5},
        {"BM_UacHashFind/256", "BM_StdMapFind/256", 2.5},
        {"BM_UacHashAddDel/60", "BM_StdMapInsertErase/60", 2.0},
        {"BM_UacHashAddDel/256", "BM_StdMapInsertErase/256", 2.0},
    });
    benchmark::Shutdown();
    return over == 0 ? 0 : 1;
}
