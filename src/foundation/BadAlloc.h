// The exception of every failed allocation in the library: the wrappers of
// Alloc.h throw it instead of returning null, and nothing catches it short of
// a thread body or the caller of an export.
#pragma once

#include <new>

class BadAlloc : public std::bad_alloc {
public:
    explicit BadAlloc(unsigned cb) noexcept : m_cb(cb) { m_szText[0] = 0; }
    ~BadAlloc() override = default;

    // "Failed to allocate %u bytes.", written into the object's own buffer
    // so that no allocation is needed to report an allocation failure.
    const char* what() const noexcept override;

    unsigned m_cb;  // the size that was asked for

private:
    mutable char m_szText[48];
};
