// Base64 in both directions. Requests carry standard base64 without line breaks; answers
// (JSON Web Keys, tokens, signatures) may use the URL-safe alphabet and drop the padding,
// which CryptStringToBinaryW does not accept, so every decoder normalises first.
#include <windows.h>

#include <wincrypt.h>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "support/bldstr.h"
#include "support/handles.h"
#include "support/log.h"

namespace {

// A calloc'd copy with "-" -> "+", "_" -> "/" and "=" up to a multiple of four, any length (a
// certificate of 64 KB is 87 K characters); the caller wipes and frees it (UniqueWipedText). Null for no text,
// and for text whose length leaves a lone character after the last group of four: that can
// never be whole bytes, and decoders would otherwise hand back a byte made up of it.
WCHAR *NormalisedBase64(const WCHAR *pszBase64)
{
    if (!pszBase64)
        return nullptr;
    size_t cch = wcslen(pszBase64);
    size_t cchData = cch;
    while (cchData > 0 && pszBase64[cchData - 1] == L'=')
        cchData--;
    if (cchData % 4 == 1)
        return nullptr;
    auto *pszOut = static_cast<WCHAR *>(calloc(cch + 4, sizeof(WCHAR)));
    if (!pszOut)
        return nullptr;
    for (size_t i = 0; i < cch; i++) {
        WCHAR ch = pszBase64[i];
        pszOut[i] = ch == L'-' ? L'+' : ch == L'_' ? L'/' : ch;
    }
    while (cch % 4 != 0)
        pszOut[cch++] = L'=';
    return pszOut;
}

} // namespace

int BldBinFromBase64(const WCHAR *pszBase64, BYTE *pbOut, DWORD *pcbOut)
{
    LogMsg(L"BldBinFromBase64", KSP_LOG_TRACE);
    UniqueWipedText text(NormalisedBase64(pszBase64)); // may be a token or a protected secret
    if (!text)
        return 0;
    return CryptStringToBinaryW(text.get(), 0, CRYPT_STRING_BASE64_ANY, pbOut, pcbOut, nullptr, nullptr);
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
    if (!pcbOut)
        return 0;
    UniqueWipedText text(NormalisedBase64(pszBase64));
    if (!text) {
        LogMsg(L"KVCKKVKSP_FromBase64 Not Whole Bytes", KSP_LOG_FAILURE);
        return 0;
    }
    const WCHAR *szBase64 = text.get();

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
    UniqueWipedText text(NormalisedBase64(pszBase64)); // the DPAPI text of the client secret comes this way
    if (!text) {
        LogMsg(L"KKVKSP_FromBase64 Not Whole Bytes", KSP_LOG_FAILURE);
        return 0;
    }
    if (!CryptStringToBinaryW(text.get(), 0, CRYPT_STRING_BASE64_ANY, pbOut, pcbOut, nullptr, nullptr)) {
        LogMsg(L"KKVKSP_FromBase64 CryptStringToBinary Failed", KSP_LOG_FAILURE);
        return 0;
    }
    return 1;
}
