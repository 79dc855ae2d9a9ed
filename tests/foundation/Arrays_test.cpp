#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "diag/Trace.h"
#include "foundation/A.h"
#include "foundation/AA.h"
#include "foundation/AP.h"
#include "MemFile.h"
#include "TestSupport.h"

namespace {

// Counts its live instances, so tests can see which entries an array destroyed.
struct Tracked {
    static std::atomic<int> ms_iLive;  // arrays are filled from several threads
    int m_iValue;
    explicit Tracked(int i) : m_iValue(i) { ms_iLive++; }
    ~Tracked() { ms_iLive--; }
};
std::atomic<int> Tracked::ms_iLive = 0;

#pragma pack(push, 1)
struct RecHeader {
    uint32_t m_type;
    uint32_t m_size;
};
// A variable-size record: header, a fixed field, then a text of any length.
struct Rec : RecHeader {
    uint32_t m_iId;
    char m_szText[1];
};
#pragma pack(pop)

// An element with its own serialiser: an array of numbers with a tag.
struct Tagged : A<uint32_t> {
    uint32_t m_iTag = 0;
    Tagged() = default;
    Tagged(Tagged&&) noexcept = default;
    template <class File>
    bool SerializeWrite(File* pFile) {
        return pFile->Write(&m_iTag, 4, 1) && A<uint32_t>::SerializeWrite(pFile);
    }
    template <class File>
    bool SerializeRead(File* pFile) {
        return pFile->Read(&m_iTag, 4, 1) && A<uint32_t>::SerializeRead(pFile);
    }
};

Rec* MakeRec(uint32_t iId, const char* szText) {
    uint32_t cb = uint32_t(sizeof(RecHeader) + sizeof(uint32_t) + std::strlen(szText) + 1);
    Rec* p = static_cast<Rec*>(Malloc(cb));
    p->m_type = 0x4e494653;
    p->m_size = cb;
    p->m_iId = iId;
    std::strcpy(p->m_szText, szText);
    return p;
}

}  // namespace

template <>
struct ZR_RecordTraits<Rec> : ZR_RecordHeaderSize<Rec> {};

// ---- AP: ownership ----------------------------------------------------------

TEST(APTest, EntriesAreOwnedThroughSetInsertRemoveAndClean) {
    Tracked::ms_iLive = 0;
    std::unique_ptr<Tracked> kept;
    {
        AP<Tracked> ap;
        ap.Set(1);  // grows with null entries
        ASSERT_EQ(int(ap), 2);
        EXPECT_EQ(ap(1), nullptr);
        ap.Set(1, new Tracked(1));
        ap.Set(1, new Tracked(2));  // replaces, destroying the old one
        EXPECT_EQ(Tracked::ms_iLive, 1);
        ap.Clear(1);
        EXPECT_EQ(ap(1), nullptr);
        EXPECT_EQ(Tracked::ms_iLive, 0);
        ap.Clean();

        ap.Append(new Tracked(2));
        ap.Prepend(new Tracked(0));
        ap.Insert(1, new Tracked(1));
        ap.Append(new Tracked(3));
        for (int i = 0; i < 4; i++) EXPECT_EQ(ap(i)->m_iValue, i);
        ap.Swap(0, 3);
        EXPECT_EQ(ap(0)->m_iValue, 3);
        EXPECT_EQ(ap(3)->m_iValue, 0);
        kept.reset(ap(1));
        ap.Remove(1, false);
        EXPECT_EQ(Tracked::ms_iLive, 4) << "Remove without destroy leaves the object alive";
        EXPECT_EQ(ap(1)->m_iValue, 2);
        ap.Remove(0, true);
        EXPECT_EQ(Tracked::ms_iLive, 3);
        ap.Remove(9, true);  // outside: nothing happens
        EXPECT_EQ(int(ap), 2);
    }
    EXPECT_EQ(Tracked::ms_iLive, 1) << "the destructor destroys the entries";
}

TEST(APTest, ConcurrentAppendsAreAllKept) {
    AP<Tracked> ap;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&ap, t] {
            for (int i = 0; i < 500; i++) ap.Append(new Tracked(t * 500 + i));
        });
    for (auto& th : threads) th.join();
    ASSERT_EQ(int(ap), 2000);
    std::vector<bool> seen(2000, false);
    for (int i = 0; i < 2000; i++) seen[size_t(ap(i)->m_iValue)] = true;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 2000);
}

// ---- A and AA: values, growth, bounds ----------------------------------------

TEST(ATest, SetClearInsertAndSwap) {
    A<int> a;
    a.Set(2, 7);
    a.Set(5, 9);
    ASSERT_EQ(int(a), 6);
    EXPECT_EQ(a(4), 0) << "new elements are zero";
    a.Insert(0, 5);
    a.Swap(0, 3);
    EXPECT_EQ(a(0), 7);
    EXPECT_EQ(a(3), 5);
    a.Clear(0);
    EXPECT_EQ(a(0), 0);
    EXPECT_EQ(int(a), 7);

    AA<uint64_t> aa;
    aa.Set(1, 4);  // empty rows and zeroed elements
    ASSERT_EQ(int(aa), 2);
    EXPECT_EQ(aa.Count(0), 0);
    EXPECT_EQ(aa(1, 4), 0u);
    aa.Append(0, 11);
    aa.Append(0, 12);
    EXPECT_EQ(aa(0, 1), 12u);
    EXPECT_FALSE(aa.Exists(0, 2));
    EXPECT_FALSE(aa.Exists(2, 0));
}

// A bad index switches the trace to file mode, traces the reason, throws a
// text, and lets the array's lock go on the way out.
TEST(ArrayBounds, BadIndexIsABoundFailure) {
    zrtest::TraceToTemp trace;
    A<int> a;
    a.Append(1);
    AA<int> aa;
    aa.Set(0, 1);
    AP<wchar_t> ap;
    ap.Append(_wcsdup(L"x"));
    auto thrown = [](auto fn) -> std::string {
        try {
            fn();
        } catch (const char* sz) {
            return sz;
        }
        return "no exception";
    };
    EXPECT_EQ(thrown([&] { a(1); }), "bad template A operator ()");
    EXPECT_EQ(thrown([&] { a(-1); }), "bad template A operator ()");
    EXPECT_EQ(thrown([&] { aa(1, 0); }), "bad AA::operator()");
    EXPECT_EQ(thrown([&] { aa(0, 2); }), "bad AA::operator()");
    EXPECT_EQ(thrown([&] { ap(1); }), "bad template AP operator ()");
    EXPECT_EQ(g_iTraceMode, 2);
    bool bTaken = false;
    std::thread([&] {
        bTaken = TryEnterCriticalSection(&a.m_cs);
        if (bTaken) LeaveCriticalSection(&a.m_cs);
    }).join();
    EXPECT_TRUE(bTaken);
    const std::string strText = trace.Text();
    for (const char* sz : {"bad template A operator () iX: 1 m_i: 1", "template AA iX:1 >= m_i:1",
                           "template AA iX:0 iY:2 m_i:1 !Exists(iX,iY)", "bad template AP operator () iX: 1 m_i: 1"})
        EXPECT_NE(strText.find(sz), std::string::npos) << sz;
}

TEST(ATest, LockNestsAndIsInertAfterFini) {
    A<int> a;
    a.Lock();
    a.Append(1);  // the operation's own lock nests inside
    a.Unlock();
    a.Fini();
    EXPECT_FALSE(a.GetbcsInitialized());
    a.Lock();  // does nothing
    a.Unlock();
}

TEST(ATest, ElementsThatAreArraysMoveWhenTheArrayGrows) {
    A<Tagged> a;
    for (uint32_t i = 0; i < 40; i++) {
        Tagged& t = a.Append();
        t.m_iTag = i;
        for (uint32_t j = 0; j <= i; j++) t.Append(j * 10);
    }
    for (int i = 0; i < 40; i++) {
        ASSERT_EQ(a(i).m_iTag, uint32_t(i));
        ASSERT_EQ(int(a(i)), i + 1);
        EXPECT_EQ(a(i)(i), uint32_t(i * 10));
    }
    a.Remove(0);
    a.Swap(0, 1);
    EXPECT_EQ(a(0).m_iTag, 2u);
    EXPECT_EQ(a(1).m_iTag, 1u);
}

// ---- Serialised forms ---------------------------------------------------------

using Bytes = std::vector<unsigned char>;

template <class Array>
MemFile Written(Array& array) {
    MemFile file;
    EXPECT_TRUE(array.SerializeWrite(&file));
    return file;
}

TEST(SerializeTest, AWritesCountThenElementsAndReadsBackInBothModes) {
    A<uint32_t> a;
    a.Append(0x11223344u);
    a.Append(5u);
    MemFile file = Written(a);
    EXPECT_EQ(file.m_data, (Bytes{2, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 5, 0, 0, 0}));

    for (bool bMapped : {false, true}) {
        file.Rewind(bMapped);
        A<uint32_t> b;
        ASSERT_TRUE(b.SerializeRead(&file));
        EXPECT_EQ(b.m_bMapped, bMapped);
        EXPECT_EQ(file.Contains(b.m_a), bMapped);
        ASSERT_EQ(int(b), 2);
        EXPECT_EQ(b(0), 0x11223344u);
        EXPECT_TRUE(b.GetbcsInitialized());
        // A change copies the elements out of the view, which stays as it was.
        b.Set(7, 70);
        EXPECT_FALSE(b.m_bMapped);
        EXPECT_FALSE(file.Contains(b.m_a));
        EXPECT_EQ(b(1), 5u);
        EXPECT_EQ(file.m_data[8], 5);
    }

    file.Rewind(true);
    A<uint32_t> c;
    ASSERT_TRUE(c.SerializeRead(&file));
    long iFrees = g_iTotalFrees;
    c.Clean();
    EXPECT_EQ(g_iTotalFrees, iFrees) << "a mapped block is not ours to free";
    EXPECT_EQ(c.m_a, nullptr);
}

TEST(SerializeTest, AARowsRoundTripAndMappedRowsAreOnlyForgotten) {
    AA<uint32_t> aa;
    aa.Set(2);
    aa.Append(1, 7);
    aa.Append(1, 8);
    aa.Append(2, 9);
    MemFile file = Written(aa);
    EXPECT_EQ(file.m_data, (Bytes{3, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 7, 0, 0, 0, 8, 0, 0, 0, 1, 0, 0, 0, 9, 0, 0, 0}));

    for (bool bMapped : {false, true}) {
        file.Rewind(bMapped);
        AA<uint32_t> b;
        ASSERT_TRUE(b.SerializeRead(&file));
        ASSERT_EQ(int(b), 3);
        EXPECT_EQ(b.Count(0), 0);
        EXPECT_EQ(b(1, 1), 8u);
        EXPECT_EQ(b(2, 0), 9u);
        EXPECT_EQ(file.Contains(b.m_aa[1]), bMapped);
        long iFrees = g_iTotalFrees;
        b.Clean();
        // Three side arrays always; the two rows only when they were ours.
        EXPECT_EQ(g_iTotalFrees - iFrees, bMapped ? 3 : 5);
    }

    file.Rewind(true);
    AA<uint32_t> c;
    ASSERT_TRUE(c.SerializeRead(&file));
    c.Append(2, 10);  // copies every row out of the view first
    EXPECT_FALSE(c.m_bMapped);
    EXPECT_FALSE(file.Contains(c.m_aa[1]));
    EXPECT_EQ(c(1, 0), 7u);
    EXPECT_EQ(c(2, 1), 10u);
}

TEST(SerializeTest, ElementsWithTheirOwnSerialiserGoOneByOne) {
    AA<Tagged> aa;
    aa.Set(1);
    Tagged& t = aa.Append(1);
    t.m_iTag = 42;
    t.Append(1u);
    t.Append(2u);
    aa.Append(1).m_iTag = 43;
    MemFile file = Written(aa);
    // rows, row 0 count, row 1 count, tag, count, 2 values, tag, count
    EXPECT_EQ(file.m_data.size(), size_t(4 * 9));

    file.Rewind(true);  // such elements are never mapped
    AA<Tagged> b;
    ASSERT_TRUE(b.SerializeRead(&file));
    ASSERT_EQ(b.Count(1), 2);
    EXPECT_EQ(b(1, 0).m_iTag, 42u);
    EXPECT_EQ(b(1, 0)(1), 2u);
    EXPECT_EQ(b(1, 1).m_iTag, 43u);
    EXPECT_EQ(int(b(1, 1)), 0);
    EXPECT_FALSE(b.m_bMapped);
}

TEST(SerializeTest, RecordFormDropsNullEntriesAndChecksSizes) {
    AP<Rec> ap;
    ap.Append(MakeRec(1, "PRIMARY"));
    ap.Append(nullptr);
    ap.Append(MakeRec(3, "SECONDARY_FILEGROUP"));
    MemFile file = Written(ap);
    const uint32_t cbFirst = ap(0)->m_size;
    auto word = [&](size_t iAt) { return uint32_t(file.m_data[iAt]) | uint32_t(file.m_data[iAt + 1]) << 8; };
    EXPECT_EQ(word(0), 3u) << "the count";
    EXPECT_EQ(word(4), cbFirst) << "each record behind its size";
    EXPECT_EQ(word(8 + cbFirst), 0u) << "a null entry is a size of 0";

    for (bool bMapped : {false, true}) {
        file.Rewind(bMapped);
        AP<Rec> b;
        ASSERT_TRUE(b.SerializeRead(&file));
        ASSERT_EQ(int(b), 2) << "the null entry does not come back";
        EXPECT_EQ(b(1)->m_iId, 3u);
        EXPECT_STREQ(b(1)->m_szText, "SECONDARY_FILEGROUP");
        EXPECT_EQ(file.Contains(b(0)), bMapped);
        long iFrees = g_iTotalFrees;
        b.Clean();
        EXPECT_EQ(g_iTotalFrees - iFrees, bMapped ? 1 : 3);
    }

    // A record whose header disagrees with its stored size is refused.
    MemFile bad = file;
    bad.m_data[12] ^= 1;  // the header's m_size
    bad.Rewind(false);
    AP<Rec> c;
    EXPECT_FALSE(c.SerializeRead(&bad));
}

TEST(SerializeTest, TypesThatAreNeverPersistedRefuse) {
    AP<wchar_t> ap;
    ap.Append(_wcsdup(L"x"));
    MemFile file;
    EXPECT_FALSE(ap.SerializeWrite(&file));
    EXPECT_FALSE(ap.SerializeRead(&file));
    EXPECT_TRUE(file.m_data.empty());
    EXPECT_EQ(int(ap), 1);
}

TEST(SerializeTest, FailuresStopAtThePlaceTheyHappen) {
    A<uint32_t> a;
    a.Append(1u);
    a.Append(2u);
    MemFile failing;
    failing.m_iCallsBeforeFailure = 1;  // the count goes, the elements fail
    EXPECT_FALSE(a.SerializeWrite(&failing));
    EXPECT_EQ(failing.m_data.size(), 4u);

    // Truncated: the count promises two elements, one is there.
    MemFile cut = Written(a);
    cut.m_data.resize(8);
    for (bool bMapped : {false, true}) {
        cut.Rewind(bMapped);
        A<uint32_t> b;
        EXPECT_FALSE(b.SerializeRead(&cut));
    }

    // A count that no array can hold is refused before anything is allocated.
    MemFile huge;
    huge.m_data = {0, 0, 0, 0x80};
    long iAllocs = g_iTotalAllocs;
    A<uint32_t> c;
    EXPECT_FALSE(c.SerializeRead(&huge));
    EXPECT_EQ(g_iTotalAllocs, iAllocs);
    huge.Rewind(false);
    AA<uint32_t> d;
    EXPECT_FALSE(d.SerializeRead(&huge));
}
