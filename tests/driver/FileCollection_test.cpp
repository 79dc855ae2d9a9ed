// The keys the driver holds for files: hashlittle against the published
// vectors of lookup3's own self-test, then the collection's two roads to a
// key, its counts of opens, and the delete on close.
#include "driver/FileCollection.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "driver/Lookup3.h"
#include "mount/ZR.h"
#include "support/DriverOperations.h"
#include "support/FileKey.h"
#include "support/LibraryTest.h"
#include "zirlane/zirlane.h"

namespace {

const wchar_t kGuid[] = L"5A1C77E0-1234-4ABC-9DEF-00112233AABB";

TEST(Lookup3, GivesThePublishedHashesAtAnyAlignment) {
    const struct {
        const char* szText;
        uint32_t iInitval;
        uint32_t iHash;
    } cases[] = {
        {"", 0, 0xdeadbeef},
        {"", 0xdeadbeef, 0xbd5b7dde},
        {"Four score and seven years ago", 0, 0x17770551},
        {"Four score and seven years ago", 1, 0xcd628161},
    };
    for (const auto& c : cases) {
        const size_t iLength = std::strlen(c.szText);
        EXPECT_EQ(hashlittle(c.szText, iLength, c.iInitval), c.iHash) << c.szText;
        char aOdd[64] = {};
        std::memcpy(aOdd + 1, c.szText, iLength);
        EXPECT_EQ(hashlittle(aOdd + 1, iLength, c.iInitval), c.iHash) << c.szText << " at an odd address";
    }
}

using zrtest::KeyOfAscii;

HANDLE Handle(uintptr_t i) { return reinterpret_cast<HANDLE>(i); }

class Collection : public zrtest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        m_pZR = ZR::GetZR();
    }

    // An association as the driver sends it: the data file's path and the
    // virtual name it was opened under.
    HRESULT Associate(const wchar_t* wszFile, const std::wstring& strVirtual, unsigned* piKey) {
        ZR_CreateOperation op = zrtest::CreateOperation(wszFile, strVirtual);
        return m_files.associateProc(m_pZR, &op, piKey);
    }

    ZR* m_pZR = nullptr;
    FileCollection m_files;
};

TEST_F(Collection, TheCreateRoadKeysTheNameInCapitalsAndCountsItsOpens) {
    unsigned iKey = 0, iAgain = 0;
    ASSERT_EQ(m_files.createProc(m_pZR, L"c:\\guid=5a1c77e0-1234-4abc-9def-00112233aabb!7.bxk", false, &iKey), S_OK);
    EXPECT_EQ(iKey, KeyOfAscii("C:\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!7.BXK"));
    // The handle is the id of the name, whether or not its mount stands.
    EXPECT_EQ(m_files.GetFileHandle(iKey), Handle(7));
    ASSERT_EQ(m_files.createProc(m_pZR, L"C:\\GUID=5a1c77e0-1234-4abc-9def-00112233AABB!7.BXK", false, &iAgain), S_OK);
    EXPECT_EQ(iAgain, iKey) << "names differing in case share one entry";

    EXPECT_EQ(m_files.CloseFile(m_pZR, iKey, false), S_OK);
    EXPECT_EQ(m_files.GetFileHandle(iKey), Handle(7)) << "one open is left";
    EXPECT_EQ(m_files.CloseFile(m_pZR, iKey, false), S_OK);
    EXPECT_EQ(m_files.GetFileHandle(iKey), INVALID_HANDLE_VALUE);
    EXPECT_EQ(m_files.CloseFile(m_pZR, iKey, true), E_HANDLE);
}

TEST_F(Collection, AFileBroughtBackWaitsForTheDriversCreate) {
    const wchar_t wszName[] = L"C:\\GUID=5A1C77E0-1234-4ABC-9DEF-00112233AABB!9.BXK";
    unsigned iKey = 0;
    ASSERT_EQ(m_files.createProc(m_pZR, wszName, true, &iKey), S_OK);
    ASSERT_EQ(m_files.createProc(m_pZR, wszName, false, &iKey), S_OK);
    EXPECT_EQ(m_files.CloseFile(m_pZR, iKey, false), S_OK);
    EXPECT_EQ(m_files.GetFileHandle(iKey), INVALID_HANDLE_VALUE) << "the create's close ends the entry";

    // Without the create, the close has no open to match: the count wraps
    // and the entry stays.
    ASSERT_EQ(m_files.createProc(m_pZR, wszName, true, &iKey), S_OK);
    EXPECT_EQ(m_files.CloseFile(m_pZR, iKey, false), S_OK);
    EXPECT_EQ(m_files.GetFileHandle(iKey), Handle(9));
}

TEST_F(Collection, TheAssociationRoadKeysTheDriversSpellingAndDeletesOnClose) {
    ZR_Database* pDB = zrtest::AddDatabaseWithGuid(kGuid);
    ASSERT_NE(pDB, nullptr);
    const std::wstring strVirtual = std::wstring(L"C:\\GUID=") + kGuid;

    unsigned iKey1 = 0, iKey2 = 0, iUnknown = 0;
    ASSERT_EQ(Associate(L"D:\\Data\\Sales.mdf", strVirtual + L"!1.mxf", &iKey1), S_OK);
    EXPECT_EQ(iKey1, KeyOfAscii("D:\\Data\\Sales.mdf"));
    ASSERT_EQ(Associate(L"d:\\data\\sales.mdf", strVirtual + L"!3.nxf", &iKey2), S_OK);
    EXPECT_NE(iKey2, iKey1) << "names differing in case are two entries here";
    ASSERT_NE(pDB->FindDataFile(iKey1, 1), nullptr);
    EXPECT_STREQ(pDB->FindDataFile(iKey1, 1)->m_pwszPath, L"D:\\Data\\Sales.mdf");
    ASSERT_NE(pDB->FindDataFile(iKey2, 3), nullptr);
    EXPECT_EQ(m_files.GetFileHandle(iKey2), Handle(3)) << "a data file's handle is its file id";

    // A name of no mount is counted all the same; the last error says why
    // nothing was associated.
    SetLastError(0);
    EXPECT_EQ(Associate(L"D:\\Data\\Other.mdf", L"C:\\GUID=00000000-1234-4ABC-9DEF-00112233AABB!1.mxf", &iUnknown),
              S_OK);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(m_files.GetFileHandle(iUnknown), Handle(0));

    // Delete on close: the file is closed for the mount, and the mount goes
    // away with its last file.
    EXPECT_EQ(m_files.CloseFile(m_pZR, iKey1, true), S_OK);
    EXPECT_TRUE(pDB->FindDataFile(iKey1, 1)->m_bClosed);
    EXPECT_FALSE(pDB->GetDatabaseWasDeleted());
    EXPECT_EQ(m_files.CloseFile(m_pZR, iKey2, true), S_OK);
    EXPECT_TRUE(pDB->GetDatabaseWasDeleted());
    EXPECT_EQ(m_files.GetFileHandle(iKey2), INVALID_HANDLE_VALUE);
}

}  // namespace
