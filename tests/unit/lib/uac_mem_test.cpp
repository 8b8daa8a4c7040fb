// uac_mem_test.cpp - counting wrappers and the guarded allocator's layout, check and dump.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "uac_mem.h"

namespace {

uint32_t word_at(const unsigned char *p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

std::string hex(const unsigned char *p, size_t from, size_t to_excl) {
    std::string s;
    char buf[4];
    for (size_t i = from; i < to_excl; ++i) {
        snprintf(buf, sizeof buf, "%02x ", p[i]);
        s += buf;
    }
    return s;
}

std::string banner(const void *data, int size) {
    char buf[128];
    snprintf(buf, sizeof buf, "\033[31;49m[222Crrupte: ptr %p, size %d:\n\033[0m", data, size);
    return buf;
}

TEST(UacMem, CountingWrappersCountLiveBlocks) {
    uac_mem_count_enable();
    uac_mem_count_reset();

    SCOPED_TRACE("sizes and counts below 1 give null and count nothing");
    EXPECT_EQ(uac_malloc(0), nullptr);
    EXPECT_EQ(uac_malloc(-4), nullptr);
    EXPECT_EQ(uac_calloc(5, 0), nullptr);
    EXPECT_EQ(uac_calloc(0, 5), nullptr);
    EXPECT_EQ(uac_calloc(-1, 5), nullptr);
    EXPECT_EQ(uac_realloc(nullptr, 0), nullptr);
    EXPECT_EQ(uac_mem_count_get(), 0);

    void *a = uac_malloc(16);
    ASSERT_NE(a, nullptr);
    auto *b = static_cast<unsigned char *>(uac_calloc(4, 8));
    ASSERT_NE(b, nullptr);
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(b[i], 0) << "byte " << i;
    EXPECT_EQ(uac_mem_count_get(), 2);

    a = uac_realloc(a, 64);  // a resize is not a new block
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(uac_mem_count_get(), 2);
    void *c = uac_realloc(nullptr, 8);  // acts as uac_malloc
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(uac_mem_count_get(), 3);
    EXPECT_EQ(uac_realloc(c, 0), nullptr);  // frees
    EXPECT_EQ(uac_mem_count_get(), 2);

    uac_free(nullptr);
    EXPECT_EQ(uac_mem_count_get(), 2);
    uac_free(a);
    uac_free(b);
    EXPECT_EQ(uac_mem_count_get(), 0);

    // Counting off: the wrappers only forward.
    uac_mem_count_disable();
    void *d = uac_malloc(8);
    EXPECT_EQ(uac_mem_count_get(), 0);
    uac_free(d);
    EXPECT_EQ(uac_mem_count_get(), 0);
}

TEST(UacMem, GuardedBlockIsFramedAndFreedSilently) {
    auto *data = static_cast<unsigned char *>(mem_guard_alloc(10, 42, "make_node"));
    ASSERT_NE(data, nullptr);
    const unsigned char *block = data - 144;
    EXPECT_EQ(word_at(block), 10u);
    EXPECT_EQ(static_cast<int32_t>(word_at(block + 4)), 42);
    EXPECT_STREQ(reinterpret_cast<const char *>(block + 8), "make_node");
    EXPECT_EQ(word_at(block + 136), 0xAA55AA66u);
    EXPECT_EQ(word_at(block + 140), 0xAA55AA55u);
    EXPECT_EQ(word_at(data + 10), 0x55AA55AAu);
    EXPECT_EQ(word_at(data + 14), 0x66AA55AAu);
    memset(data, 0x5c, 10);  // the whole data area is the caller's

    testing::internal::CaptureStdout();
    mem_guard_free(data);
    mem_guard_free(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    // A zero-size block has its tail right after the header; long function names
    // are cut to 127 characters.
    void *empty = MEM_GUARD_ALLOC(0);
    ASSERT_NE(empty, nullptr);
    std::string name(200, 'f');
    data = static_cast<unsigned char *>(mem_guard_alloc(4, 1, name.c_str()));
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(data - 144 + 8)), name.substr(0, 127));
    EXPECT_EQ(word_at(data - 8), 0xAA55AA66u);
    testing::internal::CaptureStdout();
    mem_guard_free(empty);
    mem_guard_free(data);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// The block around data as it is now (the free clears it), and what freeing it prints.
std::string free_printed(unsigned char *data, uint32_t size, std::vector<unsigned char> *before) {
    before->assign(data - 144, data + size + 8);
    testing::internal::CaptureStdout();
    mem_guard_free(data);
    return testing::internal::GetCapturedStdout();
}

unsigned char *alloc(uint32_t size, int32_t line, const char *func) {
    return static_cast<unsigned char *>(mem_guard_alloc(size, line, func));
}

TEST(UacMem, DamagedBlockIsReportedWithItsDumpAndFreed) {
    std::vector<unsigned char> before;
    {
        SCOPED_TRACE("one byte too many, into the first tail mark: one run of size + 152");
        unsigned char *data = alloc(16, 7, "fill");
        ASSERT_NE(data, nullptr);
        memset(data, 0xab, 16 + 1);
        std::string out = free_printed(data, 16, &before);
        EXPECT_EQ(out, "func:fill line:7 \r\n" + banner(data, 16) +
                           hex(before.data(), 0, before.size()) + "\n");
    }
    {
        SCOPED_TRACE("1897 bytes: the first 2048 block bytes, then positions 1 to 2048");
        const uint32_t size = 1897;
        unsigned char *data = alloc(size, 3, "big");
        ASSERT_NE(data, nullptr);
        for (uint32_t i = 0; i < size; ++i)
            data[i] = static_cast<unsigned char>(i);
        data[-1] ^= 0xff;  // damage the second head mark
        std::string out = free_printed(data, size, &before);
        EXPECT_EQ(out, "func:big line:3 \r\n" + banner(data, size) + hex(before.data(), 0, 2048) +
                           hex(before.data(), size - 1896, size + 152) + "\n");
    }
    {
        SCOPED_TRACE("1896 bytes: still one run of size + 152");
        unsigned char *data = alloc(1896, 4, "edge");
        ASSERT_NE(data, nullptr);
        memset(data, 0, 1896);
        data[1896 + 7] = 0;  // last byte of the second tail mark
        std::string out = free_printed(data, 1896, &before);
        EXPECT_EQ((out.size() - out.find("\033[0m") - 4 - 1) / 3, 1896u + 152u);
    }
    {
        SCOPED_TRACE("the whole header overwritten: a bogus size never reads past the block");
        unsigned char *data = alloc(8, 9, "hdr");
        ASSERT_NE(data, nullptr);
        const uint32_t bogus = 100000;
        memcpy(data - 144, &bogus, sizeof bogus);
        memset(data - 8, 0x11, 8);
        std::string out = free_printed(data, 8, &before);
        EXPECT_EQ(out.rfind("func:hdr line:9 \r\n" + banner(data, 100000), 0), 0u) << out;
    }
}

TEST(UacMem, StatsPrintListsTheAllocatorFieldsInOrder) {
    testing::internal::CaptureStdout();
    uac_mem_stats_print();
    std::string out = testing::internal::GetCapturedStdout();
    const char *fields[] = {"arena",   "ordblks", "smblks",   "hblks",    "hblkhd",
                            "usmblks", "fsmblks", "uordblks", "fordblks", "keepcost"};
    size_t pos = 0;
    for (const char *f : fields) {
        size_t at = out.find(std::string(f) + " = ", pos);
        ASSERT_EQ(at, pos) << f;
        pos = out.find('\n', at) + 1;
    }
    EXPECT_EQ(pos, out.size());
}

}  // namespace
