#include "support/VirtualView.h"

#include "support/ErrorText.h"

#include <cstdlib>
#include <cwchar>

#include "backup/ZR_Backup.h"
#include "diag/ZR_Error.h"
#include "maps/X_MapFile.h"

namespace zrtest {

MapFolderScope::MapFolderScope(const std::filesystem::path& folder) {
    std::wstring w = folder.wstring();
    wcsncpy(g_wszMapFilesFolder, w.c_str(), MAX_PATH - 1);
    ZR_ClearErrors(nullptr);
}

MapFolderScope::~MapFolderScope() {
    g_wszMapFilesFolder[0] = 0;
    ZR_ClearErrors(nullptr);
}

std::string ErrorChainText() { return ErrorTextNarrow(); }

std::unique_ptr<ZR_Backup> PrepareBackup(const std::vector<std::filesystem::path>& files, bool bDiffFollows,
                                         std::string* pError) {
    auto backup = std::make_unique<ZR_Backup>(nullptr);
    backup->SetDataSetNumber(1);
    backup->m_bDiffFollows = bDiffFollows;
    for (const auto& f : files)
        backup->AddFile(f.wstring().c_str(), nullptr, false);
    int32_t iVersion = 0;
    if (!backup->PrepareContent(&iVersion) || !backup->Open() || !backup->PrepareAccess(0)) {
        *pError = ErrorChainText();
        return nullptr;
    }
    return backup;
}

bool ReadViewAt(ZR_Backup& backup, int iDevice, std::uint64_t iOffset, std::uint32_t iLength, std::uint8_t* pOut) {
    OVERLAPPED ov{};
    ov.Offset = static_cast<DWORD>(iOffset);
    ov.OffsetHigh = static_cast<DWORD>(iOffset >> 32);
    return backup.ReadVirtual(iDevice, pOut, iLength, 0, &ov);
}

std::vector<std::uint8_t> ReadWholeView(ZR_Backup& backup, int iDevice, std::uint32_t iPiece, std::string* pError) {
    int64_t iSize = backup.GetVirtualSize(iDevice);
    if (iSize <= 0) {
        *pError = "the view has no size";
        return {};
    }
    std::vector<std::uint8_t> aView(static_cast<size_t>(iSize));
    for (int64_t iOfs = 0; iOfs < iSize; iOfs += iPiece) {
        uint32_t n = static_cast<uint32_t>(std::min<int64_t>(iPiece, iSize - iOfs));
        if (!ReadViewAt(backup, iDevice, static_cast<uint64_t>(iOfs), n, aView.data() + iOfs)) {
            *pError = "read of the view failed at " + std::to_string(iOfs) + ": " + ErrorChainText();
            return {};
        }
    }
    return aView;
}

}  // namespace zrtest
