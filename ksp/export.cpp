// Public-key export. Only public keys leave the provider, and they are built here from the vault
// key record the key object already holds: exporting never calls the vault. Private and wrapped
// blob types are refused because the private key never leaves Key Vault.
#include "ksp/ksp.h"
#include "kvclient/algorithms.h"

#include <string.h>
#include <wchar.h>

namespace {

constexpr DWORD kExportFlags = NCRYPT_SILENT_FLAG | NCRYPT_EXPORT_LEGACY_FLAG;

constexpr const WCHAR *kPrivateBlobTypes[] = {
    BCRYPT_PRIVATE_KEY_BLOB, BCRYPT_RSAPRIVATE_BLOB, BCRYPT_RSAFULLPRIVATE_BLOB, NCRYPT_PKCS7_ENVELOPE_BLOB,
    NCRYPT_PKCS8_PRIVATE_KEY_BLOB,
};

// The ECC blob magic: by the key's CNG algorithm name when it has one, else by its curve, taken
// as ECDH when the key may decrypt and as ECDSA otherwise. 0 for names and curves not known.
ULONG EccMagicOfKey(const KVKey &kvKey)
{
    const KVC_ALGORITHM *alg = nullptr;
    if (kvKey.AlgID[0])
        alg = KVCAlgorithmByName(kvKey.AlgID);
    else
        alg = KVCAlgorithmByCurve(kvKey.crv, kvKey.key_ops && wcsstr(kvKey.key_ops, L"decrypt"));
    return alg && alg->pszCurve ? alg->ulPublicMagic : 0;
}

// An RSA modulus is written behind a zero byte unless its length is odd and it already starts
// with one (an odd length is never 0, so n[0] exists when it is read); BitLength stays 8 per
// modulus byte as the vault gave it. BCrypt and CryptoAPI import the extra zero byte as part of
// the big-endian modulus without change. The blob lengths in the Export tests and
// SignVerify.AModulusWithALeadingZeroIsA2048BitKey pin the layout.
bool ModulusNeedsLeadingZero(const KVKey &kvKey) { return kvKey.n_siz % 2 == 0 || kvKey.n[0] != 0; }

DWORD RsaBlobLength(const KVKey &kvKey)
{
    return sizeof(BCRYPT_RSAKEY_BLOB) + kvKey.e_siz + kvKey.n_siz + (ModulusNeedsLeadingZero(kvKey) ? 1 : 0);
}

void WriteRsaBlob(const KVKey &kvKey, PBYTE pbOutput)
{
    bool leadingZero = ModulusNeedsLeadingZero(kvKey);
    BCRYPT_RSAKEY_BLOB header = {};
    header.Magic = BCRYPT_RSAPUBLIC_MAGIC;
    header.BitLength = kvKey.n_siz * 8;
    header.cbPublicExp = kvKey.e_siz;
    header.cbModulus = kvKey.n_siz + (leadingZero ? 1 : 0);
    memcpy(pbOutput, &header, sizeof(header));
    PBYTE pb = pbOutput + sizeof(header);
    if (kvKey.e_siz)
        memcpy(pb, kvKey.e, kvKey.e_siz);
    pb += kvKey.e_siz;
    if (leadingZero)
        *pb++ = 0;
    if (kvKey.n_siz)
        memcpy(pb, kvKey.n, kvKey.n_siz);
}

void WriteEccBlob(const KVKey &kvKey, ULONG ulMagic, PBYTE pbOutput)
{
    BCRYPT_ECCKEY_BLOB header = {ulMagic, kvKey.x_siz};
    memcpy(pbOutput, &header, sizeof(header));
    if (kvKey.x_siz)
        memcpy(pbOutput + sizeof(header), kvKey.x, kvKey.x_siz);
    if (kvKey.y_siz)
        memcpy(pbOutput + sizeof(header) + kvKey.x_siz, kvKey.y, kvKey.y_siz);
}

SECURITY_STATUS ExportChecked(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszBlobType,
                              PBYTE pbOutput, DWORD cbOutput, DWORD *pcbResult, DWORD dwFlags)
{
    if (!KspProviderFromHandle(hProvider)) {
        LogMsg(L"KestalKeyVaultKSPExportKey pProvider == NULL", KSP_LOG_FAILURE);
        return NTE_INVALID_HANDLE;
    }
    KSP_KEY *pKey = KspKeyFromHandle(hKey);
    if (!pKey) {
        LogMsg(L"KestalKeyVaultKSPExportKey pKey == NULL", KSP_LOG_FAILURE);
        return NTE_INVALID_HANDLE;
    }
    if (!pcbResult) {
        LogMsg(L"KestalKeyVaultKSPExportKey pcbResult == NULL", KSP_LOG_FAILURE);
        return NTE_INVALID_PARAMETER;
    }
    if (dwFlags & ~kExportFlags) {
        LogMsgNum(L"KestalKeyVaultKSPExportKey", L"Bad Flags", static_cast<int>(dwFlags), KSP_LOG_FAILURE);
        return NTE_BAD_FLAGS;
    }
    if (dwFlags & NCRYPT_EXPORT_LEGACY_FLAG) {
        LogMsg2(L"KestalKeyVaultKSPExportKey", L"Legacy Flag", KSP_LOG_FAILURE);
        return NTE_NOT_SUPPORTED;
    }

    if (!pszBlobType)
        pszBlobType = L""; // no type is an unknown type
    bool wantEcc = wcscmp(pszBlobType, BCRYPT_ECCPUBLIC_BLOB) == 0;
    bool wantRsa = wcscmp(pszBlobType, BCRYPT_PUBLIC_KEY_BLOB) == 0 || wcscmp(pszBlobType, BCRYPT_RSAPUBLIC_BLOB) == 0;
    if (!wantEcc && !wantRsa) {
        for (const WCHAR *pszPrivate : kPrivateBlobTypes)
            if (wcscmp(pszBlobType, pszPrivate) == 0)
                return NTE_NOT_SUPPORTED;
        LogMsg(L"KestalKeyVaultKSPExportKey NTE_INVALID_PARAMETER", KSP_LOG_FAILURE);
        return NTE_INVALID_PARAMETER;
    }

    const KVKey &kvKey = pKey->kvKey;
    if (!kvKey.valid) {
        LogMsg(L"KestalKeyVaultKSPExportKey KV Key not initialised", KSP_LOG_FAILURE);
        return NTE_INVALID_PARAMETER;
    }
    // "PUBLICBLOB" names no key type, but only RSA keys answer it: an EC key is asked for its
    // ECCPUBLICBLOB by name, as CNG itself does.
    if (wantEcc != (kvKey.isEC != 0)) {
        LogMsg(L"KestalKeyVaultKSPExportKey KV Key ECC is NOT RSA", KSP_LOG_FAILURE);
        return NTE_INVALID_PARAMETER;
    }

    DWORD cbBlob = 0;
    ULONG ulMagic = 0;
    if (!kvKey.isEC) {
        LogMsg(L"KestalKeyVaultKSPExportKey Export RSA Key", KSP_LOG_STEP);
        cbBlob = RsaBlobLength(kvKey);
    } else {
        LogMsg(L"KestalKeyVaultKSPExportKey Export ECC Key", KSP_LOG_STEP);
        ulMagic = EccMagicOfKey(kvKey);
        if (kvKey.x_siz != kvKey.y_siz) {
            LogMsg(L"KestalKeyVaultKSPExportKey ECC x_siz != y_siz", KSP_LOG_FAILURE);
            return NTE_INVALID_PARAMETER;
        }
        cbBlob = sizeof(BCRYPT_ECCKEY_BLOB) + kvKey.x_siz + kvKey.y_siz;
    }

    *pcbResult = cbBlob;
    if (pbOutput && cbBlob > cbOutput)
        return NTE_BUFFER_TOO_SMALL;
    if (pbOutput) {
        if (kvKey.isEC)
            WriteEccBlob(kvKey, ulMagic, pbOutput);
        else
            WriteRsaBlob(kvKey, pbOutput);
    }
    LogMsgNum(L"KestalKeyVaultKSPExportKey Export OK", L"Size", static_cast<int>(cbBlob), KSP_LOG_STEP);
    return ERROR_SUCCESS;
}

} // namespace

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                             NCRYPT_KEY_HANDLE, LPCWSTR pszBlobType,
                                                             NCryptBufferDesc *, PBYTE pbOutput, DWORD cbOutput,
                                                             DWORD *pcbResult, DWORD dwFlags)
{
    LogMsg2(L"KestalKeyVaultKSPExportKey", pszBlobType, KSP_LOG_ENTRY);
    SECURITY_STATUS status =
        ExportChecked(hProvider, hKey, pszBlobType, pbOutput, cbOutput, pcbResult, dwFlags);
    return status == ERROR_SUCCESS ? status : KspFail(L"KestalKeyVaultKSPExportKey Failed", status);
}
