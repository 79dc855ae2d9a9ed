// The names a mount of real backups gives its files, and the hand-over of
// the data file names to the driver, checked against the test walker's
// reading of the backups' file records (it shares no code with the library).
#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Unaligned.h"
#include "support/ErrorText.h"
#include "support/FakeDriver.h"
#include "support/LibraryTest.h"
#include "support/MtfWalker.h"
#include "zirlane/zirlane.h"

namespace fs = std::filesystem;

namespace {

const char kDir[] = "appveyor-lab/RestoreTimeClean/";

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string Narrow(const std::wstring& ws) { return std::string(ws.begin(), ws.end()); }

// A name of command 4, UTF-16LE with its terminator, as plain text.
std::string NameAt(const zrtest::Bytes& message, size_t iOffset, uint32_t cbName) {
    std::string s;
    for (size_t i = 0; i + 2 < cbName; i += 2) s += static_cast<char>(message.at(iOffset + i));
    return s;
}

struct AddFileNames {
    uint64_t iSize;
    std::string strPhysical, strVirtual;
};

AddFileNames Decode(const zrtest::Bytes& message) {
    const uint32_t cbA = ZR_Load<uint32_t>(message.data() + 4);
    const uint32_t cbB = ZR_Load<uint32_t>(message.data() + 16);
    EXPECT_EQ(message.size(), 24u + cbA + cbB);
    return {ZR_Load<uint64_t>(message.data() + 8), NameAt(message, 24, cbA), NameAt(message, 24 + cbA, cbB)};
}

std::vector<zrtest::MtfSqlFile> FileRecords(const std::string& name) {
    const zrtest::MtfWalk walk = zrtest::MtfWalker::WalkFile(*zrtest::TestDataFile(std::string(kDir) + name));
    EXPECT_TRUE(walk.ok) << walk.fault;
    return walk.DataSet(1) ? walk.DataSet(1)->msci.files : std::vector<zrtest::MtfSqlFile>{};
}

class MountFiles : public zrtest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ZR_REQUIRE_TESTDATA();
        fs::create_directory(Sparse());
        ASSERT_TRUE(ZR::SetVDBFolders(Sparse().wstring().c_str(), Maps().wstring().c_str()));
        m_pDriver = std::make_unique<zrtest::FakeDriver>();
    }
    void TearDown() override {
        ZR::UninitializeForExit();
        m_pDriver.reset();
        ZR::SetVDBFolders(L"", L"");
        LibraryTest::TearDown();
    }
    fs::path Sparse() const { return m_tmp / "sparse"; }

    // The full backup and its differential, mounted through WrapMount.
    ZR_Database* Mount(bool bRestart = false) {
        ZR_MountInfo* pInfo = Request({Real("RestoreTimeClean.bak")}, {Real("RestoreTimeClean2.bak")});
        SetTargetDatabase(pInfo, L"Copy");
        if (bRestart) SetRestart(pInfo);
        wchar_t wszKey[128] = {};
        const bool bMounted = WrapMount(pInfo, wszKey, 128);
        m_strKey = wszKey;
        EXPECT_TRUE(bMounted) << zrtest::ErrorTextNarrow(wszKey) << zrtest::ErrorTextNarrow();
        return bMounted ? ZR::FindDatabase(wszKey) : nullptr;
    }
    static fs::path Real(const std::string& name) { return *zrtest::TestDataFile(std::string(kDir) + name); }
    std::string Key() const { return Narrow(m_strKey); }

    std::unique_ptr<zrtest::FakeDriver> m_pDriver;
    std::wstring m_strKey;
};

TEST_F(MountFiles, AMountTellsTheDriverItsDataFilesAndNamesItsFiles) {
    const std::vector<zrtest::MtfSqlFile> full = FileRecords("RestoreTimeClean.bak");
    const std::vector<zrtest::MtfSqlFile> diff = FileRecords("RestoreTimeClean2.bak");
    ASSERT_FALSE(full.empty());
    ZR_Database* pDB = Mount(true);
    ASSERT_NE(pDB, nullptr);

    // For each data file of the full backup a command 4, then the end of the
    // list and the restart; the same for the differential, whose end is 4
    // bytes long and which has no restart.
    std::vector<zrtest::Bytes> sent = m_pDriver->Sent(kControlPortName);
    size_t i = 0;
    for (const auto* pFiles : {&full, &diff}) {
        for (const zrtest::MtfSqlFile& f : *pFiles) {
            if (f.fileType != 1) continue;
            ASSERT_LT(i, sent.size());
            ASSERT_EQ(ZR_Load<uint32_t>(sent[i].data()), 4u);
            const AddFileNames names = Decode(sent[i++]);
            EXPECT_EQ(names.iSize, f.fileSize);
            EXPECT_EQ(names.strPhysical, Lower(f.physicalName));
            EXPECT_EQ(names.strVirtual,
                      "C:\\" + Key() + "!" + std::to_string(f.fileId) + (f.fileId == 1 ? ".mxf" : ".nxf"));
        }
        if (pFiles == &full) {
            ASSERT_LT(i + 1, sent.size());
            EXPECT_EQ(sent[i++], (zrtest::Bytes{5, 0, 0, 0, 0, 0, 0, 0}));
            EXPECT_EQ(sent[i++], (zrtest::Bytes{16, 0, 0, 0, 0, 0, 0, 0}));
        }
    }
    ASSERT_EQ(sent.size(), i + 1);
    EXPECT_EQ(sent[i], (zrtest::Bytes{5, 0, 0, 0}));

    // Sparse files for data and log, in the order of the records; the
    // virtual names of the data files on the mount's volume.
    std::list<std::wstring> sparse, virtualNames;
    ZR::GetZR()->GetSparseFiles(m_strKey.c_str(), sparse);
    pDB->SetFilterVolume(L"V:");
    ZR::GetZR()->GetDatabaseFiles(virtualNames);
    std::vector<std::string> expectedSparse, expectedVirtual;
    for (const zrtest::MtfSqlFile& f : full) {
        const std::string strId = std::to_string(f.fileId);
        if (f.fileType == 2) expectedSparse.push_back(Sparse().string() + "\\" + Key() + "!" + strId + ".lcf");
        if (f.fileType != 1) continue;
        expectedSparse.push_back(Sparse().string() + "\\" + Key() + "!" + strId + (f.fileId == 1 ? ".mcf" : ".ncf"));
        expectedVirtual.push_back("V:\\" + Key() + "!" + strId + (f.fileId == 1 ? ".mxf" : ".nxf"));
    }
    std::vector<std::string> gotSparse, gotVirtual;
    for (const std::wstring& s : sparse) gotSparse.push_back(Narrow(s));
    for (const std::wstring& s : virtualNames) gotVirtual.push_back(Narrow(s));
    EXPECT_EQ(gotSparse, expectedSparse);
    EXPECT_EQ(gotVirtual, expectedVirtual);
}

TEST_F(MountFiles, OnlyAMoveOfTheFilesLogicalNameChangesItsPath) {
    ZR_Database* pDB = Mount();
    ASSERT_NE(pDB, nullptr);
    const zrtest::MtfSqlFile first = FileRecords("RestoreTimeClean.bak").at(0);
    const std::wstring strLogical(first.logicalName.begin(), first.logicalName.end());
    std::wstring strUpper = strLogical;
    for (wchar_t& c : strUpper) c = static_cast<wchar_t>(std::towupper(c));
    const struct {
        std::list<std::wstring> with;
        std::string strPath;
    } cases[] = {
        {{L"replace", L"move '" + strUpper + L"' TO 'D:\\X\\It''s.mdf'"}, "d:\\x\\it's.mdf"},
        {{L"  MOVE\t" + strLogical + L" to D:\\Plain Path.mdf"}, "d:\\plain path.mdf"},
        {{L"move 'Other' to 'D:\\z.mdf'"}, Lower(first.physicalName)},
        {{L"move '" + strLogical + L"' onto 'D:\\z.mdf'"}, Lower(first.physicalName)},
        {{L"replace"}, Lower(first.physicalName)},
    };
    for (const auto& c : cases) {
        m_pDriver->ClearSent();
        ZR::GetZR()->SendFilterFileNamesForFull(L"Copy", m_strKey.c_str(), c.with, false);
        const std::vector<zrtest::Bytes> sent = m_pDriver->Sent(kControlPortName);
        ASSERT_FALSE(sent.empty());
        EXPECT_EQ(Decode(sent[0]).strPhysical, c.strPath) << Narrow(c.with.back());
    }
}

TEST_F(MountFiles, CleanupRemovesTheFilesNoMountUses) {
    ZR_Database* pDB = Mount();
    ASSERT_NE(pDB, nullptr);
    std::set<fs::path> mapsInUse;
    for (const auto& entry : fs::directory_iterator(Maps())) mapsInUse.insert(entry.path());
    ASSERT_FALSE(mapsInUse.empty());

    // The driver names the mount's sparse files with either separator. Once
    // it has announced as many as the differential has data files, all are
    // open.
    const fs::path used = Sparse() / (Key() + "!1.mcf");
    EXPECT_FALSE(pDB->AllDataFilesOpened());
    for (const zrtest::MtfSqlFile& f : FileRecords("RestoreTimeClean2.bak"))
        if (f.fileType == 1)
            pDB->AssociateDataFile(static_cast<uint16_t>(f.fileId), 77, FileObjectUniquifier{{1, 2, 3, 4}},
                                   f.fileId == 1 ? used.wstring().c_str() : L"other.ncf");
    EXPECT_TRUE(pDB->AllDataFilesOpened());
    for (const fs::path& p : {used, Sparse() / "GONE!1.mcf", Sparse() / "GONE!2.LCF", Sparse() / "keep.txt",
                              Maps() / "young.xcm"})
        std::ofstream(p) << "x";

    ZR::GetZR()->CleanupVDBFolders(30);
    std::set<fs::path> left;
    for (const fs::path& folder : {Sparse(), Maps()})
        for (const auto& entry : fs::directory_iterator(folder)) left.insert(entry.path());
    std::set<fs::path> expected = mapsInUse;
    expected.insert({used, Sparse() / "keep.txt", Maps() / "young.xcm"});
    EXPECT_EQ(left, expected);

    // With no age limit every map file goes that no mount reads.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // the clock of the creation times moves on
    ZR::GetZR()->CleanupVDBFolders(0);
    EXPECT_FALSE(fs::exists(Maps() / "young.xcm"));
    for (const fs::path& p : mapsInUse) EXPECT_TRUE(fs::exists(p)) << p;
    EXPECT_TRUE(fs::exists(used));
}

}  // namespace
