#include "engine/ZR_BufferPool.h"

#include <atomic>
#include <cstddef>

namespace {

// Room a new buffer gets beyond the request.
constexpr uint32_t kMargin = 0x40000;

template <class T>
std::atomic_ref<T> Field(const void* pBuffer, size_t iOffset) {
    auto* p = static_cast<uint8_t*>(const_cast<void*>(pBuffer)) - kCompletionHeaderRoom + iOffset;
    return std::atomic_ref<T>(*reinterpret_cast<T*>(p));
}

}  // namespace

ZR_BufferPool::ZR_BufferPool(int iSlots, std::atomic<int32_t>* pOverflows)
    : m_aSlots(static_cast<size_t>(iSlots)), m_pOverflows(pOverflows) {
    InitializeCriticalSection(&m_cs);
}

ZR_BufferPool::~ZR_BufferPool() {
    for (Slot& slot : m_aSlots) Release(slot.pBuffer);
    DeleteCriticalSection(&m_cs);
}

uint8_t* ZR_BufferPool::Allocate(uint32_t iUsable) {
    auto* p = static_cast<uint8_t*>(
        VirtualAlloc(nullptr, size_t{iUsable} + kCompletionHeaderRoom, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    return p ? p + kCompletionHeaderRoom : nullptr;
}

void ZR_BufferPool::Release(void* pBuffer) {
    if (pBuffer) VirtualFree(static_cast<uint8_t*>(pBuffer) - kCompletionHeaderRoom, 0, MEM_RELEASE);
}

// The slot a request goes to; null when every slot is in use. m_cs is held.
ZR_BufferPool::Slot* ZR_BufferPool::Choose(uint32_t iSize) {
    for (Slot& slot : m_aSlots)
        if (!slot.bInUse && slot.pBuffer && slot.iSize >= iSize) return &slot;
    for (Slot& slot : m_aSlots)
        if (!slot.pBuffer) return &slot;
    for (Slot& slot : m_aSlots)
        if (!slot.bInUse) return &slot;  // its buffer is too small
    return nullptr;
}

void* ZR_BufferPool::Get(uint32_t iSize) {
    EnterCriticalSection(&m_cs);
    Slot* pSlot = Choose(iSize);
    void* pBuffer = nullptr;
    if (pSlot && pSlot->pBuffer && pSlot->iSize >= iSize) {
        pSlot->bInUse = true;
        pBuffer = pSlot->pBuffer;
    } else if (pSlot) {
        Release(pSlot->pBuffer);
        pSlot->pBuffer = Allocate(iSize + kMargin);
        pSlot->iSize = pSlot->pBuffer ? iSize + kMargin : 0;
        pSlot->bInUse = pSlot->pBuffer != nullptr;
        pBuffer = pSlot->pBuffer;
    } else {
        ++*m_pOverflows;
        pBuffer = Allocate(iSize);
    }
    LeaveCriticalSection(&m_cs);
    return pBuffer;
}

void ZR_BufferPool::Free(void* pBuffer) {
    if (!pBuffer) return;
    EnterCriticalSection(&m_cs);
    bool bInPool = false;
    for (Slot& slot : m_aSlots)
        if (slot.pBuffer == pBuffer) {
            slot.bInUse = false;
            bInPool = true;
        }
    LeaveCriticalSection(&m_cs);
    if (!bInPool) Release(pBuffer);
}

int ZR_BufferPool::InUse() {
    EnterCriticalSection(&m_cs);
    int iInUse = 0;
    for (const Slot& slot : m_aSlots) iInUse += slot.bInUse;
    LeaveCriticalSection(&m_cs);
    return iInUse;
}

ZR_CompletionHeader* ZR_BufferPool::HeaderOf(void* pBuffer) {
    return reinterpret_cast<ZR_CompletionHeader*>(static_cast<uint8_t*>(pBuffer) - kCompletionHeaderRoom);
}

void ZR_BufferPool::ResetHeader(void* pBuffer) {
    Field<uint32_t>(pBuffer, offsetof(ZR_CompletionHeader, iPosted)).store(1);
    Field<uint32_t>(pBuffer, offsetof(ZR_CompletionHeader, iCompleted)).store(1);
    Field<uint8_t>(pBuffer, offsetof(ZR_CompletionHeader, bCompletedToggle)).store(0);
    Field<uint8_t>(pBuffer, offsetof(ZR_CompletionHeader, bPostedToggle)).store(0);
}

void ZR_BufferPool::NotePosted(void* pBuffer) {
    auto posted = Field<uint32_t>(pBuffer, offsetof(ZR_CompletionHeader, iPosted));
    posted.store(posted.load() * 2);
    Field<uint8_t>(pBuffer, offsetof(ZR_CompletionHeader, bPostedToggle)).fetch_xor(0xFF);
}

bool ZR_BufferPool::IsFinished(const void* pBuffer) {
    return Field<uint32_t>(pBuffer, offsetof(ZR_CompletionHeader, iPosted)).load() ==
               Field<uint32_t>(pBuffer, offsetof(ZR_CompletionHeader, iCompleted)).load() &&
           Field<uint8_t>(pBuffer, offsetof(ZR_CompletionHeader, bPostedToggle)).load() ==
               Field<uint8_t>(pBuffer, offsetof(ZR_CompletionHeader, bCompletedToggle)).load();
}
