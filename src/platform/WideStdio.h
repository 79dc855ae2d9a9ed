// The C runtime's wide-named stream functions, which the map files use for
// their buffered plug. Names are converted to UTF-8 and '\' to '/'. Also
// the runtime's test for a terminal, which the tools use to choose between
// a progress bar and plain lines.
#pragma once

#include <cstdint>
#include <cstdio>

FILE* _wfopen(const wchar_t* wszName, const wchar_t* wszMode);
int _fseeki64(FILE* pFile, int64_t iOffset, int iOrigin);
int64_t _ftelli64(FILE* pFile);
int _fileno(FILE* pFile);
// Not 0 when the descriptor is a terminal.
int _isatty(int iFd);
