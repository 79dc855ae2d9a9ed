#include "platform/KernelObject.h"

#include "platform/FileCallsTesting.h"

#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace zr::platform {

namespace {

// The registry of live handles. Lookups share the lock; opening and
// closing take it alone.
struct Registry {
    std::shared_mutex lock;
    std::unordered_map<void*, std::shared_ptr<KernelObject>> objects;
};

Registry& TheRegistry() {
    static Registry* registry = new Registry;  // outlives every static destructor
    return *registry;
}

}  // namespace

KernelObject::~KernelObject() = default;

HANDLE RegisterHandle(std::shared_ptr<KernelObject> object) {
    Registry& registry = TheRegistry();
    HANDLE handle = object.get();
    std::unique_lock guard(registry.lock);
    registry.objects.emplace(handle, std::move(object));
    return handle;
}

std::shared_ptr<KernelObject> LookupHandle(HANDLE handle) {
    if (handle != nullptr && handle != INVALID_HANDLE_VALUE) {
        Registry& registry = TheRegistry();
        std::shared_lock guard(registry.lock);
        auto it = registry.objects.find(handle);
        if (it != registry.objects.end())
            return it->second;
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

bool UnregisterHandle(HANDLE handle) {
    std::shared_ptr<KernelObject> object;
    {
        Registry& registry = TheRegistry();
        std::unique_lock guard(registry.lock);
        auto it = registry.objects.find(handle);
        if (it == registry.objects.end()) {
            SetLastError(ERROR_INVALID_HANDLE);
            return false;
        }
        object = std::move(it->second);
        registry.objects.erase(it);
    }
    object->OnClose();
    return true;  // `object` goes here unless a call in flight still holds it
}

size_t CountHandles() {
    Registry& registry = TheRegistry();
    std::shared_lock guard(registry.lock);
    return registry.objects.size();
}

size_t CountHandles(KernelObject::Type type) {
    Registry& registry = TheRegistry();
    std::shared_lock guard(registry.lock);
    size_t count = 0;
    for (const auto& entry : registry.objects)
        count += entry.second->type() == type ? 1 : 0;
    return count;
}

namespace testing {

size_t OpenFileHandleCount() { return CountHandles(KernelObject::Type::File); }
size_t OpenHandleCount() { return CountHandles(); }

}  // namespace testing

}  // namespace zr::platform
