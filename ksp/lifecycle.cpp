// Creating, finalizing, deleting and freeing keys. A new key is built in memory, takes its
// properties, and reaches the vault only when it is finalized; freeing a key whose certificate
// was set through CNG first publishes that certificate from the Windows store to the vault.
#include "ksp/ksp.h"
#include "kvclient/algorithms.h"

#include <wincrypt.h>

#include <memory>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

namespace {

// What FreeKey reads from the store: certificates of up to 64 KB (the store lookup refuses one
// as long as the buffer, hence the spare byte); the subject text is the 8000 characters the
// store lookup writes at most. SHA-1 needs 20 bytes; the rest is room for a longer hash.
constexpr DWORD kStoreCertBytes = 65536 + 1;
constexpr DWORD kStoreHashBytes = 64;
constexpr DWORD kStoreSubjectChars = 8000;


bool KnownAlgorithm(LPCWSTR pszAlgId) { return KVCAlgorithmByName(pszAlgId) != nullptr; }

// Uploads the store's certificate of the key unless CertSync says it was handled before or the
// vault already holds the same bytes; either way the hash is then recorded. Failures are only
// logged: the key is freed whatever happens here.
void PublishCertificate(KSP_KEY *pKey)
{
    if (pKey->kvc && pKey->kvc->fManagedHsm) {
        LogMsg(L"KestalKeyVaultKSPFreeKey Managed HSM has no certificates - publish skipped", KSP_LOG_STEP);
        return;
    }
    const BOOL fMachine = pKey->dwMachineKey != 0;
    BldStrPtr certSync(BldStrGetWStringValue(fMachine));
    if (!certSync)
        return;
    LogMsg2(L"KestalKeyVaultKSPFreeKey publishCert", certSync->cStr, KSP_LOG_PUBLISH);
    WCHAR szEncoded[KVC_ENCODED_NAME_CHARS] = {};
    KVCConvertClearKeyNameToEncoded(pKey->pszKeyName, szEncoded, nullptr);

    CallocPtr<BYTE> cert(static_cast<BYTE *>(calloc(kStoreCertBytes, 1)));
    CallocPtr<WCHAR> subject(static_cast<WCHAR *>(calloc(kStoreSubjectChars, sizeof(WCHAR))));
    BYTE hash[kStoreHashBytes];
    DWORD cbCert = kStoreCertBytes, cbHash = sizeof(hash);
    if (!cert || !subject ||
        !KVCEvaluateCertsInStore(!fMachine, pKey->pszKeyName, cert.get(), &cbCert, hash, &cbHash, subject.get()))
        return;
    if (cbCert == 0 || cbHash == 0) {
        LogMsg(L"KestalKeyVaultKSPFreeKey KVCEvaluateCertsInStore Failed - cannot find certificate", KSP_LOG_FAILURE);
        if (cbCert == 0)
            LogMsg(L"KestalKeyVaultKSPFreeKey KVCEvaluateCertsInStore Failed - tmpCertSiz 0", KSP_LOG_FAILURE);
        if (cbHash == 0)
            LogMsg(L"KestalKeyVaultKSPFreeKey KVCEvaluateCertsInStore Failed - tmpCertHashSize 0", KSP_LOG_FAILURE);
        return;
    }
    // The list holds upper-case SHA-1 texts each followed by a comma, as the sync writes them.
    BldStrPtr hashText(BldStrNewHexStr(hash, cbHash));
    if (!hashText)
        return;
    LogMsg2(L"KestalKeyVaultKSPSetKeyProperty EvaluateCertsInStore Found Certificate Hash", hashText->cStr,
            KSP_LOG_TRACE);
    if (wcsstr(certSync->cStr, hashText->cStr))
        return;

    LogMsg2(L"KestalKeyVaultKSPSetKeyProperty EvaluateCertsInStore Found Certificate", pKey->pszKeyName, KSP_LOG_TRACE);
    KVCFreeKVKey(&pKey->kvKey);
    // A token from the key's opening may have run out while the handle was held.
    if (!KVCAuthenticate(pKey->kvc, nullptr)) {
        LogMsg(L"KestalKeyVaultKSPFreeKey Authenticate Failed ", KSP_LOG_FAILURE);
        return;
    }
    DATA_BLOB vaultCert = {};
    bool fUpload = true;
    if (!KVCGetCert(pKey->kvc, szEncoded, &vaultCert)) {
        LogMsg2(L"KestalKeyVaultKSPSetKeyProperty EvaluateCertsInStore Could not find KV Certificate", pKey->pszKeyName,
                KSP_LOG_TRACE);
    } else if (vaultCert.cbData != cbCert) {
        LogMsg2(L"KestalKeyVaultKSPSetKeyProperty EvaluateCertsInStore Certificate Different Sizes", pKey->pszKeyName,
                KSP_LOG_TRACE);
    } else if (memcmp(vaultCert.pbData, cert.get(), cbCert) != 0) {
        LogMsg2(L"KestalKeyVaultKSPSetKeyProperty EvaluateCertsInStore Certificate Different", pKey->pszKeyName,
                KSP_LOG_TRACE);
    } else {
        LogMsg(L"KestalKeyVaultKSPSetKeyProperty EvaluateCertsInStore Certificate Already in KV - Skip Sync",
               KSP_LOG_TRACE);
        fUpload = false;
    }
    free(vaultCert.pbData);
    if (fUpload &&
        !KVCLowLevelCreateKeyCertificate(pKey->kvc, pKey->pszKeyName, szEncoded, pKey->szAlgorithm,
                                         pKey->dwKeyBitLength, &pKey->kvKey, pKey->dwExportPolicy, cert.get(), cbCert))
        return;

    LogMsg2(L"KestalKeyVaultKSPSetKeyProperty KVCLowLevelCreateKeyCertificate OK", pKey->pszKeyName, KSP_LOG_TRACE);
    if (BldStrCat(certSync.get(), hashText->cStr) && BldStrCat(certSync.get(), L","))
        KestalRegSetString(fMachine, L"CertSync", certSync->cStr);
}

} // namespace

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider,
                                                                      NCRYPT_KEY_HANDLE *phKey, LPCWSTR pszAlgId,
                                                                      LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                                      DWORD dwFlags)
{
    LogMsg2(L"KestalKeyVaultKSPCreatePersistedKey", pszKeyName, KSP_LOG_ENTRY);
    LogMsgNum(L"KestalKeyVaultKSPCreatePersistedKey", L"dwFlags", static_cast<int>(dwFlags), KSP_LOG_STEP);
    LogMsgNum(L"KestalKeyVaultKSPCreatePersistedKey", L"dwLegacyKeySpec", static_cast<int>(dwLegacyKeySpec),
              KSP_LOG_STEP);
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    if (!provider)
        return KspFail(L"KestalKeyVaultKSPCreatePersistedKey", NTE_INVALID_HANDLE);
    // No name makes an ephemeral key; an empty one names nothing the vault could hold.
    if (!phKey || !pszAlgId || (pszKeyName && !*pszKeyName))
        return KspFail(L"KestalKeyVaultKSPCreatePersistedKey", NTE_INVALID_PARAMETER);
    if (dwFlags & ~(NCRYPT_MACHINE_KEY_FLAG | NCRYPT_SILENT_FLAG | NCRYPT_OVERWRITE_KEY_FLAG))
        return KspFail(L"KestalKeyVaultKSPCreatePersistedKey", NTE_BAD_FLAGS);
    if (!KnownAlgorithm(pszAlgId)) {
        LogMsg2(L"KestalKeyVaultKSPCreatePersistedKey Invalid Algorithm", pszAlgId, KSP_LOG_FAILURE);
        return NTE_NOT_SUPPORTED;
    }

    const DWORD dwMachineKey = dwFlags & NCRYPT_MACHINE_KEY_FLAG;
    KSP_KEY *pKey = nullptr;
    SECURITY_STATUS status = CreateNewKeyObject(pszKeyName, pszAlgId, &pKey, dwMachineKey);
    if (status != ERROR_SUCCESS) {
        LogMsg(L"KestalKeyVaultKSPCreatePersistedKey CreateNewKeyObject Failed", KSP_LOG_FAILURE);
        return status;
    }
    pKey->kvc = dwMachineKey ? provider->kvcMachine : provider->kvcUser;
    if (!KVCAuthenticate(pKey->kvc, nullptr)) {
        LogMsg(L"KestalKeyVaultKSPCreatePersistedKey Authenticate Failed ", KSP_LOG_FAILURE);
        DeleteKeyObject(pKey);
        return SEC_E_LOGON_DENIED;
    }
    if (pszKeyName && !(dwFlags & NCRYPT_OVERWRITE_KEY_FLAG)) {
        KVKey existing = {};
        const int found = KVCGetKey(pKey->kvc, pszKeyName, &existing, 1);
        KVCFreeKVKey(&existing);
        if (found) {
            DeleteKeyObject(pKey);
            return KspFail(L"KestalKeyVaultKSPCreatePersistedKey", NTE_EXISTS);
        }
    }
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(pKey);
    return ERROR_SUCCESS;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                               DWORD dwFlags)
{
    LogMsgNum(L"KestalKeyVaultKSPFinalizeKey", L"dwFlags", static_cast<int>(dwFlags), KSP_LOG_ENTRY);
    KSP_KEY *pKey = KspKeyFromHandle(hKey);
    // Finalizing twice is reported as a bad handle: the handle no longer names a key to finalize.
    if (!KspProviderFromHandle(hProvider) || !pKey || pKey->fFinished)
        return KspFail(L"KestalKeyVaultKSPFinalizeKey", NTE_INVALID_HANDLE);
    if (dwFlags & ~(NCRYPT_NO_KEY_VALIDATION | NCRYPT_SILENT_FLAG | NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG))
        return KspFail(L"KestalKeyVaultKSPFinalizeKey", NTE_BAD_FLAGS);
    if (dwFlags & NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG)
        return KspFail(L"KestalKeyVaultKSPFinalizeKey", NTE_NOT_SUPPORTED);
    if (!pKey->pszKeyName) { // an ephemeral key lives only in this handle
        pKey->fFinished = 1;
        return ERROR_SUCCESS;
    }
    // The token from CreatePersistedKey may have run out while properties were being set.
    if (pKey->kvc && !KVCAuthenticate(pKey->kvc, nullptr)) {
        LogMsg(L"KestalKeyVaultKSPFinalizeKey Authenticate Failed ", KSP_LOG_FAILURE);
        return SEC_E_LOGON_DENIED;
    }
    SECURITY_STATUS status = pKey->pbPrivateKey
                                 ? KspImportPrivateKeyToVault(pKey)
                                 : KVCCreateKey(pKey->pszKeyName, pKey->kvc, pKey->szAlgorithm, pKey->dwKeyBitLength,
                                                pKey->dwExportPolicy, &pKey->kvKey);
    if (status != ERROR_SUCCESS)
        return KspFail(L"KestalKeyVaultKSPFinalizeKey", NTE_FAIL); // still unfinished: may be finalized again
    pKey->fFinished = 1;
    return ERROR_SUCCESS;
}

// A failed deletion returns what KVCKeyDelete says, NTE_INTERNAL_ERROR, and keeps the handle.
extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                             DWORD dwFlags)
{
    LogMsg(L"KestalKeyVaultKSPDeleteKey", KSP_LOG_ENTRY);
    KSP_KEY *pKey = KspKeyFromHandle(hKey);
    if (!KspProviderFromHandle(hProvider) || !pKey)
        return KspFail(L"KestalKeyVaultKSPDeleteKey", NTE_INVALID_HANDLE);
    if (dwFlags & ~NCRYPT_SILENT_FLAG)
        return KspFail(L"KestalKeyVaultKSPDeleteKey", NTE_BAD_FLAGS);
    if (!KVCAuthenticate(pKey->kvc, nullptr)) {
        LogMsg(L"KestalKeyVaultKSPDeleteKey Authenticate Failed ", KSP_LOG_FAILURE);
        return SEC_E_LOGON_DENIED;
    }
    SECURITY_STATUS status = KVCKeyDelete(pKey->pszKeyName, pKey->kvc);
    if (status != ERROR_SUCCESS)
        return KspFail(L"KestalKeyVaultKSPDeleteKey", status);
    LogMsg(L"KestalKeyVaultKSPDeleteKey Key Deleted - now free the storage", KSP_LOG_ENTRY);
    pKey->fPublishCert = 0; // the key is gone: publishing its certificate would bring it back
    return KestalKeyVaultKSPFreeKey(hProvider, hKey);
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey)
{
    LogMsg(L"KestalKeyVaultKSPFreeKey", KSP_LOG_ENTRY);
    KSP_KEY *pKey = KspKeyFromHandle(hKey);
    if (!KspProviderFromHandle(hProvider) || !pKey)
        return KspFail(L"KestalKeyVaultKSPFreeKey", NTE_INVALID_HANDLE);
    LogMsg2(L"KestalKeyVaultKSPFreeKey", pKey->pszKeyName ? pKey->pszKeyName : L"NULL Name", KSP_LOG_PUBLISH);
    if (pKey->pszKeyName && pKey->fPublishCert)
        PublishCertificate(pKey);
    KVCFreeKVKey(&pKey->kvKey);
    return DeleteKeyObject(pKey);
}
