// The C runtime's wide-named stream functions, which the map files use for
// their buffered plug. Names are converted to UTF-8 and '\' to '/'.
#pragma once

#include <cstdint>
#include <cstdio>

FILE* _wfopen(const wchar_t* wszName, const wchar_t* wszMode);
int _fseeki64(FILE* pFile, int64_t iOffset, int iOrigin);
int64_t _ftelli64(FILE* pFile);
