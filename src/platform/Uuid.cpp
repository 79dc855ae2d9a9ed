// GUIDs: sequential creation and the 8-4-4-4-12 text form.
//
// UuidCreateSequential makes version-1 style GUIDs from a 60-bit counter
// that starts at the time of the first call (100 ns since 1582) and grows by
// one per GUID, laid out most significant first across Data1, Data2 and
// Data3. So a GUID compares greater, field by field and as text, than every
// one made before it in this process. The node bytes are random with the
// multicast bit set, as for a machine without a network address.
#include "platform/win32.h"

#include <mutex>
#include <random>
#include <time.h>

namespace {

constexpr uint64_t kGregorianToUnix100ns = 0x01B21DD213814000ull;

struct SequentialState {
    std::mutex lock;
    uint64_t counter = 0;
    uint8_t node[8] = {};
    bool started = false;

    void Start() {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        counter = kGregorianToUnix100ns + static_cast<uint64_t>(now.tv_sec) * 10000000ull +
                  static_cast<uint64_t>(now.tv_nsec) / 100;
        std::random_device random;
        for (uint8_t& byte : node)
            byte = static_cast<uint8_t>(random());
        node[0] = static_cast<uint8_t>(0x80 | (node[0] & 0x3F));  // RFC 4122 variant
        node[2] |= 0x01;                                             // multicast: not a real address
        started = true;
    }
};

int HexValue(wchar_t c) {
    if (c >= L'0' && c <= L'9')
        return c - L'0';
    if (c >= L'a' && c <= L'f')
        return c - L'a' + 10;
    if (c >= L'A' && c <= L'F')
        return c - L'A' + 10;
    return -1;
}

// Reads `digits` hex digits at text[at]; false on any other character.
bool ReadHex(const wchar_t* text, size_t at, int digits, uint64_t& value) {
    value = 0;
    for (int i = 0; i < digits; ++i) {
        int digit = HexValue(text[at + i]);
        if (digit < 0)
            return false;
        value = (value << 4) | static_cast<uint64_t>(digit);
    }
    return true;
}

}  // namespace

RPC_STATUS UuidCreateSequential(UUID* Uuid) {
    static SequentialState state;
    std::lock_guard guard(state.lock);
    if (!state.started)
        state.Start();
    uint64_t value = ++state.counter & 0x0FFFFFFFFFFFFFFFull;
    Uuid->Data1 = static_cast<uint32_t>(value >> 28);
    Uuid->Data2 = static_cast<uint16_t>(value >> 12);
    Uuid->Data3 = static_cast<uint16_t>(0x1000 | (value & 0x0FFF));
    std::copy(state.node, state.node + 8, Uuid->Data4);
    return RPC_S_OK;
}

RPC_STATUS UuidFromStringW(RPC_WSTR StringUuid, UUID* Uuid) {
    if (!StringUuid) {
        *Uuid = GUID_NULL;
        return RPC_S_OK;
    }
    // Offsets and lengths of the hex groups; hyphens stand between them.
    static const struct {
        size_t at;
        int digits;
    } kGroups[] = {{0, 8}, {9, 4}, {14, 4}, {19, 2}, {21, 2}, {24, 2}, {26, 2}, {28, 2}, {30, 2}, {32, 2}, {34, 2}};
    if (std::wcslen(StringUuid) != 36 || StringUuid[8] != L'-' || StringUuid[13] != L'-' ||
        StringUuid[18] != L'-' || StringUuid[23] != L'-')
        return RPC_S_INVALID_STRING_UUID;
    uint64_t values[11];
    for (size_t i = 0; i < 11; ++i)
        if (!ReadHex(StringUuid, kGroups[i].at, kGroups[i].digits, values[i]))
            return RPC_S_INVALID_STRING_UUID;
    Uuid->Data1 = static_cast<uint32_t>(values[0]);
    Uuid->Data2 = static_cast<uint16_t>(values[1]);
    Uuid->Data3 = static_cast<uint16_t>(values[2]);
    for (size_t i = 0; i < 8; ++i)
        Uuid->Data4[i] = static_cast<uint8_t>(values[3 + i]);
    return RPC_S_OK;
}

RPC_STATUS UuidToStringW(const UUID* Uuid, RPC_WSTR* StringUuid) {
    auto* text = static_cast<wchar_t*>(std::malloc(37 * sizeof(wchar_t)));
    if (!text)
        return ERROR_OUTOFMEMORY;
    const uint8_t* d = Uuid->Data4;
    std::swprintf(text, 37, L"%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", Uuid->Data1, Uuid->Data2,
                  Uuid->Data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
    *StringUuid = text;
    return RPC_S_OK;
}

RPC_STATUS RpcStringFreeW(RPC_WSTR* String) {
    if (String) {
        std::free(*String);
        *String = nullptr;
    }
    return RPC_S_OK;
}
