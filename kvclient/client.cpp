// The client record: one configured connection to one vault, created at provider open and
// deleted at provider free.
#include "kvclient/kvc.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

namespace {

// Each cloud signs in at its own host and keeps its vaults on its own domains, and a token is
// good for one audience only: these go together, so one row holds them. The first is the
// default.
constexpr KVC_CLOUD kClouds[] = {
    {L"AzurePublicCloud", L"login.microsoftonline.com", L"vault.azure.net", L"https://vault.azure.net",
     L"managedhsm.azure.net", L"https://managedhsm.azure.net"},
    {L"AzureChinaCloud", L"login.chinacloudapi.cn", L"vault.azure.cn", L"https://vault.azure.cn",
     L"managedhsm.azure.cn", L"https://managedhsm.azure.cn"},
    {L"AzureUSGovernment", L"login.microsoftonline.us", L"vault.usgovcloudapi.net",
     L"https://vault.usgovcloudapi.net", L"managedhsm.usgovcloudapi.net", L"https://managedhsm.usgovcloudapi.net"},
};
constexpr WCHAR kHttpsScheme[] = L"https://";
constexpr DWORD kHostChars = 255; // the longest DNS name
// Managed HSM refuses api-versions before 7.2; 7.4 is the newest whose answers are known here.
constexpr WCHAR kManagedHsmApiVersion[] = L"7.4";

constexpr DWORD kPatternChars = 512;  // the expanded pattern, terminator included
constexpr DWORD kVaultNameChars = 24; // the longest vault name Azure accepts
constexpr const WCHAR kIdentityPlaceholder[] = L"oidguid";

// Appends text to the expansion buffer while room is left; always keeps a terminator.
void AppendBounded(WCHAR *pszOut, DWORD *pcch, const WCHAR *pszText)
{
    while (*pszText && *pcch < kPatternChars - 1)
        pszOut[(*pcch)++] = *pszText++;
    pszOut[*pcch] = 0;
}

// "%D" becomes this computer's DNS name, "%G" the identity placeholder, any other "%x" is dropped.
void ExpandVaultPattern(const WCHAR *pszPattern, WCHAR *pszOut)
{
    DWORD cch = 0;
    pszOut[0] = 0;
    if (pszPattern[0] == 0)
        pszPattern = L"%D";
    for (const WCHAR *p = pszPattern; *p; ++p) {
        if (*p != L'%') {
            WCHAR one[2] = {*p, 0};
            AppendBounded(pszOut, &cch, one);
            continue;
        }
        WCHAR next = p[1];
        if (next == 0) // a trailing "%" has nothing to drop with it
            break;
        ++p;
        if (next == L'D') {
            WCHAR szDns[257] = {};
            DWORD cchDns = ARRAYSIZE(szDns);
            if (GetComputerNameExW(ComputerNameDnsFullyQualified, szDns, &cchDns))
                AppendBounded(pszOut, &cch, szDns);
        } else if (next == L'G') {
            AppendBounded(pszOut, &cch, kIdentityPlaceholder);
        }
    }
}

// Drops the dots, lower-cases and keeps at most 24 characters.
void ReduceToVaultName(const WCHAR *pszExpanded, WCHAR *pszName)
{
    DWORD cch = 0;
    for (const WCHAR *p = pszExpanded; *p && cch < kVaultNameChars; ++p) {
        if (*p == L'.')
            continue;
        // tolower is defined for single-byte characters only; vault names are ASCII.
        pszName[cch++] = *p < 0x80 ? static_cast<WCHAR>(tolower(*p)) : *p;
    }
    pszName[cch] = 0;
}

// "https://<host>" with an optional ":443" and "/" after it: the host, lower-cased, into pszHost
// (kHostChars + 1). False for anything else: another port or a path would not be honoured.
bool HostOfVaultUrl(const WCHAR *pszUrl, WCHAR *pszHost)
{
    const WCHAR *p = pszUrl + ARRAYSIZE(kHttpsScheme) - 1;
    DWORD cch = 0;
    for (; *p && *p != L'/' && *p != L':'; ++p) {
        const bool fHostChar = (*p >= L'a' && *p <= L'z') || (*p >= L'A' && *p <= L'Z') ||
                               (*p >= L'0' && *p <= L'9') || *p == L'-' || *p == L'.';
        if (!fHostChar || cch == kHostChars)
            return false;
        pszHost[cch++] = static_cast<WCHAR>(towlower(*p));
    }
    pszHost[cch] = 0;
    if (*p == L':') {
        if (wcsncmp(p, L":443", 4) != 0)
            return false;
        p += 4;
    }
    return cch > 0 && (*p == 0 || (p[0] == L'/' && p[1] == 0));
}

// The cloud and kind whose domain the host is on; false for a domain none of them has.
bool CloudOfHost(const WCHAR *pszHost, const KVC_CLOUD **ppCloud, DWORD *pfManagedHsm)
{
    const size_t cchHost = wcslen(pszHost);
    for (const KVC_CLOUD &cloud : kClouds) {
        for (DWORD fHsm = 0; fHsm < 2; ++fHsm) {
            const WCHAR *pszDomain = fHsm ? cloud.pszHsmDomain : cloud.pszVaultDomain;
            const size_t cchDomain = wcslen(pszDomain);
            if (cchHost > cchDomain + 1 && pszHost[cchHost - cchDomain - 1] == L'.' &&
                wcscmp(pszHost + cchHost - cchDomain, pszDomain) == 0) {
                *ppCloud = &cloud;
                *pfManagedHsm = fHsm;
                return true;
            }
        }
    }
    return false;
}

// A Managed HSM has no certificates API: certificate mode falls back to plain keys, and the
// machine scope's certificate sync (which runs only in certificate mode) goes with it. Each is
// said once per process, not on every provider open.
void SettleManagedHsm(KVC *kvc)
{
    static volatile LONG s_fPlainKeysSaid = 0;
    static volatile LONG s_fNoSyncSaid = 0;
    if (!kvc->fManagedHsm || !kvc->fCertMode)
        return;
    kvc->fCertMode = 0;
    if (InterlockedExchange(&s_fPlainKeysSaid, 1) == 0)
        LogMsg(L"KVCSetCloud Managed HSM has no certificates - keys are plain keys", KSP_LOG_WARNING);
    if (kvc->fMachine && InterlockedExchange(&s_fNoSyncSaid, 1) == 0)
        LogMsg(L"KVCSetCloud Managed HSM has no certificates - certificate sync skipped", KSP_LOG_WARNING);
}

// A record made without KVCNew (zero-filled) is in the public cloud.
const KVC_CLOUD *CloudOf(const KVC *kvc) { return kvc->cloud ? kvc->cloud : &kClouds[0]; }

BldStr *CopyOrAbsent(const WCHAR *psz)
{
    return psz ? BldStrNewStr(psz) : nullptr;
}

void FreeField(BldStr **ppstr)
{
    BldStrFree(*ppstr);
    *ppstr = nullptr;
}

} // namespace

KVC *KVCNew(const WCHAR *pszKVNamePattern, DWORD authn, const WCHAR *pszTenantId, const WCHAR *pszClientId,
            const WCHAR *pszClientSecret, const WCHAR *pszClientCertId, DWORD fMachine, DWORD fPurge, DWORD fCertMode,
            DWORD dwExportable)
{
    LogMsg(L"KVCNew KeyVault and Authentication Type", KSP_LOG_STEP);
    if (!pszKVNamePattern) {
        LogMsg(L"KVCNew NULL kvname", KSP_LOG_FAILURE);
        return nullptr;
    }
    KVC *kvc = static_cast<KVC *>(calloc(1, sizeof(KVC)));
    if (!kvc) {
        LogMsg(L"KVCNew failed to allocate KVC", KSP_LOG_FAILURE);
        return nullptr;
    }
    InitializeSRWLock(&kvc->tokenLock);
    InitializeConditionVariable(&kvc->tokenRenewed);
    kvc->fMachine = fMachine;
    kvc->fPurge = fPurge;
    kvc->fCertMode = fCertMode;
    kvc->dwExportable = dwExportable;
    kvc->cloud = &kClouds[0];

    WCHAR szExpanded[kPatternChars];
    WCHAR szVaultName[kVaultNameChars + 1];
    if (_wcsnicmp(pszKVNamePattern, kHttpsScheme, ARRAYSIZE(kHttpsScheme) - 1) == 0) {
        // A URL: its host as it stands; the name (its first label) is kept for the log.
        WCHAR szHost[kHostChars + 1];
        if (!HostOfVaultUrl(pszKVNamePattern, szHost) || !(kvc->vaultHost = BldStrNewStr(szHost))) {
            LogMsg2(L"KVCNew KeyVault URL not usable", pszKVNamePattern, KSP_LOG_FAILURE);
            free(kvc);
            return nullptr;
        }
        CloudOfHost(szHost, &kvc->cloud, &kvc->fManagedHsm);
        SettleManagedHsm(kvc);
        wcsncpy_s(szExpanded, szHost, _TRUNCATE);
        if (WCHAR *pszDot = wcschr(szExpanded, L'.'))
            *pszDot = 0;
    } else {
        ExpandVaultPattern(pszKVNamePattern, szExpanded);
    }
    ReduceToVaultName(szExpanded, szVaultName);

    kvc->kvName = BldStrNewStr(szVaultName);
    kvc->authn = authn == 0 ? 1 : authn;
    kvc->clientId = CopyOrAbsent(pszClientId);
    kvc->clientSecret = CopyOrAbsent(pszClientSecret);
    kvc->clientCertId = CopyOrAbsent(pszClientCertId);
    kvc->tenantId = CopyOrAbsent(pszTenantId);
    LogMsgNum(L"KVCNew KeyVault and Authentication Type", szVaultName, static_cast<int>(kvc->authn), KSP_LOG_STEP);
    LogMsg3(L"KVCNew ClientID and Client Cert", pszClientId, pszClientCertId, KSP_LOG_STEP);
    return kvc;
}

int KVCGetLoginUrl(KVC *kvc)
{
    if (!kvc)
        return 1;
    LogMsg2(L"KVCGetLoginUrl called", kvc->kvName ? kvc->kvName->cStr : nullptr, KSP_LOG_STEP);

    // Built afresh on every call; the earlier values are released first.
    // "https://<sign-in host>/<tenant>" and the audience of the vault's cloud and kind.
    FreeField(&kvc->loginUrl);
    kvc->loginUrl = BldStrNewStr(kHttpsScheme);
    if (kvc->loginUrl && BldStrCat(kvc->loginUrl, CloudOf(kvc)->pszLoginHost) && BldStrCat(kvc->loginUrl, L"/"))
        BldStrCat(kvc->loginUrl, kvc->tenantId ? kvc->tenantId->cStr : nullptr);

    FreeField(&kvc->resource);
    kvc->resource = BldStrNewStr(kvc->fManagedHsm ? CloudOf(kvc)->pszHsmAudience : CloudOf(kvc)->pszVaultAudience);

    LogMsg3(L"KVCGetLoginUrl Success", kvc->loginUrl ? kvc->loginUrl->cStr : nullptr,
            kvc->resource ? kvc->resource->cStr : nullptr, KSP_LOG_TRACE);
    return 1;
}

int KVCSetCloud(KVC *kvc, const WCHAR *pszAzureCloud, const WCHAR *pszVaultType)
{
    if (!kvc)
        return 0;
    const KVC_CLOUD *pCloud = &kClouds[0];
    DWORD fManagedHsm = 0;
    if (kvc->vaultHost && CloudOfHost(kvc->vaultHost->cStr, &pCloud, &fManagedHsm)) {
        LogMsg2(L"KVCSetCloud Cloud and kind from the KeyVault URL", kvc->vaultHost->cStr, KSP_LOG_STEP);
        return 1;
    }
    if (pszAzureCloud && *pszAzureCloud) {
        pCloud = nullptr;
        for (const KVC_CLOUD &cloud : kClouds)
            if (_wcsicmp(pszAzureCloud, cloud.pszName) == 0)
                pCloud = &cloud;
        if (!pCloud) {
            LogMsg2(L"KVCSetCloud Unknown AzureCloud", pszAzureCloud, KSP_LOG_FAILURE);
            return 0;
        }
    }
    if (pszVaultType && *pszVaultType) {
        if (_wcsicmp(pszVaultType, L"ManagedHSM") == 0) {
            fManagedHsm = 1;
        } else if (_wcsicmp(pszVaultType, L"KeyVault") != 0) {
            LogMsg2(L"KVCSetCloud Unknown VaultType", pszVaultType, KSP_LOG_FAILURE);
            return 0;
        }
    }
    kvc->cloud = pCloud;
    kvc->fManagedHsm = fManagedHsm;
    SettleManagedHsm(kvc);
    LogMsg3(L"KVCSetCloud", pCloud->pszName, fManagedHsm ? L"ManagedHSM" : L"KeyVault", KSP_LOG_STEP);
    return 1;
}

WCHAR *KVCNewVaultHost(const KVC *kvc)
{
    if (kvc->vaultHost)
        return KVCJoinText({kvc->vaultHost->cStr});
    return KVCJoinText({kvc->kvName ? kvc->kvName->cStr : nullptr, L".",
                        kvc->fManagedHsm ? CloudOf(kvc)->pszHsmDomain : CloudOf(kvc)->pszVaultDomain});
}

const WCHAR *KVCApiVersion(const KVC *kvc, const WCHAR *pszWanted)
{
    return kvc && kvc->fManagedHsm ? kManagedHsmApiVersion : pszWanted;
}

void KVCDelete(KVC *kvc)
{
    if (!kvc)
        return;
    LogMsg(L"KVCDelete", KSP_LOG_STEP);
    FreeField(&kvc->clientSecret); // BldStrFree zeroes it first
    FreeField(&kvc->accessToken);
    FreeField(&kvc->tokenType);
    FreeField(&kvc->loginUrl);
    FreeField(&kvc->resource);
    FreeField(&kvc->kvName);
    FreeField(&kvc->vaultHost);
    FreeField(&kvc->tenantId);
    FreeField(&kvc->clientId);
    FreeField(&kvc->clientCertId);
    KVCWipeFreeText(kvc->pszIdentity); // holds a hash of the secret
    SecureZeroMemory(kvc, sizeof(*kvc));
    free(kvc);
}
