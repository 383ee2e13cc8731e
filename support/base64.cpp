// Base64 in both directions. Requests carry standard base64 without line breaks; answers
// (JSON Web Keys, tokens, signatures) may use the URL-safe alphabet and drop the padding,
// which CryptStringToBinaryW does not accept, so every decoder normalises first.
#include <windows.h>

#include <wincrypt.h>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "support/bldstr.h"
#include "support/log.h"

namespace {

// Holds any value the vault sends back, with room for its padding.
constexpr size_t kLocalBase64Chars = 4093;

// "-" -> "+", "_" -> "/", then "=" up to a multiple of four. The local buffers have a fixed
// size: a longer input fails cleanly (false) rather than faulting the calling process.
bool NormaliseBase64(const WCHAR *pszBase64, WCHAR (&szOut)[kLocalBase64Chars])
{
    if (!pszBase64)
        return false;
    size_t cch = wcsnlen(pszBase64, kLocalBase64Chars);
    if (cch >= kLocalBase64Chars)
        return false;
    for (size_t i = 0; i < cch; i++) {
        WCHAR ch = pszBase64[i];
        szOut[i] = ch == L'-' ? L'+' : ch == L'_' ? L'/' : ch;
    }
    // At most 4,092 characters here, a multiple of four: padding always fits.
    while (cch % 4 != 0)
        szOut[cch++] = L'=';
    szOut[cch] = 0;
    return true;
}

} // namespace

int BldBinFromBase64(const WCHAR *pszBase64, BYTE *pbOut, DWORD *pcbOut)
{
    LogMsg(L"BldBinFromBase64", KSP_LOG_TRACE);
    BldStr *pstr = BldStrNewStr(pszBase64);
    if (!pstr)
        return 0;
    for (DWORD i = 0; i < pstr->length; i++) {
        if (pstr->cStr[i] == L'-')
            pstr->cStr[i] = L'+';
        else if (pstr->cStr[i] == L'_')
            pstr->cStr[i] = L'/';
    }
    while (pstr->length % 4 != 0) {
        if (!BldStrCat(pstr, L"="))
            break;
    }
    int result = CryptStringToBinaryW(pstr->cStr, 0, CRYPT_STRING_BASE64_ANY, pbOut, pcbOut, nullptr, nullptr);
    BldStrFree(pstr); // zeroes the text: it may be a token or a protected secret
    return result;
}

WCHAR *KVCKKVKSP_ToBase64(const BYTE *pb, DWORD cb)
{
    const DWORD dwFlags = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF;
    DWORD cch = 0;
    if (!CryptBinaryToStringW(pb, cb, dwFlags, nullptr, &cch)) {
        LogMsg(L"KVCKKVKSP_ToBase64 CryptBinaryToStringW 1 Failed", KSP_LOG_FAILURE);
        return nullptr;
    }
    WCHAR *psz = static_cast<WCHAR *>(calloc(static_cast<size_t>(cch) + 1, sizeof(WCHAR)));
    if (!psz) {
        LogMsg(L"KVCKKVKSP_ToBase64 Failed to allocate memory", KSP_LOG_FAILURE);
        return nullptr;
    }
    if (!CryptBinaryToStringW(pb, cb, dwFlags, psz, &cch)) {
        LogMsg(L"KVCKKVKSP_ToBase64 CryptBinaryToStringW 2 Failed", KSP_LOG_FAILURE);
        free(psz);
        return nullptr;
    }
    return psz;
}

int KVCKKVKSP_FromBase64(const WCHAR *pszBase64, BYTE **ppbOut, DWORD *pcbOut, BOOL fAllocate)
{
    WCHAR szBase64[kLocalBase64Chars];
    if (!pcbOut)
        return 0;
    if (!NormaliseBase64(pszBase64, szBase64)) {
        LogMsg(L"KVCKKVKSP_FromBase64 Input Too Long", KSP_LOG_FAILURE);
        return 0;
    }

    // The copy may hold a token or a protected secret: wiped on every way out.
    struct WipeOnExit {
        WCHAR *psz;
        ~WipeOnExit() { SecureZeroMemory(psz, kLocalBase64Chars * sizeof(WCHAR)); }
    } wipe{szBase64};

    DWORD cbDecoded = 0;
    if (!CryptStringToBinaryW(szBase64, 0, CRYPT_STRING_BASE64_ANY, nullptr, &cbDecoded, nullptr, nullptr)) {
        LogMsg(L"KVCKKVKSP_FromBase64 CryptStringToBinaryW 1 Failed", KSP_LOG_TRACE);
        return 0;
    }
    BYTE *pbDecoded = static_cast<BYTE *>(calloc(cbDecoded ? cbDecoded : 1, 1));
    if (!pbDecoded)
        return 0;
    int result = 0;
    BYTE *pbCaller = ppbOut ? *ppbOut : nullptr;
    if (!CryptStringToBinaryW(szBase64, 0, CRYPT_STRING_BASE64_ANY, pbDecoded, &cbDecoded, nullptr, nullptr)) {
        LogMsg(L"KVCKKVKSP_FromBase64 CryptStringToBinaryW 2 Failed", KSP_LOG_TRACE);
    } else if (pbCaller && *pcbOut < cbDecoded) {
        *pcbOut = cbDecoded; // too small: tell the caller what it needs
    } else {
        *pcbOut = cbDecoded;
        result = 1;
        if (!pbCaller && ppbOut && fAllocate) {
            // Two spare zero bytes: decoded text is always terminated.
            pbCaller = static_cast<BYTE *>(calloc(static_cast<size_t>(cbDecoded) + 2, 1));
            *ppbOut = pbCaller;
            result = pbCaller != nullptr;
        }
        if (pbCaller)
            memcpy(pbCaller, pbDecoded, cbDecoded);
    }
    // Decoded values include tokens and key material.
    SecureZeroMemory(pbDecoded, cbDecoded);
    free(pbDecoded);
    return result;
}

int KKVKSP_FromBase64(const WCHAR *pszBase64, BYTE *pbOut, DWORD *pcbOut)
{
    WCHAR szBase64[kLocalBase64Chars];
    if (!NormaliseBase64(pszBase64, szBase64)) {
        LogMsg(L"KKVKSP_FromBase64 Input Too Long", KSP_LOG_FAILURE);
        return 0;
    }
    BOOL decoded = CryptStringToBinaryW(szBase64, 0, CRYPT_STRING_BASE64_ANY, pbOut, pcbOut, nullptr, nullptr);
    SecureZeroMemory(szBase64, sizeof(szBase64)); // the DPAPI text of the client secret comes this way
    if (!decoded) {
        LogMsg(L"KKVKSP_FromBase64 CryptStringToBinary Failed", KSP_LOG_FAILURE);
        return 0;
    }
    return 1;
}
