// BldStr: the growable wide string, and the wide/narrow/hex conversions.
#include "support/bldstr.h"

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "support/handles.h"
#include "support/log.h"

namespace {

// The one growth rule: exactly (length + added) * 2 + 2 bytes, no slack. Callers build
// strings a piece at a time, so memory stays tight at the cost of a new block per append. The
// block is moved by hand rather than by realloc so that the old one (a token, a secret, a header
// block) is zeroed before it goes back.
int BldStrAppend(BldStr *pstr, const WCHAR *pszAdd, DWORD cchAdd)
{
    if (cchAdd > (MAXDWORD - 2) / 2 - pstr->length) {
        LogMsg(L"BldStrFree BldStrCat realloc returned NULL", KSP_LOG_FAILURE);
        return 0;
    }
    DWORD cbNeeded = (pstr->length + cchAdd) * 2 + 2;
    WCHAR *pOld = nullptr;
    DWORD cbOld = pstr->capacity;
    if (cbNeeded > pstr->capacity) {
        WCHAR *pNew = static_cast<WCHAR *>(calloc(cbNeeded, 1));
        if (!pNew) {
            LogMsg(L"BldStrFree BldStrCat realloc returned NULL", KSP_LOG_FAILURE);
            return 0;
        }
        memcpy(pNew, pstr->cStr, pstr->length * sizeof(WCHAR));
        pOld = pstr->cStr;
        pstr->cStr = pNew;
        pstr->capacity = cbNeeded;
    }
    // One by one: the text may lie inside the string's own (old) buffer, so that buffer goes last.
    for (DWORD i = 0; i < cchAdd; i++)
        pstr->cStr[pstr->length + i] = pszAdd[i];
    pstr->length += cchAdd;
    pstr->cStr[pstr->length] = 0;
    if (pOld) {
        SecureZeroMemory(pOld, cbOld);
        free(pOld);
    }
    return 1;
}

BldStr *BldStrAllocate(DWORD cbCapacity)
{
    BldStr *pstr = static_cast<BldStr *>(calloc(1, sizeof(BldStr)));
    if (!pstr)
        return nullptr;
    pstr->cStr = static_cast<WCHAR *>(calloc(cbCapacity, 1));
    if (!pstr->cStr) {
        free(pstr);
        return nullptr;
    }
    pstr->capacity = cbCapacity;
    return pstr;
}

} // namespace

BldStr *BldStrNewStr(const WCHAR *str)
{
    if (!str) {
        LogMsg(L"BldStrNewStr NULL str", KSP_LOG_FAILURE);
        return nullptr;
    }
    BldStr *pstr = static_cast<BldStr *>(calloc(1, sizeof(BldStr)));
    // The first append allocates exactly n * 2 + 2 bytes.
    if (!pstr || !BldStrAppend(pstr, str, static_cast<DWORD>(wcslen(str)))) {
        LogMsg(L"BldStrNewStr NULL str", KSP_LOG_FAILURE);
        BldStrFree(pstr);
        return nullptr;
    }
    return pstr;
}

BldStr *BldStrNewStrFromAscii(const char *str)
{
    if (!str) {
        LogMsg(L"BldStrNewStrFromAscii NULL str", KSP_LOG_FAILURE);
        return nullptr;
    }
    BldStr *pstr = static_cast<BldStr *>(calloc(1, sizeof(BldStr)));
    if (!pstr) {
        LogMsgError(L"BldStrNewStrFromAscii memory allocation failed", GetLastError(), KSP_LOG_FAILURE);
        return nullptr;
    }
    int cch = MultiByteToWideChar(CP_ACP, 0, str, -1, nullptr, 0);
    if (cch < 1) {
        LogMsgError(L"BldStrNewStrFromAscii MultiByteToWideChar 1 failed", GetLastError(), KSP_LOG_FAILURE);
        free(pstr);
        return nullptr;
    }
    pstr->cStr = static_cast<WCHAR *>(calloc(cch, sizeof(WCHAR)));
    if (!pstr->cStr) {
        LogMsgError(L"BldStrNewStrFromAscii string memory allocation failed", GetLastError(), KSP_LOG_FAILURE);
        free(pstr);
        return nullptr;
    }
    pstr->capacity = static_cast<DWORD>(cch * sizeof(WCHAR));
    if (MultiByteToWideChar(CP_ACP, 0, str, -1, pstr->cStr, cch) < 1) {
        LogMsgError(L"BldStrNewStrFromAscii MultiByteToWideChar 2 failed", GetLastError(), KSP_LOG_FAILURE);
        BldStrFree(pstr);
        return nullptr;
    }
    pstr->length = static_cast<DWORD>(wcsnlen(pstr->cStr, cch - 1));
    return pstr;
}

int BldStrCat(BldStr *pstr, const WCHAR *stradd)
{
    if (!pstr || !stradd) {
        LogMsg(L"BldStrFree BldStrCat pstr or stradd NULL", KSP_LOG_WARNING);
        return 0;
    }
    return BldStrAppend(pstr, stradd, static_cast<DWORD>(wcslen(stradd)));
}

int BldStrCatAscii(BldStr *pstr, const char *stradd)
{
    int cch = stradd ? MultiByteToWideChar(CP_ACP, 0, stradd, -1, nullptr, 0) : 0;
    if (cch < 1)
        return 0;
    WCHAR *pszWide = static_cast<WCHAR *>(calloc(cch, sizeof(WCHAR)));
    if (!pszWide)
        return 0;
    int result = 0;
    if (MultiByteToWideChar(CP_ACP, 0, stradd, -1, pszWide, cch) > 0)
        result = BldStrCat(pstr, pszWide);
    free(pszWide);
    return result;
}

int BldStrCatNum(BldStr *pstr, int num)
{
    WCHAR szNum[41] = {};
    if (_itow_s(num, szNum, ARRAYSIZE(szNum), 10) != 0)
        return 0;
    return BldStrCat(pstr, szNum);
}

BldStr *BldStrReplace(BldStr *pstr, const WCHAR *str)
{
    if (!pstr || !str) {
        LogMsg(L"BldStrReplace NULL", KSP_LOG_WARNING);
        return pstr;
    }
    // Capacity never shrinks; a failed growth keeps the old text.
    DWORD cch = static_cast<DWORD>(wcslen(str));
    DWORD oldLength = pstr->length;
    pstr->length = 0;
    if (!BldStrAppend(pstr, str, cch))
        pstr->length = oldLength;
    return pstr;
}

BldStr *BldStrRemove(BldStr *pstr, WCHAR ch)
{
    if (!pstr || !pstr->cStr) {
        LogMsg(L"BldStrRemove NULL", KSP_LOG_WARNING);
        return pstr;
    }
    DWORD to = 0;
    for (DWORD from = 0; from < pstr->length; from++) {
        if (pstr->cStr[from] != ch)
            pstr->cStr[to++] = pstr->cStr[from];
    }
    pstr->cStr[to] = 0;
    pstr->length = static_cast<DWORD>(wcslen(pstr->cStr));
    return pstr;
}

void BldStrFree(BldStr *pstr)
{
    if (!pstr)
        return;
    // Strings carry tokens, client secrets and request headers: none is left behind in freed memory.
    if (pstr->cStr)
        SecureZeroMemory(pstr->cStr, pstr->capacity);
    free(pstr->cStr);
    pstr->cStr = nullptr;
    pstr->capacity = 0;
    pstr->length = 0;
    free(pstr);
}

BldStr *BldStrNewHexStr(const BYTE *pb, DWORD cb)
{
    static const WCHAR kDigits[] = L"0123456789ABCDEF";
    if (!pb)
        cb = 0;
    if (cb > (MAXDWORD - 2) / 6)
        return nullptr;
    BldStr *pstr = BldStrAllocate(cb * 6 + 2);
    if (!pstr)
        return nullptr;
    for (DWORD i = 0; i < cb; i++) {
        WCHAR pair[2] = {kDigits[pb[i] >> 4], kDigits[pb[i] & 0x0F]};
        BldStrAppend(pstr, pair, 2); // never grows: 6 bytes were reserved per byte
    }
    return pstr;
}

BldStr *BldStrGetWStringValue(BOOL fMachine)
{
    HKEY hive = fMachine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
    DWORD type = 0;
    DWORD cbValue = 0;
    if (RegGetValueW(hive, KSP_SETTINGS_KEY, L"CertSync", RRF_RT_ANY | RRF_NOEXPAND | KSP_SETTINGS_RRF_VIEW, &type,
                     nullptr, &cbValue) != ERROR_SUCCESS ||
        type != REG_SZ)
        cbValue = 0;

    // Four spare bytes keep the text terminated even when the stored value is not.
    BldStr *pstr = BldStrAllocate((cbValue + 4) / 2 * 2);
    if (!pstr) {
        LogMsg(L"BldStrGetWStringValue Allocate String Failed", KSP_LOG_FAILURE);
        return nullptr;
    }
    if (cbValue > 0) {
        DWORD cbRead = pstr->capacity - 2; // the last character stays 0
        if (RegGetValueW(hive, KSP_SETTINGS_KEY, L"CertSync", RRF_RT_ANY | RRF_NOEXPAND | KSP_SETTINGS_RRF_VIEW, &type,
                         pstr->cStr, &cbRead) != ERROR_SUCCESS ||
            type != REG_SZ)
            memset(pstr->cStr, 0, pstr->capacity);
    }
    pstr->length = static_cast<DWORD>(wcsnlen(pstr->cStr, pstr->capacity / 2 - 1));
    pstr->cStr[pstr->length] = 0;
    return pstr;
}

namespace {

char *Narrowed(UINT codePage, const WCHAR *str)
{
    if (!str)
        return nullptr;
    int cb = WideCharToMultiByte(codePage, 0, str, -1, nullptr, 0, nullptr, nullptr);
    if (cb < 1)
        return nullptr;
    char *psz = static_cast<char *>(calloc(cb, 1));
    if (!psz)
        return nullptr;
    if (WideCharToMultiByte(codePage, 0, str, -1, psz, cb, nullptr, nullptr) < 1) {
        free(psz);
        return nullptr;
    }
    return psz;
}

} // namespace

char *WStrToBytesStr(const WCHAR *str) { return Narrowed(CP_ACP, str); }

char *WStrToUtf8(const WCHAR *str) { return Narrowed(CP_UTF8, str); }

WCHAR *BytesStrToWStr(const char *psz)
{
    if (!psz)
        return nullptr;
    int cch = MultiByteToWideChar(CP_ACP, 0, psz, -1, nullptr, 0);
    if (cch < 1)
        return nullptr;
    auto *pwsz = static_cast<WCHAR *>(calloc(static_cast<size_t>(cch), sizeof(WCHAR)));
    if (pwsz && MultiByteToWideChar(CP_ACP, 0, psz, -1, pwsz, cch) != cch) {
        free(pwsz);
        return nullptr;
    }
    return pwsz;
}

BOOL KestalRegSetString(BOOL fMachine, const WCHAR *pszValueName, const WCHAR *pszValue)
{
    LogMsg2(L"KestalRegSetString", pszValueName, KSP_LOG_TRACE);
    if (!pszValueName || !pszValue)
        return FALSE;
    UniqueRegKey key;
    LSTATUS rc = RegOpenKeyExW(fMachine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER, KSP_SETTINGS_KEY, 0,
                               KEY_SET_VALUE | KSP_SETTINGS_VIEW, key.put());
    if (rc != ERROR_SUCCESS) {
        LogMsgError(L"KestalRegSetString RegOpenKeyExW Failed", static_cast<DWORD>(rc), KSP_LOG_WARNING);
        return FALSE;
    }
    DWORD cb = static_cast<DWORD>((wcslen(pszValue) + 1) * sizeof(WCHAR));
    rc = RegSetValueExW(key.get(), pszValueName, 0, REG_SZ, reinterpret_cast<const BYTE *>(pszValue), cb);
    if (rc != ERROR_SUCCESS) {
        LogMsgError(L"KestalRegSetString RegSetValueExW Failed", static_cast<DWORD>(rc), KSP_LOG_FAILURE);
        return FALSE;
    }
    return TRUE;
}
