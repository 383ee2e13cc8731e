// Key import. Only an RSA private key can be imported, into the user's vault, and only as a key
// to be finalized later (NCRYPT_DO_NOT_FINALIZE_FLAG): the caller names it through the parameter
// list, and FinalizeKey sends it to the vault. Until then the key object holds the blob only in
// DPAPI-protected form; it is unprotected for the moment the import request is built, and every
// clear copy made on this side (the unprotected blob, the full blob derived from it, the request
// body) is wiped before it is freed.
#include "ksp/ksp.h"
#include "support/handles.h"

#include <wincrypt.h>
#include <dpapi.h>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "kvclient/kvjson.h"

namespace {

constexpr DWORD kImportFlags = NCRYPT_DO_NOT_FINALIZE_FLAG | NCRYPT_OVERWRITE_KEY_FLAG | NCRYPT_SILENT_FLAG;

enum class BlobKind { Public, Private, RsaPrivate, RsaFullPrivate, Unsupported };
constexpr struct {
    const WCHAR *pszType;
    BlobKind kind;
} kBlobTypes[] = {
    {BCRYPT_PUBLIC_KEY_BLOB, BlobKind::Public},
    {BCRYPT_PRIVATE_KEY_BLOB, BlobKind::Private},
    {BCRYPT_RSAPUBLIC_BLOB, BlobKind::Public},
    {BCRYPT_RSAPRIVATE_BLOB, BlobKind::RsaPrivate},
    {BCRYPT_RSAFULLPRIVATE_BLOB, BlobKind::RsaFullPrivate},
    {NCRYPT_PKCS7_ENVELOPE_BLOB, BlobKind::Unsupported},
    {NCRYPT_PKCS8_PRIVATE_KEY_BLOB, BlobKind::Unsupported},
};


// The key name the caller passed in the parameter list (null when none). A given name must be
// non-empty, as CreatePersistedKey requires, and end inside its buffer: cbBuffer is all the
// caller vouches for, so the text is never read past it.
SECURITY_STATUS KeyNameParameter(const NCryptBufferDesc *pParameterList, const WCHAR **ppszKeyName)
{
    *ppszKeyName = nullptr;
    if (!pParameterList || !pParameterList->pBuffers)
        return ERROR_SUCCESS;
    for (ULONG i = 0; i < pParameterList->cBuffers; ++i) {
        const NCryptBuffer &buffer = pParameterList->pBuffers[i];
        if (buffer.BufferType != NCRYPTBUFFER_PKCS_KEY_NAME)
            continue;
        const auto *pszName = static_cast<const WCHAR *>(buffer.pvBuffer);
        const size_t cchMax = buffer.cbBuffer / sizeof(WCHAR);
        if (!pszName || cchMax == 0 || !pszName[0] || wcsnlen(pszName, cchMax) == cchMax)
            return NTE_INVALID_PARAMETER;
        *ppszKeyName = pszName;
        return ERROR_SUCCESS;
    }
    return ERROR_SUCCESS;
}

// Clear key material: wiped before it goes back to whoever allocated it.
struct SecretBytes {
    BYTE *pb = nullptr;
    DWORD cb = 0;
    void (*pfnFree)(void *) = nullptr;
    SecretBytes() = default;
    SecretBytes(const SecretBytes &) = delete;
    SecretBytes &operator=(const SecretBytes &) = delete;
    ~SecretBytes()
    {
        if (pb) {
            SecureZeroMemory(pb, cb);
            pfnFree(pb);
        }
    }
};
void LocalFreeBytes(void *pv) { LocalFree(pv); }
void KspFreeBytes(void *pv) { KspFree(pv); }

bool Unprotect(KSP_KEY *pKey, SecretBytes *pClear)
{
    SrwShared lock(&pKey->privateKeyLock); // DPAPI works locally: no network call under the lock
    DATA_BLOB sealed = {static_cast<DWORD>(pKey->cbPrivateKey), pKey->pbPrivateKey};
    DATA_BLOB clear = {};
    if (!sealed.pbData ||
        !CryptUnprotectData(&sealed, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &clear)) {
        LogMsgError(L"KspImportPrivateKeyToVault CryptUnprotectData Failed", GetLastError(), KSP_LOG_FAILURE);
        return false;
    }
    pClear->pb = clear.pbData;
    pClear->cb = clear.cbData;
    pClear->pfnFree = LocalFreeBytes;
    return true;
}

// A BCRYPT_RSAPRIVATE_BLOB lacks the CRT exponents, the coefficient and the private exponent
// that the vault wants; CNG derives them when the key is exported in the full form.
bool ToFullBlob(const SecretBytes &privateBlob, SecretBytes *pFull)
{
    UniqueBCryptAlgorithm alg; // declared first: the key goes before its algorithm provider
    UniqueBCryptKey key;
    NTSTATUS status = BCryptOpenAlgorithmProvider(alg.put(), BCRYPT_RSA_ALGORITHM, nullptr, 0);
    if (status >= 0)
        status = BCryptImportKeyPair(alg.get(), nullptr, BCRYPT_RSAPRIVATE_BLOB, key.put(), privateBlob.pb,
                                     privateBlob.cb, 0);
    ULONG cbFull = 0;
    if (status >= 0)
        status = BCryptExportKey(key.get(), nullptr, BCRYPT_RSAFULLPRIVATE_BLOB, nullptr, 0, &cbFull, 0);
    if (status >= 0) {
        pFull->pb = static_cast<BYTE *>(KspAlloc(cbFull));
        pFull->cb = cbFull;
        pFull->pfnFree = KspFreeBytes;
        status = pFull->pb
                     ? BCryptExportKey(key.get(), nullptr, BCRYPT_RSAFULLPRIVATE_BLOB, pFull->pb, cbFull, &cbFull, 0)
                     : STATUS_NO_MEMORY;
    }
    if (status < 0)
        LogMsgError(L"KspImportPrivateKeyToVault Full Private Blob Failed", static_cast<DWORD>(status),
                    KSP_LOG_FAILURE);
    return status >= 0;
}

// A big-endian number as JWK wants it: base64url without padding, leading zero bytes dropped.
struct Member {
    const char *pszName;
    const BYTE *pb;
    DWORD cb;
};
size_t EncodedLength(const Member &m) { return (static_cast<size_t>(m.cb) * 4 + 2) / 3; }
char *WriteBase64Url(char *out, const BYTE *pb, DWORD cb)
{
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    for (DWORD i = 0; i < cb; i += 3) {
        const DWORD n =
            static_cast<DWORD>(pb[i]) << 16 | (i + 1 < cb ? pb[i + 1] << 8 : 0) | (i + 2 < cb ? pb[i + 2] : 0);
        *out++ = kAlphabet[n >> 18 & 63];
        *out++ = kAlphabet[n >> 12 & 63];
        if (i + 1 < cb)
            *out++ = kAlphabet[n >> 6 & 63];
        if (i + 2 < cb)
            *out++ = kAlphabet[n & 63];
    }
    return out;
}
char *WriteText(char *out, const char *psz)
{
    size_t cch = strlen(psz);
    memcpy(out, psz, cch);
    return out + cch;
}

// {"key":{"kty":"RSA","n":..,"e":..,"d":..,"p":..,"q":..,"dp":..,"dq":..,"qi":..},
//  "tags":{"AlgID":"RSA","KeyName":..}}, written once into a buffer of its exact size so that no
// partial copy is left behind by growing. Null when the blob is not a whole full RSA blob.
char *ImportBody(const SecretBytes &full, const char *pszEscapedName, size_t *pcchBody)
{
    BCRYPT_RSAKEY_BLOB header;
    if (full.cb < sizeof(header))
        return nullptr;
    memcpy(&header, full.pb, sizeof(header));
    const DWORD cbE = header.cbPublicExp, cbN = header.cbModulus, cbP = header.cbPrime1, cbQ = header.cbPrime2;
    const ULONGLONG cbNeeded = sizeof(header) + 2ull * cbN + cbE + 3ull * cbP + 2ull * cbQ;
    if (header.Magic != BCRYPT_RSAFULLPRIVATE_MAGIC || cbNeeded > full.cb)
        return nullptr;
    const BYTE *pb = full.pb + sizeof(header);
    Member members[] = {{"n", nullptr, cbN}, {"e", nullptr, cbE},  {"d", nullptr, cbN},  {"p", nullptr, cbP},
                        {"q", nullptr, cbQ}, {"dp", nullptr, cbP}, {"dq", nullptr, cbQ}, {"qi", nullptr, cbP}};
    // The blob's order: e, n, p, q, dp, dq, qi, d.
    const BYTE *pbE = pb, *pbN = pbE + cbE, *pbP = pbN + cbN, *pbQ = pbP + cbP, *pbDp = pbQ + cbQ;
    const BYTE *pbDq = pbDp + cbP, *pbQi = pbDq + cbQ, *pbD = pbQi + cbP;
    const BYTE *starts[] = {pbN, pbE, pbD, pbP, pbQ, pbDp, pbDq, pbQi};
    size_t cch = strlen(R"({"key":{"kty":"RSA"},"tags":{"AlgID":"RSA","KeyName":""}})") + strlen(pszEscapedName);
    for (size_t i = 0; i < ARRAYSIZE(members); ++i) {
        Member &m = members[i];
        m.pb = starts[i];
        while (m.cb > 1 && *m.pb == 0) {
            ++m.pb;
            --m.cb;
        }
        cch += strlen(R"(,"":"")") + strlen(m.pszName) + EncodedLength(m);
    }
    char *pszBody = static_cast<char *>(calloc(cch + 1, 1));
    if (!pszBody)
        return nullptr;
    char *out = WriteText(pszBody, R"({"key":{"kty":"RSA")");
    for (const Member &m : members) {
        out = WriteText(WriteText(WriteText(out, ",\""), m.pszName), "\":\"");
        out = WriteText(WriteBase64Url(out, m.pb, m.cb), "\"");
    }
    out = WriteText(WriteText(out, R"(},"tags":{"AlgID":"RSA","KeyName":")"), pszEscapedName);
    WriteText(out, "\"}}");
    *pcchBody = cch;
    return pszBody;
}

// The key name as the inside of a JSON string, in narrow text; null when it cannot be made.
char *EscapedName(const WCHAR *pszName)
{
    BldStr *text = BldStrNewStr(L"");
    char *psz = text && KVCJsonCatEscaped(text, pszName) ? WStrToUtf8(text->cStr) : nullptr;
    BldStrFree(text);
    return psz;
}

} // namespace

SECURITY_STATUS KspImportPrivateKeyToVault(KSP_KEY *pKey)
{
    LogMsg2(L"KspImportPrivateKeyToVault", pKey ? pKey->pszKeyName : nullptr, KSP_LOG_STEP);
    WCHAR szEncoded[KVC_ENCODED_NAME_CHARS] = {};
    if (!pKey || !pKey->kvc || !pKey->pszKeyName || !pKey->pbPrivateKey ||
        !KVCConvertClearKeyNameToEncoded(pKey->pszKeyName, szEncoded, nullptr)) {
        LogMsg(L"KspImportPrivateKeyToVault Bad Key or Key Name", KSP_LOG_FAILURE);
        return NTE_INTERNAL_ERROR;
    }
    char *pszName = EscapedName(pKey->pszKeyName);
    char *pszBody = nullptr;
    size_t cchBody = 0;
    {
        SecretBytes clear, full;
        if (pszName && Unprotect(pKey, &clear)) {
            DWORD dwMagic = 0;
            memcpy(&dwMagic, clear.pb, clear.cb < sizeof(dwMagic) ? clear.cb : sizeof(dwMagic));
            if (dwMagic == BCRYPT_RSAFULLPRIVATE_MAGIC)
                pszBody = ImportBody(clear, pszName, &cchBody);
            else if (ToFullBlob(clear, &full))
                pszBody = ImportBody(full, pszName, &cchBody);
        }
    } // the clear blobs are wiped here
    free(pszName);
    if (!pszBody) {
        LogMsg(L"KspImportPrivateKeyToVault Body Failed", KSP_LOG_FAILURE);
        return NTE_INTERNAL_ERROR;
    }

    const int imported = KVCImportKey(pKey->kvc, szEncoded, pszBody, &pKey->kvKey);
    SecureZeroMemory(pszBody, cchBody);
    free(pszBody);
    if (!imported)
        return NTE_INTERNAL_ERROR;

    // The key now lives in the vault like any other: nothing of it stays here. An answer
    // without usable key material gives no key to work with: the blob stays for another try.
    if (!KVCKeyMaterialUsable(&pKey->kvKey)) {
        LogMsg(L"KspImportPrivateKeyToVault Unusable Key Material", KSP_LOG_FAILURE);
        KVCFreeKVKey(&pKey->kvKey);
        return NTE_INTERNAL_ERROR;
    }
    SrwExclusive lock(&pKey->privateKeyLock);
    if (pKey->pbPrivateKey) { // another finalize of this handle may have taken it already
        SecureZeroMemory(pKey->pbPrivateKey, static_cast<SIZE_T>(pKey->cbPrivateKey));
        KspFree(pKey->pbPrivateKey);
    }
    pKey->pbPrivateKey = nullptr;
    pKey->cbPrivateKey = 0;
    return ERROR_SUCCESS;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                                             LPCWSTR pszBlobType, NCryptBufferDesc *pParameterList,
                                                             NCRYPT_KEY_HANDLE *phKey, PBYTE pbData, DWORD cbData,
                                                             DWORD dwFlags)
{
    LogMsgNum(L"KestalKeyVaultKSPImportKey", pszBlobType, static_cast<int>(dwFlags), KSP_LOG_ENTRY);
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    if (!provider)
        return KspFail(L"KestalKeyVaultKSPImportKey", NTE_INVALID_HANDLE);
    if (!phKey || !pszBlobType || !pbData || cbData == 0)
        return KspFail(L"KestalKeyVaultKSPImportKey", NTE_INVALID_PARAMETER);
    // Machine keys would need a protection every account on the machine can undo.
    if (dwFlags & (NCRYPT_MACHINE_KEY_FLAG | NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG))
        return KspFail(L"KestalKeyVaultKSPImportKey", NTE_NOT_SUPPORTED);
    if (dwFlags & ~kImportFlags)
        return KspFail(L"KestalKeyVaultKSPImportKey", NTE_BAD_FLAGS);
    if (hImportKey) { // blobs encrypted under another key are not taken
        LogMsg(L"KestalKeyVaultKSPImportKey Encrypted Import Not Supported", KSP_LOG_FAILURE);
        return NTE_NOT_SUPPORTED;
    }

    BlobKind kind = BlobKind::Unsupported;
    for (const auto &type : kBlobTypes)
        if (wcscmp(pszBlobType, type.pszType) == 0)
            kind = type.kind;
    if (kind == BlobKind::Private) { // the generic name: the magic says which RSA form it is
        DWORD dwMagic = 0;
        memcpy(&dwMagic, pbData, cbData < sizeof(dwMagic) ? cbData : sizeof(dwMagic));
        kind = dwMagic == BCRYPT_RSAPRIVATE_MAGIC       ? BlobKind::RsaPrivate
               : dwMagic == BCRYPT_RSAFULLPRIVATE_MAGIC ? BlobKind::RsaFullPrivate
                                                        : BlobKind::Unsupported;
    }
    if (kind == BlobKind::Public) { // a key this provider holds has its private half in a vault
        LogMsg2(L"KestalKeyVaultKSPImportKey Public Key Import Not Supported", pszBlobType, KSP_LOG_FAILURE);
        return NTE_NOT_SUPPORTED;
    }
    if (kind == BlobKind::Unsupported) {
        LogMsg2(L"KestalKeyVaultKSPImportKey Blob Type Not Supported", pszBlobType, KSP_LOG_FAILURE);
        return NTE_NOT_SUPPORTED;
    }
    // The key is handed out only to be finalized later, by which time it must have been named.
    if (!(dwFlags & NCRYPT_DO_NOT_FINALIZE_FLAG)) {
        LogMsg(L"KestalKeyVaultKSPImportKey NCRYPT_DO_NOT_FINALIZE_FLAG Required", KSP_LOG_FAILURE);
        return NTE_NOT_SUPPORTED;
    }

    const WCHAR *pszKeyName = nullptr;
    KSP_KEY *pKey = nullptr;
    SECURITY_STATUS status = KeyNameParameter(pParameterList, &pszKeyName);
    if (status == ERROR_SUCCESS)
        status = CreateNewKeyObject(pszKeyName, BCRYPT_RSA_ALGORITHM, &pKey, 0);
    if (status != ERROR_SUCCESS)
        return KspFail(L"KestalKeyVaultKSPImportKey", status);
    pKey->kvc = provider->kvcUser;
    status = KspStorePrivateKeyBlob(
        pKey, kind == BlobKind::RsaPrivate ? BCRYPT_RSAPRIVATE_BLOB : BCRYPT_RSAFULLPRIVATE_BLOB, pbData, cbData);
    if (status == ERROR_SUCCESS) {
        BCRYPT_RSAKEY_BLOB header; // whole: KspStorePrivateKeyBlob has checked it
        memcpy(&header, pbData, sizeof(header));
        pKey->dwKeyBitLength = header.BitLength;
    }
    if (status == ERROR_SUCCESS && pszKeyName) {
        if (!KVCAuthenticate(pKey->kvc, nullptr)) {
            LogMsg(L"KestalKeyVaultKSPImportKey Authenticate Failed ", KSP_LOG_FAILURE);
            status = SEC_E_LOGON_DENIED;
        } else if (!(dwFlags & NCRYPT_OVERWRITE_KEY_FLAG)) {
            KVKey existing = {};
            if (KVCGetKey(pKey->kvc, pszKeyName, &existing, 1))
                status = NTE_EXISTS;
            KVCFreeKVKey(&existing);
        }
    }
    if (status != ERROR_SUCCESS) {
        DeleteKeyObject(pKey);
        return KspFail(L"KestalKeyVaultKSPImportKey", status);
    }
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(pKey);
    return ERROR_SUCCESS;
}
