// The pool keeps one map per backup identity: one creator builds it while
// other threads wait, a failure reaches the waiters, and the last release
// deletes the map.
#include "maps/ZR_MapPool.h"

#include "maps/ZR_CMaps.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

MTF_DATE_TIME Date(uint8_t b) { return MTF_DATE_TIME{{b, b, b, b, b}}; }

TEST(MapPool, SameKeySharesOneMapAndOtherKeysOrTypesDoNot) {
    X_MapFile* a = g_MapPool.RetrieveOrCreate(1, 7, Date(1), Date(2));
    ASSERT_NE(a, nullptr);
    EXPECT_FALSE(a->GetIsCreated()) << "the first caller is the creator";
    EXPECT_EQ(a->GetMediaFamilyId(), 7u) << "the creator's map carries the key";
    g_MapPool.SetCreateSuccess(a);

    X_MapFile* b = g_MapPool.RetrieveOrCreate(1, 7, Date(1), Date(2));
    EXPECT_EQ(a, b);
    EXPECT_EQ(a->GetRefCount(), 2);
    EXPECT_EQ(g_MapPool.Retrieve(1, 7, Date(1), Date(3)), nullptr) << "another write date";
    EXPECT_EQ(g_MapPool.Retrieve(2, 7, Date(1), Date(2)), nullptr) << "another map type";
    EXPECT_EQ(g_MapPool.Create(9), nullptr);

    int before = static_cast<int>(g_MapPool);
    g_MapPool.Release(b);
    EXPECT_EQ(static_cast<int>(g_MapPool), before);
    g_MapPool.Release(a);
    EXPECT_EQ(static_cast<int>(g_MapPool), before - 1) << "the last release deletes";
    g_MapPool.Release(nullptr);
}

TEST(MapPool, WaiterSharesWhatTheCreatorBuilt) {
    X_MapFile* creator = g_MapPool.RetrieveOrCreate(1, 8, Date(1), Date(2));
    ASSERT_NE(creator, nullptr);
    std::atomic<X_MapFile*> waited{nullptr};
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        waited = g_MapPool.RetrieveOrCreate(1, 8, Date(1), Date(2));
        returned = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(returned) << "the waiter waits while the map is being built";
    g_MapPool.SetCreateSuccess(creator);
    waiter.join();
    EXPECT_EQ(waited.load(), creator);
    EXPECT_EQ(creator->GetRefCount(), 2);
    g_MapPool.Release(creator);
    g_MapPool.Release(creator);
    EXPECT_EQ(g_MapPool.Retrieve(1, 8, Date(1), Date(2)), nullptr);
}

TEST(MapPool, WaiterOfAFailedCreatorGetsNullAndALaterCallerCreatesAnew) {
    X_MapFile* creator = g_MapPool.RetrieveOrCreate(1, 9, Date(1), Date(2));
    ASSERT_NE(creator, nullptr);
    std::atomic<bool> gotNull{false};
    std::thread waiter([&] { gotNull = g_MapPool.RetrieveOrCreate(1, 9, Date(1), Date(2)) == nullptr; });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    g_MapPool.SetCreateFailure(creator);
    waiter.join();
    EXPECT_TRUE(gotNull);
    EXPECT_EQ(g_MapPool.Retrieve(1, 9, Date(1), Date(2)), nullptr) << "the failed map left the pool";

    X_MapFile* again = g_MapPool.RetrieveOrCreate(1, 9, Date(1), Date(2));
    ASSERT_NE(again, nullptr);
    EXPECT_FALSE(again->GetIsCreated());
    g_MapPool.SetCreateFailure(again);
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
