// The client record: one configured connection to one vault, created at provider open and
// deleted at provider free.
#include "kvclient/kvc.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>

namespace {

// The public Azure cloud: the sign-in authority (tenant appended) and the vault audience.
constexpr const WCHAR kLoginAuthority[] = L"https://login.microsoftonline.com/";
constexpr const WCHAR kVaultResource[] = L"https://vault.azure.net";

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

    WCHAR szExpanded[kPatternChars];
    WCHAR szVaultName[kVaultNameChars + 1];
    ExpandVaultPattern(pszKVNamePattern, szExpanded);
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
    FreeField(&kvc->loginUrl);
    kvc->loginUrl = BldStrNewStr(kLoginAuthority);
    if (kvc->loginUrl)
        BldStrCat(kvc->loginUrl, kvc->tenantId ? kvc->tenantId->cStr : nullptr);

    FreeField(&kvc->resource);
    kvc->resource = BldStrNewStr(kVaultResource);

    LogMsg3(L"KVCGetLoginUrl Success", kvc->loginUrl ? kvc->loginUrl->cStr : nullptr,
            kvc->resource ? kvc->resource->cStr : nullptr, KSP_LOG_TRACE);
    return 1;
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
    FreeField(&kvc->tenantId);
    FreeField(&kvc->clientId);
    FreeField(&kvc->clientCertId);
    SecureZeroMemory(kvc, sizeof(*kvc));
    free(kvc);
}
