#include "filterdriver/ZR_OperationChannel.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "foundation/Unaligned.h"

namespace {

// What the filter manager answers a reply that no one waits for.
constexpr HRESULT kNoWaiterForReply = static_cast<HRESULT>(0x801F0020);

}  // namespace

void ZR_OperationChannel::OnConnect(HANDLE hConnection) {
    std::lock_guard guard(m_cs);
    m_Connections.insert(hConnection);
}

void ZR_OperationChannel::OnDisconnect(HANDLE hConnection) {
    std::lock_guard guard(m_cs);
    m_Connections.erase(hConnection);
    std::erase_if(m_Gets, [&](const PendingGet& get) { return get.hConnection == hConnection; });
    bool bNobodyLeft = m_Connections.empty();
    std::erase_if(m_Operations, [&](auto& entry) {
        Operation& op = *entry.second;
        if (op.hConnection != hConnection && !(bNobodyLeft && !op.hConnection)) return false;
        EndLocked(op, kHostNotConnected);
        return true;
    });
    if (bNobodyLeft) m_Queue.clear();
}

HRESULT ZR_OperationChannel::OnGet(HANDLE hConnection, PFILTER_MESSAGE_HEADER pMessage, DWORD cbMessage,
                                   LPOVERLAPPED pOverlapped) {
    if (!pMessage || !pOverlapped) return E_INVALIDARG;
    if (cbMessage < kOperationMessageSize) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    PendingGet get{hConnection, pMessage, pOverlapped};
    {
        std::lock_guard guard(m_cs);
        if (m_bStopped) return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);
        if (m_Queue.empty()) {
            m_Gets.push_back(get);
            return kHrIoPending;
        }
        Deliver(*m_Queue.front(), get);
        m_Queue.pop_front();
    }
    FilterCompleteMessage(hConnection, pOverlapped, ERROR_SUCCESS, kOperationMessageSize);
    return kHrIoPending;
}

HRESULT ZR_OperationChannel::OnReply(HANDLE, PFILTER_REPLY_HEADER pReply, DWORD cbReply) {
    if (!pReply || cbReply < sizeof(FILTER_REPLY_HEADER)) return E_INVALIDARG;
    std::lock_guard guard(m_cs);
    auto it = m_Operations.find(pReply->MessageId);
    if (it == m_Operations.end() || !it->second->hConnection) return kNoWaiterForReply;
    Operation& op = *it->second;
    std::memcpy(&op.Reply, pReply, std::min<size_t>(cbReply, sizeof op.Reply));
    EndLocked(op, kHostSuccess);
    m_Operations.erase(it);
    return S_OK;
}

ZR_HostStatus ZR_OperationChannel::Call(const void* pMessage, size_t cbMessage, ZR_OperationReply* pReply,
                                        uint32_t iTimeoutMs) {
    auto pOp = std::make_shared<Operation>();
    std::memcpy(pOp->aMessage, pMessage, std::min(cbMessage, sizeof pOp->aMessage));
    PendingGet get{};
    {
        std::lock_guard guard(m_cs);
        if (m_bStopped) return kHostDriverStopped;
        if (m_Connections.empty()) return kHostNotConnected;
        pOp->iMessageId = m_iNextMessageId++;
        ZR_Store<uint32_t>(pOp->aMessage + offsetof(ZR_OperationHead, iReplyLength), sizeof(ZR_OperationReply));
        ZR_Store<uint64_t>(pOp->aMessage + offsetof(ZR_OperationHead, iMessageId), pOp->iMessageId);
        m_Operations[pOp->iMessageId] = pOp;
        if (m_Gets.empty()) {
            m_Queue.push_back(pOp);
        } else {
            get = m_Gets.front();
            m_Gets.pop_front();
            Deliver(*pOp, get);
        }
    }
    if (get.pOverlapped) FilterCompleteMessage(get.hConnection, get.pOverlapped, ERROR_SUCCESS, kOperationMessageSize);

    std::unique_lock lock(m_cs);
    if (!pOp->cvEnded.wait_for(lock, std::chrono::milliseconds(iTimeoutMs), [&] { return pOp->bEnded; })) {
        EndLocked(*pOp, kHostTimeout);
        m_Operations.erase(pOp->iMessageId);
        std::erase(m_Queue, pOp);
    }
    if (pOp->iResult == kHostSuccess) *pReply = pOp->Reply;
    return pOp->iResult;
}

bool ZR_OperationChannel::HasConnection() {
    std::lock_guard guard(m_cs);
    return !m_Connections.empty();
}

void ZR_OperationChannel::Stop() {
    std::deque<PendingGet> gets;
    {
        std::lock_guard guard(m_cs);
        m_bStopped = true;
        gets.swap(m_Gets);
        for (auto& [iId, pOp] : m_Operations) EndLocked(*pOp, kHostDriverStopped);
        m_Operations.clear();
        m_Queue.clear();
    }
    for (const PendingGet& get : gets)
        FilterCompleteMessage(get.hConnection, get.pOverlapped, ERROR_OPERATION_ABORTED, 0);
}

void ZR_OperationChannel::Deliver(Operation& op, const PendingGet& get) {
    std::memcpy(get.pMessage, op.aMessage, kOperationMessageSize);
    op.hConnection = get.hConnection;
}

void ZR_OperationChannel::EndLocked(Operation& op, ZR_HostStatus iResult) {
    if (op.bEnded) return;
    op.bEnded = true;
    op.iResult = iResult;
    op.cvEnded.notify_all();
}
