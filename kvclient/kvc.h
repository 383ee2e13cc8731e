// The Key Vault client: one configured connection to one vault.
// Memory: calloc/realloc/free; the caller frees what a function returns.
#pragma once

#include <windows.h>

#include <wincrypt.h> // DATA_BLOB, the shape of a certificate's bytes
#include <ncrypt.h>   // SECURITY_STATUS and the NTE_ codes vault operations hand to CNG

#include <initializer_list>

#include "support/bldstr.h"
#include "support/log.h"
#include "support/timeseam.h"

// One Azure cloud: where it signs in, and the domain and token audience of its two kinds of
// vault. A vault is "<name>.<domain>".
struct KVC_CLOUD {
    const WCHAR *pszName; // the AzureCloud setting's value
    const WCHAR *pszLoginHost;
    const WCHAR *pszVaultDomain;
    const WCHAR *pszVaultAudience;
    const WCHAR *pszHsmDomain;
    const WCHAR *pszHsmAudience;
};

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
    // Where the vault is, fixed before the client is first used: the cloud's sign-in host,
    // domains and audiences (static), whether the vault is a Managed HSM, and the whole host
    // when KeyVault was a URL (null: the vault name on the cloud's domain).
    const KVC_CLOUD *cloud;
    DWORD fManagedHsm;
    BldStr *vaultHost;
    // Many threads use one client at once. The lock guards the token, its expiry and generation,
    // and kvName (which sign-in may rewrite); it is never held across a request. One thread at a
    // time renews the token (fRenewing) while the others wait on tokenRenewed for its answer.
    SRWLOCK tokenLock;
    CONDITION_VARIABLE tokenRenewed;
    DWORD fRenewing;
    DWORD tokenGeneration; // counts the tokens installed, so a refused one is dropped only once
    DWORD renewals;        // counts finished renewals, successful or not
    WCHAR *pszIdentity;    // calloc'd: whose token this is, for sharing it (KVCSharedTokenTake)
};

// The HTTP statuses the vault operations tell apart. (WinHTTP's header names most of them but
// cannot be included beside WinINet's, which sign-in needs.)
inline constexpr DWORD KVC_HTTP_OK = 200;
inline constexpr DWORD KVC_HTTP_CREATED = 201;
inline constexpr DWORD KVC_HTTP_ACCEPTED = 202;
inline constexpr DWORD KVC_HTTP_NO_CONTENT = 204;
inline constexpr DWORD KVC_HTTP_BAD_REQUEST = 400;
inline constexpr DWORD KVC_HTTP_UNAUTHORIZED = 401;
inline constexpr DWORD KVC_HTTP_FORBIDDEN = 403;
inline constexpr DWORD KVC_HTTP_CONFLICT = 409;
inline constexpr DWORD KVC_HTTP_GONE = 410;
inline constexpr DWORD KVC_HTTP_TOO_MANY_REQUESTS = 429;

// What one REST call produced. It belongs to the call that made it, never to the client, so
// that one thread never reads another's answer (a decryption's answer is its plaintext).
struct KVC_ANSWER {
    DWORD status;          // HTTP status; 0 when no answer came
    char *body;            // calloc'd; null when no answer came
    DWORD tokenGeneration; // the token the request carried
};
// Wipes and frees the body and zeroes the record; null is ignored.
void KVCFreeAnswer(KVC_ANSWER *pAnswer);
// An answer released when the operation that asked for it ends.
struct ScopedAnswer : KVC_ANSWER {
    ScopedAnswer() : KVC_ANSWER{} {}
    ~ScopedAnswer() { KVCFreeAnswer(this); }
    ScopedAnswer(const ScopedAnswer &) = delete;
    ScopedAnswer &operator=(const ScopedAnswer &) = delete;
};

KVC *KVCNew(const WCHAR *pszKVNamePattern, DWORD authn, const WCHAR *pszTenantId, const WCHAR *pszClientId,
            const WCHAR *pszClientSecret, const WCHAR *pszClientCertId, DWORD fMachine, DWORD fPurge, DWORD fCertMode,
            DWORD dwExportable);
int KVCGetLoginUrl(KVC *kvc);
void KVCDelete(KVC *kvc);

// ---- Clouds and kinds of vault ------------------------------------------------------------

// A KeyVault setting of the form "https://<host>/" names the vault's host as it stands; on one
// of the known domains the host also says which cloud and kind it is. KVCNew takes such a URL
// in place of a name pattern (other ports and paths are refused: KVCNew yields none).
//
// Chooses the cloud by the AzureCloud setting ("AzurePublicCloud", "AzureChinaCloud",
// "AzureUSGovernment") and the kind by VaultType ("KeyVault", "ManagedHSM"); null or empty
// keeps the public cloud and a key vault, and a URL on a known domain overrides both. A Managed
// HSM has no certificates: certificate mode is turned off (keys are plain keys, no certificate
// sync), logged once per process. 0 (logged) for a value it does not know: the caller must not
// use the client, rather than sign in somewhere the administrator did not mean.
int KVCSetCloud(KVC *kvc, const WCHAR *pszAzureCloud, const WCHAR *pszVaultType);
// The vault's host as a calloc'd text (the caller frees it). Reads the vault name: call it with
// tokenLock held.
WCHAR *KVCNewVaultHost(const KVC *kvc);
// The api-version a vault call is made with. A Managed HSM serves 7.2 and later only: there
// every call uses 7.4. Elsewhere pszWanted as given (null: the frame's default).
const WCHAR *KVCApiVersion(const KVC *kvc, const WCHAR *pszWanted);

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
// A refused connection waits 20 s before its next attempt, any other failure 200 ms, within the
// call's time budget. An answer that cannot be read whole (a read failed or timed out, over
// 4 MB, the budget spent) leaves status 0 and no body. pszHeaders holds lines each ending in
// CR LF, or is null. kvc is not used.
KVC_WEB_RESPONSE *KVCDoWebCall(KVC *kvc, WORD wPort, const WCHAR *pszHost, const WCHAR *pszPath, const WCHAR *pszVerb,
                               const WCHAR *pszHeaders, const char *pszBody);
// Wipes the body (it may hold a token) and frees the record; null is ignored.
void KVCFreeWebResponse(KVC_WEB_RESPONSE *resp);

// How long one KVCDoWebCall may take: each WinHTTP step at most its time-out (milliseconds, as
// WinHttpSetTimeouts takes them), and the call with all its attempts and pauses at most the
// budget. Defaults: resolve and connect 10 s, send and receive 20 s, budget 60 s.
struct KVC_TIMEOUTS {
    int resolveMs;
    int connectMs;
    int sendMs;
    int receiveMs;
    DWORD dwBudgetSeconds;
};
// Replaces the time-outs (tests shorten them); null restores the defaults. Not thread-safe:
// tests set it before calling in.
void KVCSetTimeouts(const KVC_TIMEOUTS *pTimeouts);

// Joins the pieces (null ones skipped) into one calloc'd text of exactly the size needed, so
// that a text carrying a token or secret is written once and never left behind in memory
// freed by a growing buffer. Null when out of memory. Released with KVCWipeFreeText.
WCHAR *KVCJoinText(std::initializer_list<const WCHAR *> pieces);
// Zero a text, then free it; null is ignored.
void KVCWipeFreeText(WCHAR *psz);
void KVCWipeFreeBytes(char *psz);

// ---- Authentication ---------------------------------------------------------------------

// Makes sure the client holds a bearer token for the vault: reuses one for an hour, or for the
// lifetime its answer states less a margin when that is shorter; else asks for one by client
// secret (authn bit 2) and/or managed identity (bit 1). 1 when a token is held. When several
// threads find the token used up, one asks and the others wait for its answer. pszResource
// replaces the vault audience when given (no caller does). A vault named "oidguid" becomes "x"
// and the first 23 hexadecimal digits of the identity's object id; a token whose object id is
// not a GUID, or a token a header line cannot carry as it stands, fails the sign-in.
int KVCAuthenticate(KVC *kvc, const WCHAR *pszResource);
// ---- Tokens shared by the clients of a process --------------------------------------------

// Clients that sign in as the same identity share one token while it lives. pszIdentity names
// the identity (kind, cloud, tenant, client, audience, endpoint, KVCSecretHash of the secret).
// Take: copies of a live token and its expiry; 0 when none. Keep: remembers one (copies).
// Forget: drops the identity's token if it is still pszToken (the vault refused it).
int KVCSharedTokenTake(const WCHAR *pszIdentity, __time64_t now, BldStr **ppType, BldStr **ppToken,
                       __time64_t *pExpiry);
void KVCSharedTokenKeep(const WCHAR *pszIdentity, const WCHAR *pszType, const WCHAR *pszToken, __time64_t expiry);
void KVCSharedTokenForget(const WCHAR *pszIdentity, const WCHAR *pszToken);
// SHA-256 of the secret's text in lower-case hexadecimal, calloc'd; null when it cannot be made.
WCHAR *KVCSecretHash(const WCHAR *pszSecret);

// Forgets the token a request carried (its generation) after the vault refused it with 401, so
// the next KVCAuthenticate signs in again. A token already replaced is left alone.
void KVCDropToken(KVC *kvc, DWORD dwTokenGeneration);
// The key file named by an Azure Arc agent's challenge ("Basic realm=<path>" up to CR LF) in
// raw response headers, as a calloc'd text the caller frees; null (and logged) when the marker
// or the line end is missing.
WCHAR *KVCArcRealmPath(const WCHAR *pszHeaders);

// ---- The REST call frame ----------------------------------------------------------------

#define KVC_COLLECTION_KEYS 0
#define KVC_COLLECTION_CERTIFICATES 1

// One Key Vault REST call with the client's token. The status and body go to *pAnswer, which is
// released first and belongs to the caller. 1 only for HTTP 200, 201, 202 and 204. Without a
// token: 0, no traffic, status 0. The path is pszPath as it stands when given, else "/keys" or
// "/certificates", then "/" + pszObjectName and "/" + pszAction for those given (null or empty
// ones are left out), then "?api-version=" + pszApiVersion ("2016-10-01" when null).
int KVCDoKVRESTCall(KVC *kvc, KVC_ANSWER *pAnswer, const WCHAR *pszPath, DWORD dwCollection,
                    const WCHAR *pszObjectName, const WCHAR *pszVerb, const WCHAR *pszAction, const char *pszBody,
                    const WCHAR *pszApiVersion);
// A fresh request identifier: a new GUID in braces, as StringFromGUID2 writes it. 1 on success.
int KVCNewRequestId(WCHAR (&szId)[39]);

// ---- Key names and key records ----------------------------------------------------------

// A CNG name holds at most 42 characters; its vault form is "-", three base-50 digits per
// character and "z" filler, so it is always 43 or more characters long. Names that need no
// encoding are copied unchanged, and only up to 41 characters.
#define KVC_CLEAR_NAME_CHARS 43    // 42 characters and the terminator
#define KVC_ENCODED_NAME_CHARS 129 // what callers reserve for a vault name
#define KVC_VERSION_CHARS 129
#define KVC_ALGID_CHARS 20

// pszEncoded has room for KVC_ENCODED_NAME_CHARS - 1 characters. *pfEncoded (may be null)
// receives 1 when the name was encoded, 0 when copied. 1 on success, 0 for names that cannot
// be mapped (NULLs, more than 42 characters, 42 characters that need no encoding).
int KVCConvertClearKeyNameToEncoded(const WCHAR *pszClear, WCHAR *pszEncoded, DWORD *pfEncoded);
// pszClear has room for KVC_CLEAR_NAME_CHARS characters and is zeroed first. *pfEncoded (may be
// null) receives 1 when the name was decoded, 0 when copied. 0 for a malformed encoded name,
// an unencoded name of 42 characters or more, or NULLs.
int KVCConvertEncodedKeyNameToClear(const WCHAR *pszEncoded, WCHAR *pszClear, DWORD *pfEncoded);

// A vault key (JSON Web Key and tags) as parsed by KVCParseJSONKey. Texts and byte arrays are
// owned (calloc) and released by KVCFreeKVKey; byte arrays carry two spare zero bytes.
struct KVKey {
    DWORD valid;                          // 1 once a parse got past its argument checks
    WCHAR name[KVC_ENCODED_NAME_CHARS];   // the vault name as passed to the parser
    WCHAR clearName[KVC_CLEAR_NAME_CHARS]; // the decoded CNG name, or "InvalidName"
    WCHAR version[KVC_VERSION_CHARS];     // last path segment of "kid"
    WCHAR *crv;
    WCHAR *d, *dp, *dq; // private members, base64url text as received
    BYTE *e;
    DWORD e_siz;
    WCHAR *k;
    WCHAR *kty;
    DWORD isEC; // kty is exactly "EC" or "EC-HSM"
    BYTE *n;
    DWORD n_siz;
    WCHAR *p, *q, *qi;
    BYTE *x;
    DWORD x_siz;
    BYTE *y;
    DWORD y_siz;
    WCHAR *key_ops;               // the "key_ops" array joined with ","
    WCHAR AlgID[KVC_ALGID_CHARS]; // CNG algorithm name ("RSA", "ECDSA_P256", ...) or empty
};

// Fills theKey from a key document. 0 only for NULL arguments or a vault name over 128
// characters; a body that is not JSON still yields 1 with only the names filled.
int KVCParseJSONKey(const WCHAR *pszKeyName, const char *pszKeyJSON, KVKey *theKey);
// Frees the owned members of a valid record and sets them to null; sizes and valid stay.
void KVCFreeKVKey(KVKey *theKey);
// 1 when the record holds a key this provider can use: RSA ("RSA", "RSA-HSM") with a modulus of
// 2048 to 4096 bits and an exponent of 1 to 8 bytes, or EC on P-256, P-384 or P-521 with both
// coordinates of the curve's length. Leading zero bytes of the modulus are dropped first, so
// that every size taken from it (signature, "Length", export) is the key's own.
int KVCKeyMaterialUsable(KVKey *pKey);

// ---- One vault call with its retries ------------------------------------------------------

// What one vault request is; the frame's arguments as a record.
struct KVC_REQUEST {
    const WCHAR *pszPath; // a whole path and query, or null to build one from the rest
    DWORD dwCollection;
    const WCHAR *pszObjectName;
    const WCHAR *pszVerb;
    const WCHAR *pszAction;
    const char *pszBody;
    const WCHAR *pszApiVersion;
};

// How an operation waits out the vault's "not now" answers. 429 is always retried, 409 only when
// dwConflictMaxWaitMs is set (deletion). The wait starts at dwFirstWaitMs and doubles after each
// sleep; operations differ in where the bound is tested, and so in how many calls they make:
//  - fTestBeforeSleep TRUE: a wait beyond the status's bound is not taken and the call ends, so
//    1, 2, 4, 8, 16 s allow six calls;
//  - FALSE: a wait within dwThrottleMaxWaitMs is taken, and the call is repeated only while the
//    doubled wait stays within the status's bound, so the same waits allow five calls, the last
//    one followed by a wasted wait.
struct KVC_RETRY_POLICY {
    const WCHAR *pszRetryMsg; // logged with the status for every retried answer
    int retryMsgLevel;
    DWORD dwFirstWaitMs;
    DWORD dwThrottleMaxWaitMs;
    DWORD dwConflictMaxWaitMs; // 0: a 409 is final
    BOOL fTestBeforeSleep;
    const WCHAR *pszCallFailedMsg; // when set, logged with the status after every refused call,
    int callFailedLevel;           // at this level, before the retry message
};

// Makes the request until it succeeds, fails for good, or the policy's waits run out. The wait
// counter *pdwWaitMs is the caller's (start it at dwFirstWaitMs), so steps of one operation can
// share it. A 401 drops the token, signs in again and repeats the request once. *pAnswer holds
// the last answer (released first; the caller frees it). 1 for HTTP 200, 201, 202 and 204.
int KVCVaultCall(KVC *kvc, const KVC_REQUEST *pRequest, const KVC_RETRY_POLICY *pPolicy, DWORD *pdwWaitMs,
                 KVC_ANSWER *pAnswer);

// The waits most operations use: 1 s doubling up to 16 s, bound tested as the policy says.
KVC_RETRY_POLICY KVCThrottlePolicy(const WCHAR *pszRetryMsg, BOOL fTestBeforeSleep,
                                   const WCHAR *pszCallFailedMsg = nullptr);

// ---- Listing bounds -----------------------------------------------------------------------

// One paged listing's progress. A listing ends at a repeated link, after 1,000 pages or with
// 10,000 items, logging pszStoppedMsg with the reason (level 2); what was read by then is the
// listing. Start with {message} and let it go out of scope when the listing is done.
struct KVC_LISTING {
    const WCHAR *pszStoppedMsg;
    DWORD cPages;       // links followed so far
    DWORD cItems;       // items taken so far
    BldStr *seenLinks;  // every link followed, each between line feeds
    ~KVC_LISTING() { BldStrFree(seenLinks); }
};
// 1 when a page's next link may be followed (and it is counted); 0 for none, a link followed
// before, the page bound, or a listing already holding its 10,000 items. Take a page's items
// before asking to follow its link.
int KVCListingFollow(KVC_LISTING *pListing, const WCHAR *pszNextLink);
// How many of a page's cItems may still be taken (they are counted).
DWORD KVCListingTake(KVC_LISTING *pListing, DWORD cItems);

// ---- Key listing and lookup ---------------------------------------------------------------

// Lists the vault's keys as CNG (clear) names, following "nextLink" pages. *pppNames receives
// an array of *pcCount names, each and the array freed by the caller with free. 1 when the last
// page was answered with 200.
int KVCGetKeys(KVC *kvc, WCHAR ***pppNames, DWORD *pcCount);
// The CNG algorithm the listing's "AlgID" tag gave a name of KVCGetKeys (kept in the name's block,
// behind its terminator); "" when the listing did not say, and the key itself must be read.
const WCHAR *KVCListedAlgorithm(const WCHAR *pszListedName);
// Reads one key by its CNG name into *pKey (zeroed first). fSuppress lowers the failure
// messages to level 10 for callers that expect the key may not exist. 1 when the key was read.
int KVCGetKey(KVC *kvc, const WCHAR *pszKeyName, KVKey *pKey, DWORD fSuppress);

// ---- Certificate retrieval ----------------------------------------------------------------

// Lists the vault's certificates: two process-heap tables (one HeapFree each) of *pcCount
// pointers followed by their 128-character slots, the clear names and the "x5t" thumbprints
// (base64url, as received). TRUE only when the last status is 200.
BOOL KVCGetCerts(KVC *kvc, WCHAR ***ppNames, WCHAR ***ppThumbprints, DWORD *pcCount);
// One certificate's DER by its vault name. pBlob->pbData null: allocated (free); else copied
// into the caller's buffer of pBlob->cbData bytes. pBlob->cbData receives the length.
BOOL KVCGetCert(KVC *kvc, const WCHAR *pszCertName, DATA_BLOB *pBlob);

// ---- Certificate store integration and sync -----------------------------------------------

// Pulls vault certificates not yet pulled into the local machine's "My" store, at most once
// per sync interval (FromKVLastSyncTime, CertSync under HKEY_LOCAL_MACHINE).
void KVCSyncCertsFromKVToMachine(KVC *kvc);
// Adds one DER certificate to the local machine's "My" store bound to this provider under the
// clear key name. The placeholder certificate counts as done without touching the store.
BOOL KVCPropogateCertificateFromKeyVault(const WCHAR *pszName, DWORD dwReserved, DATA_BLOB *pCert);
// Finds the store certificate bound to the clear key name (latest NotBefore wins): its DER into
// pbCert (capacity and length in *pcbCert), its SHA-1 into pbHash (*pcbHash), its X.500 subject
// into pszSubject (8000 characters). fUser: the current user's store, else the local machine's.
BOOL KVCEvaluateCertsInStore(BOOL fUser, const WCHAR *pszName, BYTE *pbCert, DWORD *pcbCert, BYTE *pbHash,
                             DWORD *pcbHash, WCHAR *pszSubject);

// ---- Key creation -------------------------------------------------------------------------

// The vault key type a CNG algorithm name asks for, compared exactly and case-sensitively: the
// six EC names give "EC" and their curve; any other name gives "RSA" and no curve, and the key
// length is then sent. Plain and certificate-backed creation both add "-HSM" first.
struct KVC_KEY_TYPE {
    const WCHAR *pszKty;
    const WCHAR *pszCrv; // null for RSA
};
KVC_KEY_TYPE KVCKeyTypeFromAlgorithm(const WCHAR *pszAlgorithm);

// Creates the key named pszKeyName (clear) in the vault, as a certificate-backed key when the
// client is in certificate mode, else as a plain key, and fills *pKey. 0 or NTE_INTERNAL_ERROR.
SECURITY_STATUS KVCCreateKey(const WCHAR *pszKeyName, KVC *kvc, const WCHAR *pszAlgorithm, DWORD dwKeyBitLength,
                             DWORD dwExportPolicy, KVKey *pKey);
// A plain vault key, "-HSM" first and a software key after a 403. dwUnused is not read. 1 only
// when the vault answered 200 with usable key material; 0 for every other end (another 400..410
// to the HSM request and throttling that outlasted the waits included).
int KVCLowLevelCreateKey(KVC *kvc, const WCHAR *pszClearName, const WCHAR *pszEncodedName, const WCHAR *pszAlgorithm,
                         DWORD dwKeyBitLength, DWORD dwUnused, KVKey *pKey);
// A key made by the vault behind a certificate: create (202, pending), then merge a placeholder
// certificate over the vault's CSR, or the given certificate (pbCert/cbCert) when one is passed:
// that one must already be a certificate of the vault key, which the vault is then told to keep
// ("reuse_key"). *pKey is then read back from the vault and must hold usable key material. 1 or 0;
// a create the vault accepted that then came to nothing has its pending operation deleted.
int KVCLowLevelCreateKeyCertificate(KVC *kvc, const WCHAR *pszClearName, const WCHAR *pszEncodedName,
                                    const WCHAR *pszAlgorithm, DWORD dwKeyBitLength, KVKey *pKey, DWORD fExportable,
                                    const BYTE *pbCert, DWORD cbCert);

// Imports a private key: PUTs the JSON Web Key body (pszBody, built by the caller, who wipes it)
// under the vault name, waiting out throttling (six calls at most), and replaces *pKey with the
// vault's answer. 1 once the vault answered 200.
int KVCImportKey(KVC *kvc, const WCHAR *pszEncodedName, const char *pszBody, KVKey *pKey);

// ---- Key deletion and purge ---------------------------------------------------------------

// Deletes (and unless DoDeletePurge says otherwise, purges) the vault object behind the clear
// key name: its certificate in certificate mode, else the key. 0 or NTE_INTERNAL_ERROR.
SECURITY_STATUS KVCKeyDelete(const WCHAR *pszKeyName, KVC *kvc);
// DELETE of the key (certificate) by its vault name, then, when kvc->fPurge, of its soft-deleted
// remains, even after a failed delete. 409 and 429 wait 1 s, doubling, on one counter for both
// steps: 409 is retried while the wait stays within 16 s, 429 within 64 s (127 s of sleep at
// most in all). 1 when the object is gone (deleted or purged), else 0.
int KVCLowLevelDeleteKey(KVC *kvc, const WCHAR *pszEncodedName);
int KVCLowLevelDeleteKeyCertificate(KVC *kvc, const WCHAR *pszEncodedName);

// ---- Cryptographic operations -------------------------------------------------------------

// POSTs {"alg","digest"?,"value"} to keys/<name>/<version>/<action> (api-version 7.0). Not
// verifying: the answer's "value" decoded into pbOutput (capacity and length in *pcbOutput; a
// null pbOutput asks only for the length). Verifying: pbOutput/*pcbOutput are the digest and
// only a JSON true is a good signature (else NTE_BAD_SIGNATURE). A SECURITY_STATUS.
SECURITY_STATUS KVCCryptoOp(KVC *kvc, const WCHAR *pszAction, const WCHAR *pszKeyName, const WCHAR *pszKeyVersion,
                            BOOL fVerify, const WCHAR *pszAlg, const BYTE *pbInput, DWORD cbInput, BYTE *pbOutput,
                            DWORD *pcbOutput);
