// Damage of real inputs for the robustness tests: a seeded generator that
// overwrites about one byte in a hundred, so that every run of a test sees
// the same damaged images and a failure can be replayed from its iteration
// number alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace zrtest {

class ByteDamage {
public:
    explicit ByteDamage(std::uint32_t iSeed) : m_rng(iSeed) {}

    // A copy of good with bytes [iFrom, size) damaged: between one byte and
    // about 1% of them get a random value (which may be their own). Nothing
    // is damaged when the range is empty.
    std::vector<std::uint8_t> Damage(const std::vector<std::uint8_t>& good, std::size_t iFrom = 0);

    // A number in [0, iBound), for tests that choose among variants.
    std::size_t Pick(std::size_t iBound);

private:
    std::mt19937 m_rng;
};

// The lengths to cut an input of iSize bytes at: every length below iDense,
// then steps of iStep, then the last few.
std::vector<std::size_t> CutLengths(std::size_t iSize, std::size_t iDense, std::size_t iStep);

}  // namespace zrtest
