#include "filterdriver/ZR_HydrationWriter.h"

#include <algorithm>
#include <atomic>
#include <cstddef>

#include "diag/ZR_Error.h"

void ZR_HydrationWriter::SetThreads(uint32_t iThreads) {
    std::lock_guard guard(m_cs);
    m_iWanted = std::clamp<uint32_t>(iThreads, 1, 64);
}

void ZR_HydrationWriter::Post(Job job, bool bNow) {
    {
        std::lock_guard guard(m_cs);
        if (!bNow && !m_bStopping) {
            m_Jobs.push_back(std::move(job));
            if (m_aThreads.size() < m_iWanted) m_aThreads.emplace_back(&ZR_HydrationWriter::ThreadProc, this);
            m_cvWork.notify_one();
            return;
        }
    }
    Run(job);
}

void ZR_HydrationWriter::Stop() {
    {
        std::lock_guard guard(m_cs);
        m_bStopping = true;
    }
    m_cvWork.notify_all();
    for (std::thread& thread : m_aThreads) thread.join();
    m_aThreads.clear();
}

void ZR_HydrationWriter::SignalFinished(ZR_CompletionHeader* pHeader) {
    auto* pBytes = reinterpret_cast<uint8_t*>(pHeader);
    std::atomic_ref<uint32_t> completed(
        *reinterpret_cast<uint32_t*>(pBytes + offsetof(ZR_CompletionHeader, iCompleted)));
    uint32_t iOld = completed.load();
    while (!completed.compare_exchange_weak(iOld, iOld * 2)) {
    }
    std::atomic_ref<uint8_t>(pBytes[offsetof(ZR_CompletionHeader, bCompletedToggle)]).fetch_xor(0xFF);
}

// The header is signalled whatever happened: the library waits on it
// before it uses the buffer again.
void ZR_HydrationWriter::Run(Job& job) {
    try {
        uint32_t cbTaken = 0;
        job.pFile->Hydrate(job.iFirstPage, job.iCount, job.pPages, nullptr, &cbTaken);
    } catch (...) {
        ZR_Error(nullptr, __FILE__, "ZR_HydrationWriter::Run", __LINE__,
                 "Driver: an exception ended a write of hydrated pages\n");
    }
    SignalFinished(job.pHeader);
}

// Leaves only when stopping and nothing is queued, so that every header
// the library waits on is signalled.
void ZR_HydrationWriter::ThreadProc() {
    try {
        for (;;) {
            Job job;
            {
                std::unique_lock lock(m_cs);
                m_cvWork.wait(lock, [&] { return m_bStopping || !m_Jobs.empty(); });
                if (m_Jobs.empty()) return;
                job = std::move(m_Jobs.front());
                m_Jobs.pop_front();
            }
            Run(job);
        }
    } catch (...) {
        ZR_Error(nullptr, __FILE__, "ZR_HydrationWriter::ThreadProc", __LINE__,
                 "Driver: a writer of hydrated pages ended on an exception\n");
    }
}
