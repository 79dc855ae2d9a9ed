#include "filterdriver/ZR_DataFileSet.h"

#include <cstring>

namespace {

// Opaque to the library but for the third word, which must not be 0.
FileObjectUniquifier MakeUniquifier(uint32_t iSerial) {
    return FileObjectUniquifier{{iSerial, 0x4C52495A /* "ZIRL" */, 0x80000000u | iSerial, 0}};
}

}  // namespace

ZR_HostStatus ZR_DataFileSet::Acquire(const ZR_FileNameEntry& names, const std::wstring& strSparsePath,
                                      std::shared_ptr<ZR_DataFile>* ppFile) {
    std::lock_guard guard(m_cs);
    Entry& entry = m_Files[strSparsePath];
    if (!entry.pFile) {
        auto pFile = std::make_shared<ZR_DataFile>(names, strSparsePath, MakeUniquifier(++m_iSerial));
        if (ZR_HostStatus iStatus = pFile->Open(); iStatus != kHostSuccess) {
            m_Files.erase(strSparsePath);
            return iStatus;
        }
        entry.pFile = pFile;
    }
    ++entry.iUses;
    *ppFile = entry.pFile;
    return kHostSuccess;
}

void ZR_DataFileSet::Release(const std::shared_ptr<ZR_DataFile>& pFile, bool bDeleteOnClose) {
    std::lock_guard guard(m_cs);
    auto it = m_Files.find(pFile->SparsePath());
    if (it == m_Files.end() || it->second.pFile != pFile) return;  // closed by CloseAll
    it->second.bDeleteOnClose |= bDeleteOnClose;
    if (--it->second.iUses) return;
    bool bDelete = it->second.bDeleteOnClose;
    m_Files.erase(it);
    pFile->Close(!bDelete);
    if (bDelete) pFile->DeleteFiles();
}

std::shared_ptr<ZR_DataFile> ZR_DataFileSet::Find(const FileObjectUniquifier& uniquifier) {
    std::lock_guard guard(m_cs);
    for (auto& [strPath, entry] : m_Files)
        if (std::memcmp(&entry.pFile->Uniquifier(), &uniquifier, sizeof uniquifier) == 0) return entry.pFile;
    return nullptr;
}

std::vector<std::shared_ptr<ZR_DataFile>> ZR_DataFileSet::All() {
    std::lock_guard guard(m_cs);
    std::vector<std::shared_ptr<ZR_DataFile>> aFiles;
    for (auto& [strPath, entry] : m_Files) aFiles.push_back(entry.pFile);
    return aFiles;
}

void ZR_DataFileSet::CloseAll(bool bFlush) {
    std::lock_guard guard(m_cs);
    for (auto& [strPath, entry] : m_Files) entry.pFile->Close(bFlush);
    m_Files.clear();
}
