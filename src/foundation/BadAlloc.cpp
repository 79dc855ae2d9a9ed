#include "foundation/BadAlloc.h"

#include <cstdio>

const char* BadAlloc::what() const noexcept {
    std::snprintf(m_szText, sizeof(m_szText), "Failed to allocate %u bytes.", m_cb);
    return m_szText;
}
