#include "support/ByteDamage.h"

#include <algorithm>

namespace zrtest {

std::vector<std::uint8_t> ByteDamage::Damage(const std::vector<std::uint8_t>& good, std::size_t iFrom) {
    std::vector<std::uint8_t> bytes = good;
    if (iFrom >= bytes.size())
        return bytes;
    std::size_t iRange = bytes.size() - iFrom;
    // Mostly the full 1%, sometimes a handful of bytes, so that some images
    // get past the first checks and reach the deeper records.
    std::size_t iMost = std::max<std::size_t>(1, iRange / 100);
    std::size_t iCount = Pick(4) == 0 ? 1 + Pick(std::min<std::size_t>(iMost, 4)) : iMost;
    for (std::size_t i = 0; i < iCount; ++i)
        bytes[iFrom + Pick(iRange)] = static_cast<std::uint8_t>(Pick(256));
    return bytes;
}

std::size_t ByteDamage::Pick(std::size_t iBound) {
    return std::uniform_int_distribution<std::size_t>(0, iBound - 1)(m_rng);
}

std::vector<std::size_t> CutLengths(std::size_t iSize, std::size_t iDense, std::size_t iStep) {
    std::vector<std::size_t> a;
    for (std::size_t i = 0; i < iSize; i += i < iDense ? 1 : iStep)
        a.push_back(i);
    for (std::size_t i = iSize > 8 ? iSize - 8 : 0; i < iSize; ++i)
        a.push_back(i);
    return a;
}

}  // namespace zrtest
