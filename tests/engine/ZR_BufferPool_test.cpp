// The block buffers of a hydration thread: which slot a request takes, what
// lives outside the pool, and the completion header as the library and the
// embedded driver's writer both handle it.
#include "engine/ZR_BufferPool.h"

#include <gtest/gtest.h>

#include "filterdriver/ZR_HydrationWriter.h"

namespace {

constexpr uint32_t kMargin = 0x40000;

TEST(BufferPool, ReusesFirstFitThenEmptySlotsThenReplacesTooSmallOnes) {
    std::atomic<int32_t> iOverflows{0};
    ZR_BufferPool pool(2, &iOverflows);
    void* a = pool.Get(0x1000);
    ASSERT_NE(a, nullptr);
    pool.Free(a);
    EXPECT_EQ(pool.Get(0x1000 + kMargin), a) << "the margin lets a larger block fit";
    void* b = pool.Get(0x100000);  // a is in use: the empty slot
    ASSERT_NE(b, nullptr);
    EXPECT_NE(b, a);
    EXPECT_EQ(pool.InUse(), 2);
    void* outside = pool.Get(0x2000);  // every slot in use: a buffer of its own
    ASSERT_NE(outside, nullptr);
    EXPECT_EQ(iOverflows, 1);
    static_cast<uint8_t*>(outside)[0x1FFF] = 1;  // the whole request is usable
    pool.Free(outside);                          // freed, not kept
    EXPECT_EQ(pool.InUse(), 2);
    pool.Free(a);
    void* c = pool.Get(0x200000);  // a's slot is free but too small: replaced
    ASSERT_NE(c, nullptr);
    static_cast<uint8_t*>(c)[0x200000 + kMargin - 1] = 1;
    EXPECT_EQ(pool.InUse(), 2);
    EXPECT_EQ(iOverflows, 1);
    pool.Free(nullptr);
}

// The driver doubles iCompleted and flips its toggle for every message it
// finished; the block is finished when it has done so for every message the
// library posted, also past 32 messages, where the counts wrap to 0.
TEST(BufferPool, TheCompletionHeaderTellsWhenTheDriverHasFinishedEveryMessage) {
    std::atomic<int32_t> iOverflows{0};
    ZR_BufferPool pool(1, &iOverflows);
    void* p = pool.Get(0x1000);
    ASSERT_NE(p, nullptr);
    ZR_BufferPool::ResetHeader(p);
    EXPECT_TRUE(ZR_BufferPool::IsFinished(p));
    for (int iMessages : {1, 2, 31, 32, 33}) {
        SCOPED_TRACE(iMessages);
        ZR_BufferPool::ResetHeader(p);
        for (int i = 0; i < iMessages; ++i) ZR_BufferPool::NotePosted(p);
        for (int i = 0; i < iMessages; ++i) {
            EXPECT_FALSE(ZR_BufferPool::IsFinished(p)) << i << " finished";
            ZR_HydrationWriter::SignalFinished(ZR_BufferPool::HeaderOf(p));
        }
        EXPECT_TRUE(ZR_BufferPool::IsFinished(p));
    }
}

}  // namespace
