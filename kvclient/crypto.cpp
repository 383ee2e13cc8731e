// Cryptographic operations: every use of a private key (sign, decrypt) and the vault-side
// verify and encrypt go through KVCCryptoOp, which posts the bytes to the key's operation and
// hands back the answer's bytes or verdict. It knows nothing of CNG padding or hash names.
#include "kvclient/kvc.h"
#include "kvclient/kvjson.h"

#include <stdlib.h>

namespace {

// Standard base64 of the bytes, or null when there are none or they cannot be encoded.
struct Base64Text {
    WCHAR *psz;
    Base64Text(const BYTE *pb, DWORD cb) : psz(pb ? KVCKKVKSP_ToBase64(pb, cb) : nullptr) {}
    ~Base64Text() { KVCWipeFreeText(psz); } // plaintexts and ciphertexts pass this way
    Base64Text(const Base64Text &) = delete;
    Base64Text &operator=(const Base64Text &) = delete;
};

// {"alg":"..."[,"digest":"..."][,"value":"..."]} as narrow text, built at its final size. The
// algorithm names come from the provider's own tables and the rest is base64, so nothing needs
// escaping. A null algorithm goes out empty and the vault's refusal is the caller's answer; a
// member whose bytes cannot be encoded is left out, likewise for the vault to judge.
char *BuildBody(const WCHAR *pszAlg, const Base64Text &digest, const Base64Text &value)
{
    WCHAR *pszBody = KVCJoinText({L"{\"alg\":\"", pszAlg, L"\"", digest.psz ? L",\"digest\":\"" : nullptr,
                                  digest.psz, digest.psz ? L"\"" : nullptr, value.psz ? L",\"value\":\"" : nullptr,
                                  value.psz, value.psz ? L"\"" : nullptr, L"}"});
    char *pszNarrow = pszBody ? WStrToUtf8(pszBody) : nullptr;
    KVCWipeFreeText(pszBody);
    return pszNarrow;
}

// The answer's "value" decoded into the caller's buffer (capacity and length in *pcbOutput, a
// null pbOutput asking only for the length). Text that is not base64 of at least one whole
// byte is no result: an empty or made-up signature or plaintext must never pass for one.
// A buffer too small gets the needed length and NTE_FAIL, not NTE_BUFFER_TOO_SMALL.
SECURITY_STATUS CopyResult(const char *pszValue, BYTE *pbOutput, DWORD *pcbOutput)
{
    WCHAR *pszWide = BytesStrToWStr(pszValue);
    DWORD cbResult = 0;
    SECURITY_STATUS status = NTE_INVALID_PARAMETER;
    if (pszWide && KVCKKVKSP_FromBase64(pszWide, nullptr, &cbResult, FALSE) && cbResult > 0)
        status = KVCKKVKSP_FromBase64(pszWide, &pbOutput, pcbOutput, FALSE) ? 0 : NTE_FAIL;
    KVCWipeFreeText(pszWide); // a decryption's answer is the plaintext
    return status;
}

} // namespace

SECURITY_STATUS KVCCryptoOp(KVC *kvc, const WCHAR *pszAction, const WCHAR *pszKeyName, const WCHAR *pszKeyVersion,
                            BOOL fVerify, const WCHAR *pszAlg, const BYTE *pbInput, DWORD cbInput, BYTE *pbOutput,
                            DWORD *pcbOutput)
{
    LogMsg2(L"KVCCryptoOp called", pszAction, KSP_LOG_STEP);
    if (!pszKeyName || !*pszKeyName) { // an unnamed key lives only in its handle, not in the vault
        LogMsg(L"KVCCryptoOp NULL Key Name", KSP_LOG_FAILURE);
        return NTE_INVALID_PARAMETER;
    }
    if (!kvc) {
        LogMsg(L"KVCCryptoOp NULL KVC", KSP_LOG_FAILURE);
        return NTE_INVALID_PARAMETER;
    }
    if (!pcbOutput) {
        LogMsg(L"KVCCryptoOp NULL Output Length", KSP_LOG_FAILURE);
        return NTE_INVALID_PARAMETER;
    }

    // Only verification sends a digest: pbOutput is the caller's result buffer otherwise.
    char *pszBody = BuildBody(pszAlg, Base64Text(fVerify ? pbOutput : nullptr, fVerify ? *pcbOutput : 0),
                              Base64Text(pbInput, cbInput));
    // A null version leaves "<name>/" and the vault's latest version answers.
    WCHAR *pszPath = KVCJoinText({pszKeyName, L"/", pszKeyVersion});

    // Five calls at most, 1, 2, 4, 8 and 16 s apart; the fifth 429 still costs its 16 s. Only a
    // call that got no answer at all counts as the frame's own error.
    ScopedAnswer reply;
    const KVC_RETRY_POLICY policy = KVCThrottlePolicy(L"KVCCryptoOp ActionThrottled", FALSE);
    DWORD dwWaitMs = policy.dwFirstWaitMs;
    const KVC_REQUEST request = {nullptr, KVC_COLLECTION_KEYS, pszPath, L"POST", pszAction, pszBody, L"7.0"};
    KVCVaultCall(kvc, &request, &policy, &dwWaitMs, &reply);
    KVCWipeFreeBytes(pszBody);
    free(pszPath);
    if (reply.status == 0) {
        LogMsgError(L"KVCCryptoOp KVCDoKVRESTCall Error", reply.status, KSP_LOG_FAILURE);
        return NTE_FAIL;
    }
    if (reply.status != KVC_HTTP_OK && reply.status != KVC_HTTP_TOO_MANY_REQUESTS) {
        LogMsgError(L"KVCCryptoOp Failed", reply.status, KSP_LOG_FAILURE);
        return NTE_FAIL;
    }

    // Still throttled after the last wait: the throttling answer is read like any other, and
    // having no "value" it ends in NTE_INVALID_PARAMETER.
    if (!reply.body || !*reply.body) {
        LogMsgError(L"KVCCryptoOp Failed", reply.status, KSP_LOG_FAILURE);
        return NTE_FAIL;
    }
    KVCJsonDoc answer = KVCJsonParse(reply.body);
    if (!answer || !json_object_object_get(answer.get(), "value"))
        return NTE_INVALID_PARAMETER;
    if (fVerify) {
        // Only a JSON true is a verified signature: json-c would read the text "false" as true.
        return KVCJsonIsTrue(answer.get(), "value") ? 0 : NTE_BAD_SIGNATURE;
    }

    // A null pbOutput makes this a length query, after the vault has done the whole operation.
    return CopyResult(KVCJsonGetString(answer.get(), "value"), pbOutput, pcbOutput);
}
