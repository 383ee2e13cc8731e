// The Key Vault client: one configured connection to one vault.
// Memory: calloc/realloc/free; the caller frees what a function returns.
#pragma once

#include "support/bldstr.h"
#include "support/log.h"
#include "support/timeseam.h"

struct KVC {
    BldStr *tokenType;
    BldStr *accessToken;
    __time64_t tokenExpiry; // 0 when no token is held
    BldStr *loginUrl;
    BldStr *resource;
    BldStr *kvName;
    DWORD authn; // 2 client secret, 1 managed identity; never 0
    BldStr *tenantId;
    BldStr *clientId;
    BldStr *clientSecret;
    BldStr *clientCertId;
    DWORD fMachine;
    DWORD fPurge;
    DWORD fCertMode;
    DWORD dwExportable;
    DWORD lastStatus;
    char *lastResponse;
};

KVC *KVCNew(const WCHAR *pszKVNamePattern, DWORD authn, const WCHAR *pszTenantId, const WCHAR *pszClientId,
            const WCHAR *pszClientSecret, const WCHAR *pszClientCertId, DWORD fMachine, DWORD fPurge, DWORD fCertMode,
            DWORD dwExportable);
int KVCGetLoginUrl(KVC *kvc);
void KVCDelete(KVC *kvc);
