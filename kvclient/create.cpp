// Key creation: the choice between a plain vault key and a certificate-backed one, and the
// plain key itself. Every key is asked for as a hardware-protected ("-HSM") key first; a vault
// that refuses it (a standard-tier vault answers 403) is asked again for a software key.
#include "kvclient/kvc.h"
#include "kvclient/algorithms.h"
#include "kvclient/kvjson.h"

#include <memory>

#include <stdlib.h>
#include <wchar.h>

namespace {

using NarrowText = std::unique_ptr<char, FreeDelete>;

bool Cat(BldStr *pstr, std::initializer_list<const WCHAR *> pieces)
{
    for (const WCHAR *piece : pieces)
        if (!BldStrCat(pstr, piece))
            return false;
    return true;
}

// The create body, pieces in this order:
//   {"kty":"RSA-HSM","key_size":"2048","tags": {"AlgID":"RSA","KeyName":"web"}}
// The size goes as a JSON string, which the vault reads like a number; the "AlgID" tag is what
// EnumKeys and OpenKey read back to tell ECDSA from ECDH keys. The create-body rows of
// Create.PlainBodiesFollowTheAlgorithmName pin the bytes. The names are
// escaped: a quote or backslash in a CNG name must not break the body. Null when out of memory.
char *PlainKeyBody(const KVC_KEY_TYPE &type, bool fHsm, DWORD dwKeyBitLength, const WCHAR *pszAlgorithm,
                   const WCHAR *pszClearName)
{
    WCHAR szLength[12];
    swprintf(szLength, ARRAYSIZE(szLength), L"%lu", dwKeyBitLength);
    BldStrPtr body(BldStrNewStr(L"{\"kty\":\""));
    bool ok = body && Cat(body.get(), {type.pszKty, fHsm ? L"-HSM" : L"", L"\""});
    if (ok && !type.pszCrv)
        ok = Cat(body.get(), {L",\"key_size\":\"", szLength, L"\""});
    if (ok && type.pszCrv)
        ok = Cat(body.get(), {L",\"crv\":\"", type.pszCrv, L"\""});
    ok = ok && Cat(body.get(), {L",\"tags\": {\"AlgID\":\""}) && KVCJsonCatEscaped(body.get(), pszAlgorithm) &&
         Cat(body.get(), {L"\",\"KeyName\":\""}) && KVCJsonCatEscaped(body.get(), pszClearName) &&
         Cat(body.get(), {L"\"}}"});
    if (!ok)
        return nullptr;
    LogMsg2(L"KVCCreateKey JSON Body", body->cStr, KSP_LOG_TRACE);
    LogMsg2(L"KVCCreateKey JSON Body", body->cStr, KSP_LOG_TRACE);
    return WStrToUtf8(body->cStr);
}

// What a create call left: the key, only when the vault answered 200 with usable key material.
// Anything else that ended the requests (another 400..410 to the HSM request, throttling that
// outlasted the waits) made no key, and its error body must not pass for one.
int CreatedKey(DWORD dwStatus, const char *pszAnswer, const WCHAR *pszEncodedName, KVKey *pKey)
{
    if (dwStatus == KVC_HTTP_OK && KVCParseJSONKey(pszEncodedName, pszAnswer, pKey) && KVCKeyMaterialUsable(pKey))
        return 1;
    if (dwStatus == KVC_HTTP_OK)
        KVCFreeKVKey(pKey);
    LogMsgError(L"KVCLowLevelCreateKey Failed", dwStatus, KSP_LOG_FAILURE);
    return 0;
}

} // namespace

KVC_KEY_TYPE KVCKeyTypeFromAlgorithm(const WCHAR *pszAlgorithm)
{
    const KVC_ALGORITHM *alg = KVCAlgorithmByName(pszAlgorithm);
    if (alg && alg->pszCurve)
        return {L"EC", alg->pszCurve};
    return {L"RSA", nullptr};
}

SECURITY_STATUS KVCCreateKey(const WCHAR *pszKeyName, KVC *kvc, const WCHAR *pszAlgorithm, DWORD dwKeyBitLength,
                             DWORD dwExportPolicy, KVKey *pKey)
{
    LogMsg(L"KVCCreateKey", KSP_LOG_STEP);
    if (!kvc || !pszKeyName) {
        LogMsg(L"KVCCreateKey Bad (NULL) KVC or Key Name", KSP_LOG_FAILURE);
        return NTE_INTERNAL_ERROR;
    }
    WCHAR szEncoded[KVC_ENCODED_NAME_CHARS] = {};
    DWORD fEncoded = 1;
    if (!KVCConvertClearKeyNameToEncoded(pszKeyName, szEncoded, &fEncoded)) {
        LogMsg(L"KVCCreateKey KVCConvertClearKeyNameToEncoded Failed", KSP_LOG_FAILURE);
        return NTE_INTERNAL_ERROR;
    }
    int result = 0;
    if (kvc->fCertMode) {
        LogMsg(L"KVCCreateKey Calling KVCLowLevelCreateKeyCertificate", KSP_LOG_STEP);
        result = KVCLowLevelCreateKeyCertificate(kvc, pszKeyName, szEncoded, pszAlgorithm, dwKeyBitLength, pKey,
                                                 dwExportPolicy, nullptr, 0);
    } else {
        LogMsg(L"KVCCreateKey Calling KVCLowLevelCreateKey", KSP_LOG_STEP);
        result = KVCLowLevelCreateKey(kvc, pszKeyName, szEncoded, pszAlgorithm, dwKeyBitLength, 0, pKey);
    }
    return result ? ERROR_SUCCESS : NTE_INTERNAL_ERROR;
}

int KVCLowLevelCreateKey(KVC *kvc, const WCHAR *pszClearName, const WCHAR *pszEncodedName, const WCHAR *pszAlgorithm,
                         DWORD dwKeyBitLength, DWORD, KVKey *pKey)
{
    LogMsg(L"KVCLowLevelCreateKey", KSP_LOG_STEP);
    if (!kvc || !pszClearName || !pszEncodedName || !pszAlgorithm || !pKey) {
        LogMsg(L"KVCLowLevelCreateKey NULL Parameter", KSP_LOG_FAILURE);
        return 0;
    }
    const KVC_KEY_TYPE type = KVCKeyTypeFromAlgorithm(pszAlgorithm);
    bool fHsm = true;
    // One wait counter serves throttling and the HSM fallback alike. A 429 always sleeps and
    // doubles it, and the request is repeated only while the doubled wait is within 16 s: a
    // throttling storm gets five calls and five sleeps (1..16 s), the last sleep wasted. A 403
    // to the HSM request repeats at once as a software request, under the same bound.
    const KVC_RETRY_POLICY policy = KVCThrottlePolicy(L"KVCLowLevelCreateKey ActionThrottled", FALSE,
                                                      L"KVCLowLevelCreateKey REST Call Error");
    DWORD dwWaitMs = policy.dwFirstWaitMs;
    ScopedAnswer answer;
    for (;;) {
        NarrowText body(PlainKeyBody(type, fHsm, dwKeyBitLength, pszAlgorithm, pszClearName));
        const KVC_REQUEST request = {nullptr, KVC_COLLECTION_KEYS, pszEncodedName, L"POST", L"create",
                                     body.get(), L"7.0"};
        KVCFreeAnswer(&answer); // a body that could not be built must not be judged by a stale answer
        if (body)
            KVCVaultCall(kvc, &request, &policy, &dwWaitMs, &answer);
        const DWORD status = answer.status;
        if (kvc->fManagedHsm && status != KVC_HTTP_OK) {
            // A Managed HSM holds HSM keys only: there a refusal, or throttling that outlasted
            // the waits, is a failure and never a software key.
            LogMsgError(L"KVCLowLevelCreateKey Managed HSM Key Failed", status, KSP_LOG_FAILURE);
            return 0;
        }
        if (status == KVC_HTTP_TOO_MANY_REQUESTS)
            break; // still throttled: no key was made
        if (fHsm && status >= KVC_HTTP_BAD_REQUEST && status <= KVC_HTTP_GONE) {
            LogMsgError(L"KVCLowLevelCreateKey HSM Key Failed - retry with software key", status, KSP_LOG_WARNING);
            fHsm = false;
            if (status == KVC_HTTP_FORBIDDEN && dwWaitMs <= policy.dwThrottleMaxWaitMs)
                continue;
            // Only a 403 earns the software request; any other refusal made no key.
            break;
        }
        if (status == KVC_HTTP_OK)
            break;
        LogMsgError(L"KVCLowLevelCreateKey Failed", status, KSP_LOG_FAILURE);
        return 0;
    }
    return CreatedKey(answer.status, answer.body, pszEncodedName, pKey);
}

int KVCImportKey(KVC *kvc, const WCHAR *pszEncodedName, const char *pszBody, KVKey *pKey)
{
    if (!kvc || !pszEncodedName || !pszBody || !pKey)
        return 0;
    ScopedAnswer answer;
    const KVC_RETRY_POLICY policy = KVCThrottlePolicy(L"KspImportPrivateKeyToVault ActionThrottled", TRUE);
    DWORD dwWaitMs = policy.dwFirstWaitMs;
    const KVC_REQUEST request = {nullptr, KVC_COLLECTION_KEYS, pszEncodedName, L"PUT", nullptr, pszBody, L"7.0"};
    if (!KVCVaultCall(kvc, &request, &policy, &dwWaitMs, &answer) || answer.status != KVC_HTTP_OK) {
        LogMsgError(L"KspImportPrivateKeyToVault Failed", answer.status, KSP_LOG_FAILURE);
        return 0;
    }
    KVCFreeKVKey(pKey);
    KVCParseJSONKey(pszEncodedName, answer.body, pKey);
    return 1;
}
