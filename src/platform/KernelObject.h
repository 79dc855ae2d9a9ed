// The handle model of the platform layer. Every HANDLE handed out here is
// the address of a KernelObject that stands in one process-wide registry;
// a handle that is not in the registry (null, INVALID_HANDLE_VALUE, closed,
// or of the wrong type) is refused with ERROR_INVALID_HANDLE and never
// dereferenced.
//
// Objects are held by shared_ptr: CloseHandle takes the object out of the
// registry, and it is destroyed when the last call that looked it up has
// returned. So a handle closed on one thread while another thread is inside
// ReadFile on it cannot pull the descriptor away under the read.
//
// Internal to src/platform (the filter-port stand-in derives from it too).
#pragma once

#include "platform/win32.h"

#include <memory>

namespace zr::platform {

class CompletionPort;

class KernelObject {
public:
    enum class Type { File, Event, Mutex, Semaphore, Thread, CompletionPort, Mapping, Find, FilterPort, Other };

    explicit KernelObject(Type type) : m_type(type) {}
    virtual ~KernelObject();
    KernelObject(const KernelObject&) = delete;
    KernelObject& operator=(const KernelObject&) = delete;

    Type type() const { return m_type; }

    // Called by CloseHandle once the handle has left the registry, before
    // the last reference goes; wakes anything blocked on the object.
    virtual void OnClose() {}

    // The completion port that I/O on this object reports to
    // (CreateIoCompletionPort), with the key given at association. Set once,
    // before I/O is started on the object.
    std::shared_ptr<CompletionPort> m_port;
    ULONG_PTR m_completionKey = 0;

private:
    const Type m_type;
};

// Enters an object into the registry and returns its handle.
HANDLE RegisterHandle(std::shared_ptr<KernelObject> object);

// The object behind a handle, or null with ERROR_INVALID_HANDLE set.
std::shared_ptr<KernelObject> LookupHandle(HANDLE handle);

// The object behind a handle if it has the type T::kType, else null with
// ERROR_INVALID_HANDLE set.
template <class T>
std::shared_ptr<T> LookupHandleAs(HANDLE handle) {
    std::shared_ptr<KernelObject> object = LookupHandle(handle);
    if (object && object->type() == T::kType)
        return std::static_pointer_cast<T>(object);
    if (object)
        SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

// Takes a handle out of the registry and calls OnClose; false with
// ERROR_INVALID_HANDLE when it was not there.
bool UnregisterHandle(HANDLE handle);

// Handles in the registry, of one type or of all.
size_t CountHandles();
size_t CountHandles(KernelObject::Type type);

// Ends an I/O on `object` that the caller described with `overlapped`:
// stores the Win32 status in Internal and the byte count in InternalHigh,
// sets hEvent (without its low bit), and queues a completion packet on the
// object's port unless the low bit of hEvent is set. Keeps GetLastError.
void CompleteOverlapped(KernelObject& object, OVERLAPPED* overlapped, DWORD error, DWORD bytes);

// The first half of CompleteOverlapped: stores the result and sets the
// event, queues nothing (I/O on a synchronous handle). Keeps GetLastError.
void StoreOverlappedResult(OVERLAPPED* overlapped, DWORD error, DWORD bytes);

// The status stored in OVERLAPPED::Internal while an I/O has not completed.
constexpr ULONG_PTR kStatusPending = 0x103;

}  // namespace zr::platform
