// Certificate store integration: vault certificates are placed in the local machine's "My"
// store bound to this provider, so that ordinary Windows software that picks such a
// certificate opens its key through us.
#include "kvclient/kvc.h"
#include "support/handles.h"

#include <wincrypt.h>

#include <atomic>
#include <memory>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "support/product.h"

namespace {

// The stored time stamp is the sync time plus this, and a sync runs only when the clock has
// passed the stamp by this much again: at most one sync every 1,200 s.
constexpr __time64_t kSyncIntervalSeconds = 600;
constexpr DWORD kThumbprintBytes = 65; // room for any hash the vault might name in "x5t"
constexpr DWORD kSubjectChars = 2048;
constexpr DWORD kX500SubjectChars = 8000;
constexpr DWORD kProvInfoBytes = 1000;
constexpr DWORD kCertEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
// The subject of the placeholder certificate that certificate-backed key creation merges
// before the real one arrives: it stands for no usable certificate.
constexpr WCHAR kPlaceholderSubject[] = L"Dummy Certificate Name";

// Closes the store now, for callers that log how that went; the owner is left empty.
BOOL CloseStore(UniqueCertStore *store) { return CertCloseStore(store->release(), 0); }

HCERTSTORE OpenMyStore(DWORD dwLocation)
{
    return CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, dwLocation, L"My");
}


// FromKVLastSyncTime; 0 when it is missing or not a REG_DWORD.
DWORD ReadLastSyncTime()
{
    DWORD dwValue = 0;
    DWORD cb = sizeof(dwValue);
    DWORD type = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, KSP_SETTINGS_KEY, L"FromKVLastSyncTime", RRF_RT_ANY | KSP_SETTINGS_RRF_VIEW,
                     &type, &dwValue, &cb) != ERROR_SUCCESS ||
        type != REG_DWORD || cb != sizeof(dwValue))
        return 0;
    return dwValue;
}

// The stamp of a sync whose stamp the registry refused (a process without write access to
// HKEY_LOCAL_MACHINE), so that such a process does not sync on every provider handle; 0 while
// every stamp could be written, leaving the registry value the one source (deleting it still
// forces the next sync).
std::atomic<DWORD> g_dwUnwrittenSyncTime{0};

void WriteLastSyncTime(DWORD dwValue)
{
    UniqueRegKey key;
    LSTATUS rc = RegOpenKeyExW(HKEY_LOCAL_MACHINE, KSP_SETTINGS_KEY, 0, KEY_SET_VALUE | KSP_SETTINGS_VIEW, key.put());
    if (rc == ERROR_SUCCESS)
        rc = RegSetValueExW(key.get(), L"FromKVLastSyncTime", 0, REG_DWORD, reinterpret_cast<const BYTE *>(&dwValue),
                            sizeof(dwValue));
    if (rc != ERROR_SUCCESS)
        LogMsgError(L"KVCSyncCertsFromKVToMachine Update Time Failed", static_cast<DWORD>(rc), KSP_LOG_WARNING);
    g_dwUnwrittenSyncTime = rc == ERROR_SUCCESS ? 0 : dwValue;
}

// The "x5t" thumbprint as CertSync records it: upper-case hexadecimal. Null when it is not base64.
BldStrPtr ThumbprintHex(const WCHAR *pszThumbprint)
{
    BYTE hash[kThumbprintBytes];
    DWORD cb = sizeof(hash);
    if (!BldBinFromBase64(pszThumbprint, hash, &cb))
        return nullptr;
    return BldStrPtr(BldStrNewHexStr(hash, cb));
}

// Fetches one listed certificate and adds it to the store. TRUE when it counts as pulled.
BOOL PullCertificate(KVC *kvc, const WCHAR *pszClearName)
{
    // The listing gives CNG names; the vault knows the certificate by the encoded one.
    WCHAR szVaultName[KVC_ENCODED_NAME_CHARS];
    if (!KVCConvertClearKeyNameToEncoded(pszClearName, szVaultName, nullptr))
        return FALSE;
    DATA_BLOB cert = {0, nullptr};
    if (!KVCGetCert(kvc, szVaultName, &cert)) {
        free(cert.pbData);
        return FALSE;
    }
    BOOL added = KVCPropogateCertificateFromKeyVault(pszClearName, 0, &cert);
    free(cert.pbData);
    return added;
}

} // namespace

void KVCSyncCertsFromKVToMachine(KVC *kvc)
{
    LogMsg(L"KVCSyncCertsFromKVToMachine", KSP_LOG_STEP);
    __time64_t now = KspTime();
    const DWORD dwLastSync = ReadLastSyncTime();
    const DWORD dwUnwritten = g_dwUnwrittenSyncTime;
    if (now - static_cast<__time64_t>(dwLastSync > dwUnwritten ? dwLastSync : dwUnwritten) <= kSyncIntervalSeconds)
        return;
    LogMsg(L"KVCSyncCertsFromKVToMachine Time Check", KSP_LOG_TRACE);
    LogMsg(L"KVCSyncCertsFromKVToMachine Update Time", KSP_LOG_TRACE);
    // Stamped before any vault call: a sync that fails is not retried before the interval.
    WriteLastSyncTime(static_cast<DWORD>(now + kSyncIntervalSeconds));

    BldStrPtr certSync(BldStrGetWStringValue(TRUE));
    if (!certSync)
        return;
    LogMsg2(L"KVCSyncCertsFromKVToMachine CertSync", certSync->cStr, KSP_LOG_TRACE);

    // A listing cut short still hands back its tables: they are released on every way out.
    WCHAR **ppNames = nullptr, **ppThumbprints = nullptr;
    DWORD count = 0;
    const BOOL listed = KVCGetCerts(kvc, &ppNames, &ppThumbprints, &count);
    UniqueHeapBlock names(ppNames), thumbprints(ppThumbprints); // the two tables KVCGetCerts hands out
    if (!listed) {
        LogMsg(L"KVCSyncCertsFromKVToMachine KVCGetCerts Failed", KSP_LOG_TRACE);
        return;
    }
    LogMsg(L"KVCSyncCertsFromKVToMachine KVCGetCerts OK", KSP_LOG_TRACE);
    if (count == 0 || !ppNames || !ppThumbprints) {
        LogMsgNum(L"KVCSyncCertsFromKVToMachine Count", L"", static_cast<int>(count), KSP_LOG_TRACE);
        if (!ppNames)
            LogMsg(L"KVCSyncCertsFromKVToMachine WCHARCertsArray NULL", KSP_LOG_TRACE);
        return;
    }

    bool changed = false;
    for (DWORD i = 0; i < count; i++) {
        const WCHAR *pszName = ppNames[i];
        LogMsg2(L"KVCSyncCertsFromKVToMachine KVCGetCerts Loop Name", pszName, KSP_LOG_TRACE);
        LogMsg2(L"KVCSyncCertsFromKVToMachine KVCGetCerts Loop Thumbprint", ppThumbprints[i], KSP_LOG_TRACE);
        BldStrPtr hex = ThumbprintHex(ppThumbprints[i]);
        // Pulled once: a certificate removed from the store stays away while CertSync names it.
        if (!hex || wcsstr(certSync->cStr, hex->cStr))
            continue;
        LogMsg2(L"KVCSyncCertsFromKVToMachine Found New Cert", pszName, KSP_LOG_TRACE);
        if (PullCertificate(kvc, pszName) && BldStrCat(certSync.get(), hex->cStr) && BldStrCat(certSync.get(), L","))
            changed = true;
    }

    LogMsg(L"KVCGetCertsFree", KSP_LOG_STEP);
    names.reset();
    thumbprints.reset();
    if (changed) {
        LogMsg2(L"KVCSyncCertsFromKVToMachine Save Changed", certSync->cStr, KSP_LOG_TRACE);
        KestalRegSetString(TRUE, L"CertSync", certSync->cStr);
    }
}

BOOL KVCPropogateCertificateFromKeyVault(const WCHAR *pszName, DWORD, DATA_BLOB *pCert)
{
    LogMsg(L"KVCPropogateCertificateFromKeyVault", KSP_LOG_STEP);
    if (!pszName || !pCert) {
        LogMsg(L"KVCPropogateCertificateFromKeyVault NULL", KSP_LOG_WARNING);
        return FALSE;
    }
    {
        UniqueCertContext cert(CertCreateCertificateContext(kCertEncoding, pCert->pbData, pCert->cbData));
        if (!cert) {
            LogMsgError(L"KVCPropogateCertificateFromKeyVault CertCreateCertificateContext Failed", GetLastError(),
                        KSP_LOG_FAILURE);
            return FALSE;
        }
        WCHAR szSubject[kSubjectChars] = {};
        CertNameToStrW(X509_ASN_ENCODING, &cert.get()->pCertInfo->Subject, CERT_SIMPLE_NAME_STR, szSubject, kSubjectChars);
        if (wcsstr(szSubject, kPlaceholderSubject)) {
            LogMsg(L"KVCPropogateCertificateFromKeyVault Found Dummy Cert", KSP_LOG_TRACE);
            return TRUE;
        }
    }

    UniqueCertStore store(OpenMyStore(CERT_SYSTEM_STORE_LOCAL_MACHINE));
    if (!store) {
        LogMsgError(L"KVCPropogateCertificateFromKeyVault CertOpenStore FAILED", GetLastError(), KSP_LOG_FAILURE);
        return FALSE;
    }
    LogMsg(L"KVCPropogateCertificateFromKeyVault Certificate Store Open OK", KSP_LOG_TRACE);

    BOOL result = FALSE;
    PCCERT_CONTEXT pAdded = nullptr;
    if (!CertAddEncodedCertificateToStore(store.get(), kCertEncoding, pCert->pbData, pCert->cbData,
                                          CERT_STORE_ADD_USE_EXISTING, &pAdded)) {
        LogMsgError(L"KVCPropogateCertificateFromKeyVault CertAddEncodedCertificateToStore FAILED", GetLastError(),
                    KSP_LOG_FAILURE);
    } else {
        UniqueCertContext added(pAdded);
        LogMsg(L"KVCPropogateCertificateFromKeyVault Certificate Added to Store OK", KSP_LOG_TRACE);
        CRYPT_KEY_PROV_INFO provInfo = {};
        provInfo.pwszContainerName = const_cast<LPWSTR>(pszName);
        provInfo.pwszProvName = const_cast<LPWSTR>(KSP_PROVIDER_NAME);
        provInfo.dwFlags = CRYPT_MACHINE_KEYSET;
        if (CertSetCertificateContextProperty(added.get(), CERT_KEY_PROV_INFO_PROP_ID, 0, &provInfo)) {
            LogMsg(L"KVCPropogateCertificateFromKeyVault Certificate Provider Set OK", KSP_LOG_TRACE);
            result = TRUE;
        } else {
            LogMsgError(L"KVCPropogateCertificateFromKeyVault Certificate Provider Set FAILED", GetLastError(),
                        KSP_LOG_FAILURE);
        }
    }
    if (!CloseStore(&store)) {
        LogMsgError(L"KVCPropogateCertificateFromKeyVault CertCloseStore FAILED", GetLastError(), KSP_LOG_FAILURE);
        return FALSE;
    }
    return result;
}

BOOL KVCEvaluateCertsInStore(BOOL fUser, const WCHAR *pszName, BYTE *pbCert, DWORD *pcbCert, BYTE *pbHash,
                             DWORD *pcbHash, WCHAR *pszSubject)
{
    LogMsg2(L"KVCEvaluateCertsInStore store", fUser ? L"User" : L"Machine", KSP_LOG_STEP);
    LogMsg2(L"KVCEvaluateCertsInStore Look for Certificate", pszName, KSP_LOG_TRACE);
    if (!pszName || !pbCert || !pcbCert || !pbHash || !pcbHash || !pszSubject) {
        LogMsg(L"KVCEvaluateCertsInStore NULL", KSP_LOG_WARNING);
        return FALSE;
    }

    UniqueCertStore store(OpenMyStore(fUser ? CERT_SYSTEM_STORE_CURRENT_USER : CERT_SYSTEM_STORE_LOCAL_MACHINE));
    if (!store) {
        LogMsgError(L"KVCEvaluateCertsInStore CertOpenStore Failed", GetLastError(), KSP_LOG_TRACE);
        return FALSE;
    }

    const DWORD cbHashCapacity = *pcbHash;
    DWORD cbKept = 0;
    FILETIME ftKept = {};
    bool kept = false;
    for (PCCERT_CONTEXT cert = CertEnumCertificatesInStore(store.get(), nullptr); cert;
         cert = CertEnumCertificatesInStore(store.get(), cert)) {
        alignas(CRYPT_KEY_PROV_INFO) BYTE provInfoBytes[kProvInfoBytes];
        DWORD cbProvInfo = sizeof(provInfoBytes);
        if (!CertGetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, provInfoBytes, &cbProvInfo)) {
            LogMsg(L"KVCEvaluateCertsInStore CertGetCertificateContextProperty Failed", KSP_LOG_TRACE);
            continue;
        }
        const auto *provInfo = reinterpret_cast<const CRYPT_KEY_PROV_INFO *>(provInfoBytes);
        LogMsg2(L"KVCEvaluateCertsInStore kspInfoP->pwszContainerName", provInfo->pwszContainerName, KSP_LOG_TRACE);
        LogMsg2(L"KVCEvaluateCertsInStore kspInfoP->pwszProvName", provInfo->pwszProvName, KSP_LOG_TRACE);
        if (!provInfo->pwszContainerName || !provInfo->pwszProvName ||
            wcscmp(provInfo->pwszContainerName, pszName) != 0 || wcscmp(provInfo->pwszProvName, KSP_PROVIDER_NAME) != 0)
            continue;
        LogMsg(L"KVCEvaluateCertsInStore Found Matching Certificate", KSP_LOG_TRACE);

        // The most recently issued certificate of the key wins; on equal times the first seen.
        if (kept && CompareFileTime(&cert->pCertInfo->NotBefore, &ftKept) <= 0)
            continue;
        if (cert->cbCertEncoded >= *pcbCert) {
            LogMsg(L"KVCEvaluateCertsInStore certificate too large", KSP_LOG_TRACE);
            continue;
        }
        memcpy(pbCert, cert->pbCertEncoded, cert->cbCertEncoded);
        cbKept = cert->cbCertEncoded;
        *pcbHash = cbHashCapacity;
        if (!CertGetCertificateContextProperty(cert, CERT_HASH_PROP_ID, pbHash, pcbHash))
            *pcbHash = 0;
        CertNameToStrW(X509_ASN_ENCODING, &cert->pCertInfo->Subject, CERT_X500_NAME_STR, pszSubject,
                       kX500SubjectChars);
        ftKept = cert->pCertInfo->NotBefore;
        kept = true;
    }

    if (!CloseStore(&store))
        LogMsgError(L"KVCEvaluateCertsInStore CertCloseStore Failed", GetLastError(), KSP_LOG_TRACE);
    if (!kept) {
        LogMsg2(L"KVCEvaluateCertsInStore Failed to find certificate", L"Blob", KSP_LOG_TRACE);
        return FALSE;
    }
    LogMsg2(L"KVCEvaluateCertsInStore Found certificate OK", L"Blob", KSP_LOG_TRACE);
    *pcbCert = cbKept;
    return TRUE;
}
