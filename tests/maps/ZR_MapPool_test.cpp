// The pool keeps one map per backup identity and type: one creator builds it
// while other threads wait, the outcome reaches the waiters, and the last
// release deletes the map.
#include "maps/ZR_MapPool.h"

#include "maps/ZR_BMaps.h"
#include "maps/ZR_CMaps.h"
#include "maps/ZR_EMaps.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

MTF_DATE_TIME Date(uint8_t b) { return MTF_DATE_TIME{{b, b, b, b, b}}; }

TEST(MapPool, SameKeySharesOneMapOfTheClassOfItsTypeAndOtherKeysOrTypesDoNot) {
    X_MapFile* a = g_MapPool.RetrieveOrCreate(1, 7, Date(1), Date(2));
    ASSERT_NE(a, nullptr);
    EXPECT_FALSE(a->GetIsCreated()) << "the first caller is the creator";
    EXPECT_EQ(a->GetMediaFamilyId(), 7u) << "the creator's map carries the key";
    X_MapFile* pExtent = g_MapPool.RetrieveOrCreate(2, 7, Date(1), Date(2));
    X_MapFile* pBackup = g_MapPool.RetrieveOrCreate(3, 7, Date(1), Date(2));
    EXPECT_NE(dynamic_cast<ZR_CMaps*>(a), nullptr);
    EXPECT_NE(dynamic_cast<ZR_EMaps*>(pExtent), nullptr);
    EXPECT_NE(dynamic_cast<ZR_BMaps*>(pBackup), nullptr);
    for (X_MapFile* p : {a, pExtent, pBackup})
        g_MapPool.SetCreateSuccess(p);

    X_MapFile* b = g_MapPool.RetrieveOrCreate(1, 7, Date(1), Date(2));
    EXPECT_EQ(a, b);
    EXPECT_EQ(a->GetRefCount(), 2);
    EXPECT_EQ(g_MapPool.Retrieve(1, 7, Date(1), Date(3)), nullptr) << "another write date";
    EXPECT_EQ(g_MapPool.Retrieve(1, 8, Date(1), Date(2)), nullptr) << "another family";
    EXPECT_EQ(g_MapPool.Create(9), nullptr);

    const int iBefore = static_cast<int>(g_MapPool);
    g_MapPool.Release(b);
    EXPECT_EQ(static_cast<int>(g_MapPool), iBefore);
    for (X_MapFile* p : {a, pExtent, pBackup})
        g_MapPool.Release(p);
    EXPECT_EQ(static_cast<int>(g_MapPool), iBefore - 3) << "the last release deletes";
    EXPECT_EQ(g_MapPool.Retrieve(2, 7, Date(1), Date(2)), nullptr);
    g_MapPool.Release(nullptr);
}

// The waiter's reference shows under the pool's lock only once it has let
// go of the lock to wait, so the creator finishes while the waiter waits.
// A waiter of a success gets the built map; of a failure, null, and the map
// leaves the pool for a later caller to create anew.
TEST(MapPool, AWaiterGetsWhatTheCreatorBuiltOrNothingWhenItFailed) {
    for (bool bSuccess : {true, false}) {
        SCOPED_TRACE(bSuccess ? "success" : "failure");
        X_MapFile* creator = g_MapPool.RetrieveOrCreate(1, 8, Date(1), Date(2));
        ASSERT_NE(creator, nullptr);
        std::atomic<X_MapFile*> waited{creator};
        std::atomic<bool> bCreatedWhenReturned{false};
        std::thread waiter([&] {
            X_MapFile* p = g_MapPool.RetrieveOrCreate(1, 8, Date(1), Date(2));
            bCreatedWhenReturned = p && p->GetIsCreated();
            waited = p;
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        bool bWaiting = false;
        while (!bWaiting && std::chrono::steady_clock::now() < deadline) {
            g_MapPool.Lock();
            bWaiting = creator->GetRefCount() == 2;
            g_MapPool.Unlock();
            std::this_thread::yield();
        }
        EXPECT_TRUE(bWaiting) << "the waiter took a reference to the map under construction";
        bSuccess ? g_MapPool.SetCreateSuccess(creator) : g_MapPool.SetCreateFailure(creator);
        waiter.join();
        if (!bSuccess) {
            EXPECT_EQ(waited.load(), nullptr);
            EXPECT_EQ(g_MapPool.Retrieve(1, 8, Date(1), Date(2)), nullptr) << "the failed map left the pool";
            X_MapFile* again = g_MapPool.RetrieveOrCreate(1, 8, Date(1), Date(2));
            ASSERT_NE(again, nullptr);
            EXPECT_FALSE(again->GetIsCreated()) << "a later caller creates it anew";
            g_MapPool.SetCreateFailure(again);
            continue;
        }
        EXPECT_EQ(waited.load(), creator);
        EXPECT_TRUE(bCreatedWhenReturned) << "the waiter returned only once the map was built";
        g_MapPool.Release(creator);
        g_MapPool.Release(creator);
        EXPECT_EQ(g_MapPool.Retrieve(1, 8, Date(1), Date(2)), nullptr);
    }
}

TEST(MapPool, FindsMapsByFileNameInAnyCase) {
    X_MapFile* map = g_MapPool.RetrieveOrCreate(1, 10, Date(1), Date(2));
    ASSERT_NE(map, nullptr);
    map->SetBackupName(L"/tmp/Some.bak");
    ASSERT_TRUE(map->SetMapLocale(X_MAPLOCALE_SATELLITE));
    EXPECT_GE(g_MapPool.Find(L"/TMP/some.BAK.0.XCM"), 0);
    EXPECT_EQ(g_MapPool.Find(L"/tmp/other.bak.0.xcm"), -1);
    g_MapPool.SetCreateFailure(map);
}

}  // namespace
