#include "support/BackupFixture.h"

#include "diag/ZR_Error.h"
#include "maps/X_MapFile.h"
#include "support/ErrorText.h"

#include <cwchar>

namespace fs = std::filesystem;

namespace zrtest {

void BackupFixture::SetUp() {
    fs::create_directories(Maps());
    std::wcsncpy(g_wszMapFilesFolder, Maps().wstring().c_str(), MAX_PATH - 1);
    ZR_ClearErrors(m_wszKey);
    m_pAhead = ZR_ReadAhead::Alloc();
}

void BackupFixture::TearDown() {
    ZR_ReadAhead::Free(m_pAhead);
    g_wszMapFilesFolder[0] = 0;
    ZR_ClearErrors(m_wszKey);
}

std::vector<fs::path> BackupFixture::MapFiles(const char* szExt) const {
    std::vector<fs::path> a;
    for (auto& e : fs::directory_iterator(Maps()))
        if (e.path().extension() == szExt)
            a.push_back(e.path());
    return a;
}

std::string BackupFixture::Errors() const { return ErrorTextNarrow(m_wszKey); }

std::unique_ptr<ZR_Backup> BackupFixture::Named(const std::vector<fs::path>& files) const {
    auto b = std::make_unique<ZR_Backup>(m_wszKey);
    b->SetDataSetNumber(1);
    for (auto& f : files)
        b->AddFile(f.wstring().c_str(), nullptr, false);
    return b;
}

std::unique_ptr<ZR_Backup> BackupFixture::Access(const std::vector<fs::path>& files, int iIndex) const {
    auto b = Named(files);
    int32_t v = 0;
    EXPECT_TRUE(b->PrepareContent(&v)) << Errors();
    EXPECT_TRUE(b->Open());
    EXPECT_TRUE(b->PrepareAccess(iIndex)) << Errors();
    return b;
}

}  // namespace zrtest
