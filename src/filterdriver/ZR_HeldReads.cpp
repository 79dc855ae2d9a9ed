#include "filterdriver/ZR_HeldReads.h"

#include <chrono>
#include <cstring>
#include <new>

namespace {

// Keys and ids come from one counter, kept apart so that a library that
// mixed the two would find nothing.
constexpr uint64_t kBufferKeyBase = uint64_t(1) << 48;

}  // namespace

std::shared_ptr<ZR_HeldRead> ZR_HeldReads::Begin(uint32_t cbBuffer) {
    auto pRead = std::make_shared<ZR_HeldRead>();
    const size_t cbAllocated = cbBuffer ? cbBuffer : 1;
    pRead->pBuffer.reset(static_cast<uint8_t*>(
        ::operator new[](cbAllocated, std::align_val_t(kHeldReadAlignment), std::nothrow)));
    if (!pRead->pBuffer) return nullptr;
    std::memset(pRead->pBuffer.get(), 0, cbAllocated);
    pRead->cbBuffer = cbBuffer;
    std::lock_guard guard(m_cs);
    if (m_bStopped) return nullptr;
    uint64_t iId = m_iNext++;
    pRead->iOpId = iId;
    pRead->iBufferKey = kBufferKeyBase + iId;
    m_Reads[pRead->iOpId] = pRead;
    m_Buffers[pRead->iBufferKey] = pRead;
    return pRead;
}

ZR_HostStatus ZR_HeldReads::Wait(ZR_HeldRead& read, uint32_t iTimeoutMs) {
    std::unique_lock lock(m_cs);
    if (!read.cvEnded.wait_for(lock, std::chrono::milliseconds(iTimeoutMs), [&] { return read.bEnded; }))
        EndLocked(read, kHostTimeout);
    return read.iResult;
}

void ZR_HeldReads::End(const std::shared_ptr<ZR_HeldRead>& pRead, bool bLibraryDone) {
    std::lock_guard guard(m_cs);
    m_Reads.erase(pRead->iOpId);
    if (bLibraryDone || pRead->bCompleted || !pRead->bMapped) m_Buffers.erase(pRead->iBufferKey);
}

uint64_t ZR_HeldReads::Map(uint64_t iBufferKey) {
    std::lock_guard guard(m_cs);
    auto it = m_Buffers.find(iBufferKey);
    if (it == m_Buffers.end() || it->second->bCompleted) return 0;
    it->second->bMapped = true;
    return reinterpret_cast<uint64_t>(it->second->pBuffer.get());
}

void ZR_HeldReads::Unmap(uint64_t iBufferKey) {
    std::lock_guard guard(m_cs);
    m_Buffers.erase(iBufferKey);
}

bool ZR_HeldReads::Complete(uint64_t iOpId, int32_t hr) {
    std::lock_guard guard(m_cs);
    auto it = m_Reads.find(iOpId);
    if (it == m_Reads.end() || it->second->bCompleted) return false;
    it->second->bCompleted = true;
    EndLocked(*it->second, hr);
    return true;
}

void ZR_HeldReads::FailAll(ZR_HostStatus iStatus) {
    std::lock_guard guard(m_cs);
    for (auto& [iOpId, pRead] : m_Reads) EndLocked(*pRead, iStatus);
}

void ZR_HeldReads::Stop() {
    std::lock_guard guard(m_cs);
    m_bStopped = true;
    for (auto& [iOpId, pRead] : m_Reads) EndLocked(*pRead, kHostDriverStopped);
    m_Buffers.clear();
}

// The first end counts: a completion after a time limit changes nothing.
void ZR_HeldReads::EndLocked(ZR_HeldRead& read, ZR_HostStatus iResult) {
    if (read.bEnded) return;
    read.bEnded = true;
    read.iResult = iResult;
    read.cvEnded.notify_all();
}
