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

// ---- Transport: one HTTP exchange over WinHTTP ------------------------------------------

// What one exchange produced. Heap (calloc), zero-filled, freed by the caller with
// KVCFreeWebResponse.
struct KVC_WEB_RESPONSE {
    DWORD status;    // HTTP status of the final attempt; 0 when no response arrived
    DWORD lastError; // error of the last failing WinHTTP call of the final attempt; 0 if none
    char *body;      // zero-terminated body ("" for an empty one); null when none was read
    BldStr *headers; // raw response headers separated by CR LF; null when they could not be read
};

// Sends one request (TLS exactly when the port is 443) with up to 10 attempts. The body is
// sent as the bytes of the narrow text. Null only when the record cannot be allocated.
KVC_WEB_RESPONSE *KVCDoWebCall(KVC *kvc, WORD wPort, const WCHAR *pszHost, const WCHAR *pszPath, const WCHAR *pszVerb,
                               const WCHAR *pszHeaders, const char *pszBody);
void KVCFreeWebResponse(KVC_WEB_RESPONSE *resp);

// ---- Authentication ---------------------------------------------------------------------

// Makes sure the client holds a bearer token for the vault: reuses one for an hour, else asks
// for one by client secret (authn bit 2) and/or managed identity (bit 1). 1 when a token is held.
int KVCAuthenticate(KVC *kvc, const WCHAR *pszResource);

// ---- The REST call frame ----------------------------------------------------------------

#define KVC_COLLECTION_KEYS 0
#define KVC_COLLECTION_CERTIFICATES 1

// One Key Vault REST call with the client's token. Leaves the status in kvc->lastStatus and the
// body in kvc->lastResponse. 1 only for HTTP 200, 201, 202 and 204.
int KVCDoKVRESTCall(KVC *kvc, DWORD dwFlag, const WCHAR *pszPath, DWORD dwCollection, const WCHAR *pszObjectName,
                    const WCHAR *pszVerb, const WCHAR *pszAction, const char *pszBody, const WCHAR *pszApiVersion);
