#include "driver/Lookup3.h"

#include <cstring>

#include "foundation/Unaligned.h"

namespace {

constexpr uint32_t Rot(uint32_t x, int k) { return (x << k) | (x >> (32 - k)); }

// Mixes three words reversibly, so that every input bit affects the state.
void Mix(uint32_t& a, uint32_t& b, uint32_t& c) {
    a -= c; a ^= Rot(c, 4);  c += b;
    b -= a; b ^= Rot(a, 6);  a += c;
    c -= b; c ^= Rot(b, 8);  b += a;
    a -= c; a ^= Rot(c, 16); c += b;
    b -= a; b ^= Rot(a, 19); a += c;
    c -= b; c ^= Rot(b, 4);  b += a;
}

// The last mixing, which makes every bit of c depend on every bit of a and b.
void Final(uint32_t& a, uint32_t& b, uint32_t& c) {
    c ^= b; c -= Rot(b, 14);
    a ^= c; a -= Rot(c, 11);
    b ^= a; b -= Rot(a, 25);
    c ^= b; c -= Rot(b, 16);
    a ^= c; a -= Rot(c, 4);
    b ^= a; b -= Rot(a, 14);
    c ^= b; c -= Rot(b, 24);
}

}  // namespace

uint32_t hashlittle(const void* pKey, size_t iLength, uint32_t iInitval) {
    const uint8_t* k = static_cast<const uint8_t*>(pKey);
    uint32_t a, b, c;
    a = b = c = 0xdeadbeef + static_cast<uint32_t>(iLength) + iInitval;
    for (; iLength > 12; iLength -= 12, k += 12) {
        a += ZR_Load<uint32_t>(k);
        b += ZR_Load<uint32_t>(k + 4);
        c += ZR_Load<uint32_t>(k + 8);
        Mix(a, b, c);
    }
    if (iLength == 0) return c;
    // The last 1 to 12 bytes, as words of a zero-padded block.
    uint8_t aLast[12] = {};
    std::memcpy(aLast, k, iLength);
    a += ZR_Load<uint32_t>(aLast);
    b += ZR_Load<uint32_t>(aLast + 4);
    c += ZR_Load<uint32_t>(aLast + 8);
    Final(a, b, c);
    return c;
}
