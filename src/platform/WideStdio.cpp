#include "platform/WideStdio.h"

#include "platform/PathNames.h"

#include <string>

#include <unistd.h>


FILE* _wfopen(const wchar_t* wszName, const wchar_t* wszMode) {
    if (!wszName || !wszMode)
        return nullptr;
    std::string mode;
    for (const wchar_t* p = wszMode; *p; ++p)
        mode += static_cast<char>(*p);
    mode += 'e';  // close on exec, as every open of the library
    return std::fopen(zr::platform::SystemPath(wszName).c_str(), mode.c_str());
}

int _fseeki64(FILE* pFile, int64_t iOffset, int iOrigin) {
    return fseeko(pFile, static_cast<off_t>(iOffset), iOrigin);
}

int64_t _ftelli64(FILE* pFile) {
    return static_cast<int64_t>(ftello(pFile));
}

int _fileno(FILE* pFile) { return fileno(pFile); }

int _isatty(int iFd) { return isatty(iFd); }
