// The growable wide string every URL, header, body and registry value is built in, and the
// conversions between wide text, narrow text (CP_ACP), hexadecimal and base64.
// Memory: records and texts returned here come from calloc/realloc and are released with
// BldStrFree (for BldStr) or free (for everything else), by the caller.
#pragma once

#include <windows.h>

#include <stdlib.h>

#include <memory>

struct BldStr {
    DWORD capacity; // bytes behind cStr, terminator included
    DWORD length;   // wide characters in use, terminator excluded
    WCHAR *cStr;    // always zero-terminated while the record lives
};

BldStr *BldStrNewStr(const WCHAR *str);
BldStr *BldStrNewStrFromAscii(const char *str);
int BldStrCat(BldStr *pstr, const WCHAR *stradd);
int BldStrCatAscii(BldStr *pstr, const char *stradd);
int BldStrCatNum(BldStr *pstr, int num);
BldStr *BldStrReplace(BldStr *pstr, const WCHAR *str);
BldStr *BldStrRemove(BldStr *pstr, WCHAR ch);
void BldStrFree(BldStr *pstr);
BldStr *BldStrNewHexStr(const BYTE *pb, DWORD cb);
// REG_SZ "CertSync" of HKEY_LOCAL_MACHINE (fMachine) or HKEY_CURRENT_USER; empty when absent.
BldStr *BldStrGetWStringValue(BOOL fMachine);

char *WStrToBytesStr(const WCHAR *str);
// The same in UTF-8: what every JSON request body is sent as, whatever the system code page.
char *WStrToUtf8(const WCHAR *str);
// The reverse: a calloc'd wide copy of narrow text in the system code page; null when it cannot
// be made (null text included).
WCHAR *BytesStrToWStr(const char *psz);

// Decoders accept standard and URL-safe base64, with or without padding.
int BldBinFromBase64(const WCHAR *pszBase64, BYTE *pbOut, DWORD *pcbOut);
WCHAR *KVCKKVKSP_ToBase64(const BYTE *pb, DWORD cb); // standard alphabet, padded, no line breaks
int KVCKKVKSP_FromBase64(const WCHAR *pszBase64, BYTE **ppbOut, DWORD *pcbOut, BOOL fAllocate);
int KKVKSP_FromBase64(const WCHAR *pszBase64, BYTE *pbOut, DWORD *pcbOut);

// Owners for what this library hands out, so that every early return releases it.
struct BldStrDelete {
    void operator()(BldStr *p) const { BldStrFree(p); }
};
using BldStrPtr = std::unique_ptr<BldStr, BldStrDelete>;
struct FreeDelete {
    void operator()(void *p) const { free(p); }
};
template <typename T> using CallocPtr = std::unique_ptr<T, FreeDelete>;

// Writes a REG_SZ under Software\Kestal\KestalKeyVaultKSP of HKEY_LOCAL_MACHINE (fMachine) or
// HKEY_CURRENT_USER. The key is opened, never created. TRUE when the value was written.
BOOL KestalRegSetString(BOOL fMachine, const WCHAR *pszValueName, const WCHAR *pszValue);
