// The growable wide string every URL, header, body and registry value is built in.
#pragma once

#include <windows.h>

struct BldStr {
    DWORD capacity; // bytes behind cStr, terminator included
    DWORD length;   // wide characters in use, terminator excluded
    WCHAR *cStr;    // always zero-terminated while the record lives
};
