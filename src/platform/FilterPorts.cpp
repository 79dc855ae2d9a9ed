// The registry of in-process ports. A connection is a kernel object of this
// layer, so CloseHandle closes it like any other handle; it holds its port
// weakly, and a port that has been unregistered fails the calls of the
// connections made to it.
#include "platform/fltuser.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/KernelObject.h"

namespace {

struct Port {
    FilterPortHandlers handlers;
};

class PortConnection : public zr::platform::KernelObject {
public:
    static constexpr Type kType = Type::FilterPort;
    explicit PortConnection(std::shared_ptr<Port> pPort) : KernelObject(kType), m_pPort(pPort) {}
    std::shared_ptr<Port> port() const { return m_pPort.lock(); }
    // The port, if it is still registered, hears of the close.
    void OnClose() override {
        if (std::shared_ptr<Port> pPort = port(); pPort && pPort->handlers.disconnect)
            pPort->handlers.disconnect(static_cast<KernelObject*>(this));  // the handle it had
    }

private:
    std::weak_ptr<Port> m_pPort;
};

struct Registry {
    std::mutex mutex;
    std::map<std::wstring, std::shared_ptr<Port>> ports;
    FilterAttachHandler attach;
};

Registry& TheRegistry() {
    static Registry* pRegistry = new Registry();  // never destroyed: ports may be used during exit
    return *pRegistry;
}

std::shared_ptr<Port> PortOfName(LPCWSTR wszName) {
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.ports.find(wszName);
    return it == r.ports.end() ? nullptr : it->second;
}

std::shared_ptr<Port> PortOfConnection(HANDLE h) {
    std::shared_ptr<PortConnection> pConnection = zr::platform::LookupHandleAs<PortConnection>(h);
    return pConnection ? pConnection->port() : nullptr;
}

constexpr HRESULT kNotSupported = HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
constexpr HRESULT kBadHandle = HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);

}  // namespace

HRESULT FilterConnectCommunicationPort(LPCWSTR lpPortName, DWORD, LPCVOID lpContext, WORD wSizeOfContext,
                                       LPSECURITY_ATTRIBUTES, HANDLE* hPort) {
    if (!hPort || !lpPortName)
        return E_INVALIDARG;
    *hPort = INVALID_HANDLE_VALUE;
    std::shared_ptr<Port> pPort = PortOfName(lpPortName);
    if (!pPort)
        return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    HANDLE h = zr::platform::RegisterHandle(std::make_shared<PortConnection>(pPort));
    HRESULT hr = pPort->handlers.connect ? pPort->handlers.connect(h, lpContext, wSizeOfContext) : S_OK;
    if (FAILED(hr)) {
        CloseHandle(h);
        return hr;
    }
    *hPort = h;
    return S_OK;
}

HRESULT FilterSendMessage(HANDLE hPort, LPVOID lpInBuffer, DWORD dwInBufferSize, LPVOID lpOutBuffer,
                          DWORD dwOutBufferSize, LPDWORD lpBytesReturned) {
    if (lpBytesReturned)
        *lpBytesReturned = 0;
    std::shared_ptr<Port> pPort = PortOfConnection(hPort);
    if (!pPort)
        return kBadHandle;
    if (!pPort->handlers.send)
        return kNotSupported;
    DWORD cbReturned = 0;
    HRESULT hr = pPort->handlers.send(hPort, lpInBuffer, dwInBufferSize, lpOutBuffer, dwOutBufferSize, &cbReturned);
    if (lpBytesReturned)
        *lpBytesReturned = cbReturned;
    return hr;
}

HRESULT FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer, DWORD dwMessageBufferSize,
                         LPOVERLAPPED lpOverlapped) {
    std::shared_ptr<Port> pPort = PortOfConnection(hPort);
    if (!pPort)
        return kBadHandle;
    if (!pPort->handlers.get)
        return kNotSupported;
    return pPort->handlers.get(hPort, lpMessageBuffer, dwMessageBufferSize, lpOverlapped);
}

HRESULT FilterReplyMessage(HANDLE hPort, PFILTER_REPLY_HEADER lpReplyBuffer, DWORD dwReplyBufferSize) {
    std::shared_ptr<Port> pPort = PortOfConnection(hPort);
    if (!pPort)
        return kBadHandle;
    if (!pPort->handlers.reply)
        return kNotSupported;
    return pPort->handlers.reply(hPort, lpReplyBuffer, dwReplyBufferSize);
}

HRESULT FilterAttach(LPCWSTR lpFilterName, LPCWSTR lpVolumeName, LPCWSTR lpInstanceName,
                     DWORD dwCreatedInstanceNameLength, LPWSTR lpCreatedInstanceName) {
    FilterAttachHandler attach;
    {
        Registry& r = TheRegistry();
        std::lock_guard<std::mutex> lock(r.mutex);
        attach = r.attach;
    }
    if (!attach)
        return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    return attach(lpFilterName, lpVolumeName, lpInstanceName, dwCreatedInstanceNameLength, lpCreatedInstanceName);
}

bool FilterRegisterPort(LPCWSTR wszPortName, FilterPortHandlers handlers) {
    if (!wszPortName)
        return false;
    auto pPort = std::make_shared<Port>(Port{std::move(handlers)});
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.ports.emplace(wszPortName, std::move(pPort)).second;
}

bool FilterUnregisterPort(LPCWSTR wszPortName) {
    if (!wszPortName)
        return false;
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.ports.erase(wszPortName) == 1;
}

void FilterCompleteMessage(HANDLE hConnection, LPOVERLAPPED lpOverlapped, DWORD dwError, DWORD cbBytes) {
    std::shared_ptr<PortConnection> pConnection = zr::platform::LookupHandleAs<PortConnection>(hConnection);
    if (pConnection && lpOverlapped)
        zr::platform::CompleteOverlapped(*pConnection, lpOverlapped, dwError, cbBytes);
}

void FilterSetAttachHandler(FilterAttachHandler handler) {
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.attach = std::move(handler);
}
