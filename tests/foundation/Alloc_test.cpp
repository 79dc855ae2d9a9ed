#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "foundation/Alloc.h"

TEST(AllocTest, CountsSuccessfulAllocationsAndRealFrees) {
    long iAllocs = g_iTotalAllocs, iFrees = g_iTotalFrees;
    void* p = Malloc(16);
    unsigned cb = 0;
    auto* q = static_cast<unsigned char*>(Calloc(4, 8, &cb));
    EXPECT_EQ(cb, 32u);
    EXPECT_EQ(std::count(q, q + 32, 0), 32) << "zeroed";
    EXPECT_EQ(g_iTotalAllocs - iAllocs, 2);
    Free(&p);
    EXPECT_EQ(p, nullptr);
    Free(&p);  // null: nothing to free, nothing counted
    Free(&q, &cb);
    EXPECT_EQ(cb, 0u);
    EXPECT_EQ(g_iTotalFrees - iFrees, 2);
}

TEST(AllocTest, ReallocGrowsByAQuarterWithACapacityAndIsExactWithout) {
    unsigned cbAlloc = 0;
    void* p = Realloc(nullptr, 400, &cbAlloc);
    EXPECT_EQ(cbAlloc, 500u);
    std::memset(p, 0xAB, 400);
    EXPECT_EQ(Realloc(p, 480, &cbAlloc), p) << "a block that is big enough comes back as it is";
    EXPECT_EQ(Realloc(p, 10, &cbAlloc), p);
    EXPECT_EQ(cbAlloc, 500u);
    p = Realloc(p, 501, &cbAlloc);
    EXPECT_EQ(cbAlloc, 626u);
    EXPECT_EQ(static_cast<unsigned char*>(p)[399], 0xAB);
    p = Realloc(p, 64, nullptr);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Realloc(p, 0, nullptr), nullptr) << "0 frees";
}

TEST(AllocTest, FailuresThrowBadAllocWithTheAskedSize) {
    try {
        Calloc(-1, 8, nullptr);
        FAIL() << "no exception";
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "Failed to allocate 4294967288 bytes.");
    }
    // A product beyond 32 bits is refused, never wrapped into a small block.
    EXPECT_THROW(Calloc(0x10000, 0x10001, nullptr), BadAlloc);
}
