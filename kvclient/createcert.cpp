// Certificate-backed key creation. The vault makes the key pair behind a pending certificate
// whose issuer is "Unknown" and hands back a signing request (CSR) for it; this side answers
// with a certificate for that public key and merges it, which completes the certificate and
// publishes its key. The answer is a placeholder ("CN=Dummy Certificate Name", signed by a
// throw-away software key): the vault checks only that its public key is the pending key, and
// the certificate a user later sets through CNG replaces it. A certificate passed in by the
// caller (FreeKey publishing the store's certificate of an existing vault key) is merged as it
// is, the vault being told to keep the key it already has.
#include "kvclient/kvc.h"
#include "support/handles.h"
#include "kvclient/kvjson.h"

#include <wincrypt.h>

#include <bcrypt.h>
#include <ncrypt.h>

#include <memory>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

namespace {

constexpr DWORD kThrowAwayKeyBits = 2048;
constexpr __time64_t kTenMinutes = 600;
constexpr __time64_t kFiftyYears = 18262LL * 24 * 3600; // the policy's 600 months
constexpr WCHAR kPlaceholderSubject[] = L"CN=Dummy Certificate Name";
// How a standard-tier vault has been seen to refuse an HSM certificate key besides a 403.
constexpr char kHsmRefusalText[] = "kty RSA-HSM";

bool Cat(BldStr *pstr, std::initializer_list<const WCHAR *> pieces)
{
    for (const WCHAR *piece : pieces)
        if (!BldStrCat(pstr, piece))
            return false;
    return true;
}

// The certificate create body (member names and types as the service uses them):
//   {"attributes":{"enabled":true},"policy":{"key_props":{"exportable":..,"kty":"RSA-HSM",
//    "key_size":2048,"reuse_key":..},"secret_props":{"contentType":"application/x-pkcs12"},
//    "x509_props":{"subject":"CN=CertificateDummySubject","ekus":[..],"key_usage":["digitalSignature"],
//    "validity_months":600},"issuer":{"name":"Unknown"}},"tags":{"KSPManaged":"KSP","AlgID":..,"KeyName":..}}
// The issuer "Unknown" is what leaves the certificate pending for the merge: with the default
// ("Self") the vault would issue it at once and there would be nothing to merge.
char *CertificateBody(const KVC_KEY_TYPE &type, bool fHsm, DWORD dwKeyBitLength, bool fExportable, bool fReuseKey,
                      const WCHAR *pszAlgorithm, const WCHAR *pszClearName)
{
    WCHAR szLength[12];
    swprintf(szLength, ARRAYSIZE(szLength), L"%lu", dwKeyBitLength);
    BldStrPtr body(BldStrNewStr(L"{\"attributes\":{\"enabled\":true},\"policy\":{\"key_props\":{\"exportable\":"));
    bool ok = body && Cat(body.get(), {fExportable ? L"true" : L"false", L",\"kty\":\"", type.pszKty,
                                       fHsm ? L"-HSM" : L"", L"\""});
    if (ok && !type.pszCrv)
        ok = Cat(body.get(), {L",\"key_size\":", szLength});
    if (ok && type.pszCrv)
        ok = Cat(body.get(), {L",\"crv\":\"", type.pszCrv, L"\""});
    ok = ok &&
         Cat(body.get(), {L",\"reuse_key\":", fReuseKey ? L"true" : L"false",
                          L"},\"secret_props\":{\"contentType\":\"application/x-pkcs12\"}",
                          L",\"x509_props\":{\"subject\":\"CN=CertificateDummySubject\"",
                          L",\"ekus\":[\"1.3.6.1.5.5.7.3.1\",\"1.3.6.1.5.5.7.3.2\"]",
                          L",\"key_usage\":[\"digitalSignature\"],\"validity_months\":600}",
                          L",\"issuer\":{\"name\":\"Unknown\"}}",
                          L",\"tags\":{\"KSPManaged\":\"KSP\",\"AlgID\":\""}) &&
         KVCJsonCatEscaped(body.get(), pszAlgorithm) && Cat(body.get(), {L"\",\"KeyName\":\""}) &&
         KVCJsonCatEscaped(body.get(), pszClearName) && Cat(body.get(), {L"\"}}"});
    if (!ok)
        return nullptr;
    LogMsg2(L"KVCLowLevelCreateKeyCertificate JSON Body", body->cStr, KSP_LOG_TRACE);
    return WStrToUtf8(body->cStr);
}

// Creates the pending certificate: 1 once the vault answered 202.
int CreatePending(KVC *kvc, const WCHAR *pszClearName, const WCHAR *pszEncodedName, const WCHAR *pszAlgorithm,
                  DWORD dwKeyBitLength, bool fExportable, bool fReuseKey, KVC_ANSWER *pAnswer)
{
    const KVC_KEY_TYPE type = KVCKeyTypeFromAlgorithm(pszAlgorithm);
    bool fHsm = true;
    // One wait counter for throttling and the HSM fallback. A 429 is waited out while the wait
    // about to be taken is within 16 s (six calls, sleeps of 1..16 s, none wasted); the software
    // request after an HSM refusal goes at once, under the same bound.
    const KVC_RETRY_POLICY policy = KVCThrottlePolicy(L"KVCLowLevelCreateKeyCertificate ActionThrottled", TRUE);
    DWORD dwWaitMs = policy.dwFirstWaitMs;
    for (;;) {
        CallocPtr<char> body(
            CertificateBody(type, fHsm, dwKeyBitLength, fExportable, fReuseKey, pszAlgorithm, pszClearName));
        const KVC_REQUEST request = {nullptr, KVC_COLLECTION_CERTIFICATES, pszEncodedName, L"POST", L"create",
                                     body.get(), L"7.0"};
        KVCFreeAnswer(pAnswer);
        if (body)
            KVCVaultCall(kvc, &request, &policy, &dwWaitMs, pAnswer);
        const DWORD status = pAnswer->status;
        if (status == KVC_HTTP_ACCEPTED)
            return 1;
        if (fHsm && status >= KVC_HTTP_BAD_REQUEST && status <= KVC_HTTP_GONE) {
            LogMsgExcerpt(L"KVCLowLevelCreateKeyCertificate HSM Key Failed - detail error", pAnswer->body,
                      KSP_LOG_WARNING);
            const bool fRefused = status == KVC_HTTP_FORBIDDEN ||
                                  (status == KVC_HTTP_BAD_REQUEST && pAnswer->body &&
                                   strstr(pAnswer->body, kHsmRefusalText));
            if (fRefused && dwWaitMs <= policy.dwThrottleMaxWaitMs) {
                LogMsgError(L"KVCLowLevelCreateKeyCertificate HSM Key Failed - retry with software key", status,
                            KSP_LOG_WARNING);
                fHsm = false;
                continue;
            }
        }
        // Exhausted throttling ends here too: without a pending certificate there is no key.
        LogMsgError(L"KVCLowLevelCreateKeyCertificate Failed", status, KSP_LOG_FAILURE);
        return 0;
    }
}

// Decoded bytes of standard base64 text, calloc'd; null when it is not base64.
BYTE *FromBase64(const char *psz, DWORD *pcb)
{
    DWORD cb = 0;
    if (!psz || !CryptStringToBinaryA(psz, 0, CRYPT_STRING_BASE64_ANY, nullptr, &cb, nullptr, nullptr) || !cb)
        return nullptr;
    CallocPtr<BYTE> pb(static_cast<BYTE *>(calloc(cb, 1)));
    if (!pb || !CryptStringToBinaryA(psz, 0, CRYPT_STRING_BASE64_ANY, pb.get(), &cb, nullptr, nullptr))
        return nullptr;
    *pcb = cb;
    return pb.release();
}

FILETIME ToFileTime(__time64_t t)
{
    // 100 ns ticks since 1601.
    ULONGLONG ticks = (static_cast<ULONGLONG>(t) + 11644473600ULL) * 10000000ULL;
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

// A throw-away RSA key of the software provider: ephemeral (no name), so nothing is stored.
bool MakeThrowAwayKey(UniqueNCrypt *provider, UniqueNCrypt *key)
{
    DWORD dwLength = kThrowAwayKeyBits;
    if (NCryptOpenStorageProvider(reinterpret_cast<NCRYPT_PROV_HANDLE *>(provider->put()), MS_KEY_STORAGE_PROVIDER,
                                  0) != ERROR_SUCCESS) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate NCryptOpenStorageProvider Failed", KSP_LOG_FAILURE);
        return false;
    }
    if (NCryptCreatePersistedKey(provider->get(), reinterpret_cast<NCRYPT_KEY_HANDLE *>(key->put()),
                                 BCRYPT_RSA_ALGORITHM, nullptr, 0, 0) != ERROR_SUCCESS) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate NCryptCreatePersistedKey Failed", KSP_LOG_FAILURE);
        return false;
    }
    if (NCryptSetProperty(key->get(), NCRYPT_LENGTH_PROPERTY, reinterpret_cast<BYTE *>(&dwLength), sizeof(dwLength),
                          0) != ERROR_SUCCESS ||
        NCryptFinalizeKey(key->get(), 0) != ERROR_SUCCESS) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate NCryptFinalizeKey Failed", KSP_LOG_FAILURE);
        return false;
    }
    return true;
}

// The length of the DER header and of the whole element at pb, within cb bytes; false when
// the element does not fit.
bool DerElement(const BYTE *pb, DWORD cb, DWORD *pcbHeader, DWORD *pcbTotal)
{
    if (cb < 2)
        return false;
    DWORD cbHeader = 2, cbContent = pb[1];
    if (cbContent & 0x80) {
        const DWORD cLengthBytes = cbContent & 0x7f;
        if (cLengthBytes == 0 || cLengthBytes > 3 || cb < 2 + cLengthBytes)
            return false;
        cbContent = 0;
        for (DWORD i = 0; i < cLengthBytes; i++)
            cbContent = (cbContent << 8) | pb[2 + i];
        cbHeader += cLengthBytes;
    }
    if (cbContent > cb - cbHeader)
        return false;
    *pcbHeader = cbHeader;
    *pcbTotal = cbHeader + cbContent;
    return true;
}

// The SubjectPublicKeyInfo element of a PKCS#10 CertificationRequestInfo, the third element
// of its SEQUENCE (version, subject, key, attributes). crypt32 under Wine has no decoder for
// the request info as a whole, so the key is found by stepping over the two elements before it.
bool FindRequestKey(const CRYPT_DER_BLOB &requestInfo, const BYTE **ppbKey, DWORD *pcbKey)
{
    constexpr BYTE kSequence = 0x30;
    DWORD cbHeader = 0, cbTotal = 0;
    if (!DerElement(requestInfo.pbData, requestInfo.cbData, &cbHeader, &cbTotal) ||
        requestInfo.pbData[0] != kSequence)
        return false;
    const BYTE *pb = requestInfo.pbData + cbHeader;
    DWORD cbLeft = cbTotal - cbHeader;
    for (int skipped = 0; skipped < 2; skipped++) {
        if (!DerElement(pb, cbLeft, &cbHeader, &cbTotal))
            return false;
        pb += cbTotal;
        cbLeft -= cbTotal;
    }
    if (!DerElement(pb, cbLeft, &cbHeader, &cbTotal) || pb[0] != kSequence)
        return false;
    *ppbKey = pb;
    *pcbKey = cbTotal;
    return true;
}

// The public key of the vault's certificate signing request (base64 DER); null, logged, when the
// request or its key cannot be read.
LocalPtr<CERT_PUBLIC_KEY_INFO> RequestPublicKey(const char *pszCsr)
{
    DWORD cbCsr = 0;
    CallocPtr<BYTE> csr(FromBase64(pszCsr, &cbCsr));
    CERT_SIGNED_CONTENT_INFO *pSignedCsr = nullptr;
    DWORD cb = 0;
    if (!csr || !CryptDecodeObjectEx(X509_ASN_ENCODING, X509_CERT, csr.get(), cbCsr, CRYPT_DECODE_ALLOC_FLAG,
                                     nullptr, &pSignedCsr, &cb)) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate csr Decode Failed", KSP_LOG_FAILURE);
        return nullptr;
    }
    LocalPtr<CERT_SIGNED_CONTENT_INFO> signedCsr(pSignedCsr);
    const BYTE *pbKey = nullptr;
    DWORD cbKey = 0;
    CERT_PUBLIC_KEY_INFO *pKeyInfo = nullptr;
    if (!FindRequestKey(signedCsr->ToBeSigned, &pbKey, &cbKey) ||
        !CryptDecodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, pbKey, cbKey, CRYPT_DECODE_ALLOC_FLAG, nullptr,
                             &pKeyInfo, &cb)) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate csr Public Key Decode Failed", KSP_LOG_FAILURE);
        return nullptr;
    }
    return LocalPtr<CERT_PUBLIC_KEY_INFO>(pKeyInfo);
}

// sha256WithRSAEncryption with the NULL parameters RFC 4055 asks for.
BYTE g_NullParameters[] = {0x05, 0x00};
const CRYPT_ALGORITHM_IDENTIFIER kSha256WithRsa = {const_cast<char *>(szOID_RSA_SHA256RSA),
                                                   {sizeof(g_NullParameters), g_NullParameters}};

// The to-be-signed part of the placeholder: self-issued for the fixed subject, a random serial,
// valid from ten minutes ago for fifty years, over the request's public key. Null, logged, on
// failure; *pcbTbs receives the length.
LocalPtr<BYTE> EncodePlaceholderInfo(const CERT_PUBLIC_KEY_INFO &keyInfo, DWORD *pcbTbs)
{
    BYTE name[128];
    DWORD cbName = sizeof(name);
    if (!CertStrToNameW(X509_ASN_ENCODING, kPlaceholderSubject, CERT_X500_NAME_STR, nullptr, name, &cbName,
                        nullptr)) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate CertStrToNameW Failed", KSP_LOG_FAILURE);
        return nullptr;
    }
    // A positive 16-byte serial; CryptoAPI keeps integers little-endian, so the last byte leads.
    BYTE serial[16];
    if (!BCRYPT_SUCCESS(BCryptGenRandom(nullptr, serial, sizeof(serial), BCRYPT_USE_SYSTEM_PREFERRED_RNG))) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate BCryptGenRandom Failed", KSP_LOG_FAILURE);
        return nullptr;
    }
    serial[15] = static_cast<BYTE>((serial[15] & 0x7f) | 0x40);
    const __time64_t now = KspTime();
    CERT_INFO info = {};
    info.dwVersion = CERT_V3;
    info.SerialNumber = {sizeof(serial), serial};
    info.SignatureAlgorithm = kSha256WithRsa;
    info.Issuer = {cbName, name};
    info.Subject = {cbName, name};
    info.NotBefore = ToFileTime(now - kTenMinutes);
    info.NotAfter = ToFileTime(now + kFiftyYears);
    info.SubjectPublicKeyInfo = keyInfo;
    BYTE *pbTbs = nullptr;
    if (!CryptEncodeObjectEx(X509_ASN_ENCODING, X509_CERT_TO_BE_SIGNED, &info, CRYPT_ENCODE_ALLOC_FLAG, nullptr,
                             &pbTbs, pcbTbs)) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate CryptEncodeObjectEx ToBeSigned Failed", KSP_LOG_FAILURE);
        return nullptr;
    }
    return LocalPtr<BYTE>(pbTbs);
}

// Signs the to-be-signed bytes with a throw-away key, in the little-endian order CryptoAPI
// encodes signatures from. The signature's length, or 0 (logged).
DWORD SignWithThrowAwayKey(const BYTE *pbTbs, DWORD cbTbs, BYTE (&signature)[kThrowAwayKeyBits / 8])
{
    BYTE hash[32];
    DWORD cbHash = sizeof(hash);
    if (!CryptHashCertificate2(BCRYPT_SHA256_ALGORITHM, 0, nullptr, pbTbs, cbTbs, hash, &cbHash)) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate CryptHashCertificate2 Failed", KSP_LOG_FAILURE);
        return 0;
    }
    UniqueNCrypt provider, key;
    if (!MakeThrowAwayKey(&provider, &key))
        return 0;
    BCRYPT_PKCS1_PADDING_INFO padding = {BCRYPT_SHA256_ALGORITHM};
    DWORD cbSignature = 0;
    if (NCryptSignHash(key.get(), &padding, hash, cbHash, signature, sizeof(signature), &cbSignature,
                       BCRYPT_PAD_PKCS1) != ERROR_SUCCESS) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate NCryptSignHash Failed", KSP_LOG_FAILURE);
        return 0;
    }
    for (DWORD i = 0; i < cbSignature / 2; i++) {
        BYTE b = signature[i];
        signature[i] = signature[cbSignature - 1 - i];
        signature[cbSignature - 1 - i] = b;
    }
    return cbSignature;
}

// The placeholder certificate's DER (LocalFree) over the public key of the vault's CSR (base64
// text). crypt32's sign-and-encode helpers do not take NCrypt keys everywhere, so the
// certificate is put together by hand: encode the to-be-signed part, hash it, sign the hash
// with PKCS#1 v1.5, encode the signed whole.
BYTE *MakePlaceholder(const char *pszCsr, DWORD *pcbCert)
{
    LocalPtr<CERT_PUBLIC_KEY_INFO> keyInfo = RequestPublicKey(pszCsr);
    DWORD cbTbs = 0;
    LocalPtr<BYTE> tbs = keyInfo ? EncodePlaceholderInfo(*keyInfo, &cbTbs) : nullptr;
    BYTE signature[kThrowAwayKeyBits / 8];
    const DWORD cbSignature = tbs ? SignWithThrowAwayKey(tbs.get(), cbTbs, signature) : 0;
    if (!cbSignature)
        return nullptr;
    CERT_SIGNED_CONTENT_INFO signedCert = {{cbTbs, tbs.get()}, kSha256WithRsa, {cbSignature, signature, 0}};
    BYTE *pbCert = nullptr;
    if (!CryptEncodeObjectEx(X509_ASN_ENCODING, X509_CERT, &signedCert, CRYPT_ENCODE_ALLOC_FLAG, nullptr, &pbCert,
                             pcbCert)) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate CryptEncodeObjectEx Certificate Failed", KSP_LOG_FAILURE);
        return nullptr;
    }
    return pbCert;
}

// The base64 text (calloc) of the certificate to merge: the given one, else a placeholder for
// the CSR of the pending certificate's answer. Null (logged) when there is none.
WCHAR *CertificateToMerge(const char *pszPendingAnswer, const BYTE *pbCert, DWORD cbCert)
{
    if (pbCert && cbCert) {
        WCHAR *pszCert = KVCKKVKSP_ToBase64(pbCert, cbCert);
        if (pszCert)
            LogMsg(L"KVCLowLevelCreateKeyCertificate KVC_ToBase64 b64Cert Good", KSP_LOG_STEP);
        return pszCert;
    }
    KVCJsonDoc answer = KVCJsonParse(pszPendingAnswer);
    const char *pszCsr = KVCJsonGetString(answer.get(), "csr");
    if (!pszCsr) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate csr Missing", KSP_LOG_FAILURE);
        return nullptr;
    }
    DWORD cbPlaceholder = 0;
    LocalPtr<BYTE> placeholder(MakePlaceholder(pszCsr, &cbPlaceholder));
    return placeholder ? KVCKKVKSP_ToBase64(placeholder.get(), cbPlaceholder) : nullptr;
}

// Merges the certificate into the pending one: 1 once the vault answered 201.
int MergeCertificate(KVC *kvc, const WCHAR *pszEncodedName, const WCHAR *pszCertBase64)
{
    BldStrPtr text(BldStrNewStr(L"{\"x5c\":[\""));
    if (!text || !Cat(text.get(), {pszCertBase64, L"\"]}"})) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate Merge Body Failed", KSP_LOG_FAILURE);
        return 0;
    }
    CallocPtr<char> body(WStrToUtf8(text->cStr));
    ScopedAnswer answer;
    const KVC_RETRY_POLICY policy = KVCThrottlePolicy(L"KVCImportCertificate THROLLED - RETRY", TRUE);
    DWORD dwWaitMs = policy.dwFirstWaitMs;
    const KVC_REQUEST request = {nullptr, KVC_COLLECTION_CERTIFICATES, pszEncodedName, L"POST", L"pending/merge",
                                 body.get(), L"7.0"};
    if (body && KVCVaultCall(kvc, &request, &policy, &dwWaitMs, &answer) && answer.status == KVC_HTTP_CREATED)
        return 1;
    LogMsgExcerpt(L"KVCLowLevelCreateKeyCertificate Merge Failed - detail error", answer.body, KSP_LOG_FAILURE);
    LogMsgError(L"KVCLowLevelCreateKeyCertificate Merge Failed", answer.status, KSP_LOG_FAILURE);
    return 0;
}

// A pending certificate left behind blocks its name: every later create or merge meets it. So a
// create the vault accepted but that came to nothing (no certificate to merge, a merge refused
// or throttled out) has its operation deleted, which also cancels it. 1 once the vault said so.
int DeletePending(KVC *kvc, const WCHAR *pszEncodedName)
{
    ScopedAnswer answer;
    const KVC_RETRY_POLICY policy = KVCThrottlePolicy(L"KVCLowLevelCreateKeyCertificate Pending Delete Throttled", TRUE);
    DWORD dwWaitMs = policy.dwFirstWaitMs;
    const KVC_REQUEST request = {nullptr, KVC_COLLECTION_CERTIFICATES, pszEncodedName, L"DELETE", L"pending",
                                 nullptr, L"7.0"};
    if (KVCVaultCall(kvc, &request, &policy, &dwWaitMs, &answer)) {
        LogMsg2(L"KVCLowLevelCreateKeyCertificate Pending Operation Deleted", pszEncodedName, KSP_LOG_STEP);
        return 1;
    }
    LogMsgError(L"KVCLowLevelCreateKeyCertificate Pending Delete Failed", answer.status, KSP_LOG_FAILURE);
    return 0;
}

} // namespace

int KVCLowLevelCreateKeyCertificate(KVC *kvc, const WCHAR *pszClearName, const WCHAR *pszEncodedName,
                                    const WCHAR *pszAlgorithm, DWORD dwKeyBitLength, KVKey *pKey, DWORD fExportable,
                                    const BYTE *pbCert, DWORD cbCert)
{
    LogMsg(L"KVCLowLevelCreateKeyCertificate", KSP_LOG_STEP);
    if (!kvc || !pszClearName || !pszEncodedName || !pszAlgorithm || !pKey) {
        LogMsg(L"KVCLowLevelCreateKeyCertificate NULL Parameter", KSP_LOG_FAILURE);
        return 0;
    }
    const bool fGiven = pbCert && cbCert;
    ScopedAnswer pending;
    if (!CreatePending(kvc, pszClearName, pszEncodedName, pszAlgorithm, dwKeyBitLength, fExportable != 0, fGiven,
                       &pending))
        return 0;
    CallocPtr<WCHAR> cert(CertificateToMerge(pending.body, pbCert, cbCert));
    if (!cert || !MergeCertificate(kvc, pszEncodedName, cert.get())) {
        DeletePending(kvc, pszEncodedName);
        return 0;
    }
    if (!KVCGetKey(kvc, pszClearName, pKey, 0) || !KVCKeyMaterialUsable(pKey)) {
        LogMsg2(L"KVCLowLevelCreateKeyCertificate KVCGetKey Failed", pszClearName, KSP_LOG_FAILURE);
        return 0;
    }
    return 1;
}
