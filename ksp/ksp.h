// The CNG key storage provider: the exported entry and the 26 operations of its function table.
#pragma once

#include "ksp/kspinterface.h"
#include "kvclient/kvc.h"
#include "support/locks.h"
#include "support/module.h"

#include <wchar.h>


#define KSP_PROVIDER_MAGIC 0x7866ABCE
#define KSP_VAULT_NAME_CHARS 512

// The object behind an NCRYPT_PROV_HANDLE: one process-heap block, zero-filled, holding this
// fixed part followed directly by the provider name (wide characters with terminator).
struct KSP_PROVIDER {
    DWORD cbLength;           // the whole block: fixed part plus name; wiped over this length on release
    DWORD dwMagic;            // KSP_PROVIDER_MAGIC
    DWORD dwReserved;         // 0
    LPWSTR pszProviderName;   // the copy of the name behind the fixed part
    LPWSTR pszUseContext;     // process-heap block: the last "Use Context" value, or null
    SRWLOCK useContextLock;   // guards pszUseContext: callers set and read it from any thread
    WCHAR szKeyVaultMachine[KSP_VAULT_NAME_CHARS]; // vault name pattern for machine-scope keys
    WCHAR szKeyVaultUser[KSP_VAULT_NAME_CHARS];    // vault name pattern for user-scope keys
    KVC *kvcMachine;          // owned: the client for machine-scope keys (may be null)
    KVC *kvcUser;             // owned: the client for user-scope keys (may be null)
    volatile LONG fCertsSynced; // 1 once a machine-scope key open has started the certificate sync
};

// ---- Key objects and their property lists -----------------------------------------------

#define KSP_KEY_MAGIC 0x7866ABCF
#define KSP_KEY_LENGTH 1000 // what cbLength says; the block is at least this and sizeof(KSP_KEY)
#define KSP_ALGORITHM_CHARS 20
#define KSP_PROPERTY_NAME_CHARS 65 // 64 characters and the terminator

// The object behind an NCRYPT_KEY_HANDLE: one process-heap block. Owns its names, buffers,
// kvKey and properties; borrows kvc from the provider.
struct KSP_KEY {
    DWORD cbLength;                         // KSP_KEY_LENGTH
    DWORD dwMagic;                          // KSP_KEY_MAGIC
    LPWSTR pszKeyName;                      // process heap; null for a key created without a name
    LPWSTR pszKeyFilePath;                  // process heap; nothing fills it yet
    ULONGLONG qwReserved;                   // 0
    WCHAR szAlgorithm[KSP_ALGORITHM_CHARS]; // "RSA", "ECDSA_P256", "ECDH_P384", ...
    DWORD dwKeyBitLength;
    DWORD dwExportPolicy;
    DWORD dwKeyUsagePolicy;                 // NCRYPT_ALLOW_DECRYPT_FLAG | NCRYPT_ALLOW_SIGNING_FLAG at creation
    DWORD fFinished;                        // 1 once the key exists in the vault
    PBYTE pbKeyFile;                        // process heap; nothing fills it yet
    ULONGLONG cbKeyFile;
    PBYTE pbPrivateKey;                     // process heap: an imported private blob, DPAPI-protected only
    ULONGLONG cbPrivateKey;
    SRWLOCK privateKeyLock;                 // guards the two above: a set may race a finalize
    KVC *kvc;                               // borrowed from the provider
    DWORD dwMachineKey;                     // NCRYPT_MACHINE_KEY_FLAG or 0
    KVKey kvKey;
    DWORD fPublishCert;                     // FreeKey uploads the key's certificate when set
    DWORD dwSecurityInfo;                   // flags that came with the last "Security Descr"
    PBYTE pbSecurityDescr;                  // process heap: copy of the last "Security Descr"
    ULONGLONG cbSecurityDescr;
    LPWSTR pszUseContext;                   // malloc (_wcsdup): the last "Use Context"
    SRWLOCK useContextLock;                 // guards pszUseContext against a set while it is read
    LIST_ENTRY PropertyList;                // KSP_PROPERTY nodes, guarded by g_hKspSemaphore
    HWND hWnd;                              // "HWND Handle"
};

// One property kept on a key: one process-heap block, the value bytes directly behind it.
struct KSP_PROPERTY {
    DWORD fPersist;        // set with NCRYPT_PERSIST_FLAG or NCRYPT_PERSIST_ONLY_FLAG
    WCHAR szName[KSP_PROPERTY_NAME_CHARS];
    DWORD cbPropertyData;
    LIST_ENTRY ListEntry;  // link in the owning key's PropertyList
    DWORD fNotPersistOnly; // 1 unless NCRYPT_PERSIST_ONLY_FLAG was set
};
// Property names, of keys and of the provider, are at most 64 characters.
inline bool KspPropertyNameTooLong(LPCWSTR pszName)
{
    return wcsnlen(pszName, KSP_PROPERTY_NAME_CHARS) >= KSP_PROPERTY_NAME_CHARS;
}
inline PBYTE KspPropertyData(KSP_PROPERTY *pProperty) { return reinterpret_cast<PBYTE>(pProperty + 1); }
// Frees a node already unlinked; its value is wiped first, as a persisted value may be a PIN.
void KspFreeProperty(KSP_PROPERTY *pProperty);

// Process-heap memory for everything that crosses the CNG boundary. KspAlloc refuses sizes
// above 4 GB - 1 with ERROR_OUTOFMEMORY; KspFree returns HeapFree's result.
PVOID KspAlloc(SIZE_T cb);
BOOL KspFree(PVOID pb);

// The key behind a handle, or null when the handle is null, too short or of another kind.
KSP_KEY *KspKeyFromHandle(NCRYPT_KEY_HANDLE hKey);

// 0 and a new key in *ppKey, NTE_NO_MEMORY or NTE_INVALID_PARAMETER (names of 130 characters or
// more, algorithm names of 20 or more). pszKeyName may be null.
SECURITY_STATUS CreateNewKeyObject(LPCWSTR pszKeyName, LPCWSTR pszAlgorithm, KSP_KEY **ppKey, DWORD dwMachineKey);
// Frees the key and everything it owns (its kvKey contents and property list included).
SECURITY_STATUS DeleteKeyObject(KSP_KEY *pKey);
// A node for pszName (at most 64 characters) holding a copy of the value; the caller links it.
SECURITY_STATUS CreateNewProperty(LPCWSTR pszName, const BYTE *pbData, DWORD cbData, DWORD dwFlags,
                                  KSP_PROPERTY **ppProperty);
// Applies a property the key object itself understands. *pdwFlags comes back with
// NCRYPT_PERSIST_FLAG set when the caller should also keep a node, cleared when not.
// NTE_NOT_SUPPORTED for names it does not know.
SECURITY_STATUS SetBuildinKeyProperty(KSP_KEY *pKey, LPCWSTR pszName, const BYTE *pbInput, DWORD cbInput,
                                      DWORD *pdwFlags);
// Keeps an RSA private blob (BCRYPT_RSAPRIVATE_BLOB or BCRYPT_RSAFULLPRIVATE_BLOB) in the key,
// DPAPI-protected with the description "Private Key", replacing any earlier one.
SECURITY_STATUS KspStorePrivateKeyBlob(KSP_KEY *pKey, LPCWSTR pszBlobType, const BYTE *pbBlob, DWORD cbBlob);
// Finalizing an imported key: the kept blob, unprotected only while the request is built,
// becomes a vault key under the key's name (PUT /keys/{name}); then the blob is dropped and
// kvKey filled. 0, or NTE_INTERNAL_ERROR (logged).
SECURITY_STATUS KspImportPrivateKeyToVault(KSP_KEY *pKey);
// Lists a buffer handed to the caller by EnumKeys; null when already listed or out of memory.
KSP_BUFFER_NODE *AddEnumBuffer(PVOID pBuffer);
// Whether EnumKeys handed out this block and FreeBuffer has not yet taken it back.
BOOL IsEnumBuffer(PVOID pBuffer);
// Takes the block off the list; FALSE when it was not listed.
BOOL RemoveEnumBuffer(PVOID pBuffer);

// The provider behind a handle, or null when the handle is null, too short or of another kind.
KSP_PROVIDER *KspProviderFromHandle(NCRYPT_PROV_HANDLE hProvider);
// Logs a property value being set (level 10), in the form its name suggests: a number, a
// text, or the name alone. A smart-card PIN is never logged, only its name.
void KspLogPropertyValue(const WCHAR *pszEntry, LPCWSTR pszName, const BYTE *pbInput, DWORD cbInput);


// Logs the entry's failure with its status and returns the status: the one way a CNG entry fails.
SECURITY_STATUS KspFail(const WCHAR *pszEntry, SECURITY_STATUS status);

// Unprotects a base64 DPAPI blob into pbOut (at most cbOut bytes). TRUE for a non-empty secret.
BOOL GetSecretFromDPAPI(const WCHAR *pszBase64, BYTE *pbOut, DWORD cbOut);

// The ClientDPAPISecret text OpenProvider would make of a plain ClientSecret: machine-bound
// (fMachine) or bound to the calling user, base64 on one line. For tools that store a secret
// without it ever resting in the registry in plain text. pszBase64 holds cchBase64 characters
// (4096 is always enough); the secret must fit the 1024-byte setting buffer. TRUE when made.
BOOL KspProtectClientSecret(BOOL fMachine, const WCHAR *pszSecret, WCHAR *pszBase64, DWORD cchBase64);

extern "C" {

NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR pszProviderName, NCRYPT_KEY_STORAGE_FUNCTION_TABLE **ppFunctionTable,
                                       DWORD dwFlags);

// Provider object and provider properties.
SECURITY_STATUS WINAPI KestalKeyVaultKSPOpenProvider(NCRYPT_PROV_HANDLE *phProvider, LPCWSTR pszProviderName, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeProvider(NCRYPT_PROV_HANDLE hProvider);
SECURITY_STATUS WINAPI KestalKeyVaultKSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput,
                                                            DWORD cbOutput, DWORD *pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput,
                                                            DWORD cbInput, DWORD dwFlags);

// Opening and enumerating keys.
SECURITY_STATUS WINAPI KestalKeyVaultKSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE *phKey, LPCWSTR pszKeyName,
                                                DWORD dwLegacyKeySpec, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations, DWORD *pdwAlgCount,
                                                       NCryptAlgorithmName **ppAlgList, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszScope, NCryptKeyName **ppKeyName,
                                                 PVOID *ppEnumState, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeBuffer(PVOID pvInput);

// Creating, finalizing, deleting and freeing keys.
SECURITY_STATUS WINAPI KestalKeyVaultKSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE *phKey, LPCWSTR pszAlgId,
                                                           LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey);

// Key properties.
SECURITY_STATUS WINAPI KestalKeyVaultKSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                                       PBYTE pbOutput, DWORD cbOutput, DWORD *pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                                       PBYTE pbInput, DWORD cbInput, DWORD dwFlags);

// Signing and verification.
SECURITY_STATUS WINAPI KestalKeyVaultKSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID *pPaddingInfo,
                                                 PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                                 DWORD *pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID *pPaddingInfo,
                                                        PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature,
                                                        DWORD cbSignature, DWORD dwFlags);

// Encryption, decryption and the operations this provider does not offer.
SECURITY_STATUS WINAPI KestalKeyVaultKSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                                VOID *pPaddingInfo, PBYTE pbOutput, DWORD cbOutput, DWORD *pcbResult,
                                                DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                                                VOID *pPaddingInfo, PBYTE pbOutput, DWORD cbOutput, DWORD *pcbResult,
                                                DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPPromptUser(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszOperation,
                                                   DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPNotifyChangeKey(NCRYPT_PROV_HANDLE hProvider, HANDLE *phEvent, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPSecretAgreement(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hPrivKey,
                                                        NCRYPT_KEY_HANDLE hPubKey, NCRYPT_SECRET_HANDLE *phAgreedSecret,
                                                        DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPDeriveKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                                  NCryptBufferDesc *pParameterList, PBYTE pbDerivedKey, DWORD cbDerivedKey,
                                                  DWORD *pcbResult, ULONG dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeSecret(NCRYPT_PROV_HANDLE hProvider, NCRYPT_SECRET_HANDLE hSharedSecret);

// Export and import.
SECURITY_STATUS WINAPI KestalKeyVaultKSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey,
                                                  LPCWSTR pszBlobType, NCryptBufferDesc *pParameterList, PBYTE pbOutput,
                                                  DWORD cbOutput, DWORD *pcbResult, DWORD dwFlags);
SECURITY_STATUS WINAPI KestalKeyVaultKSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                                                  NCryptBufferDesc *pParameterList, NCRYPT_KEY_HANDLE *phKey, PBYTE pbData,
                                                  DWORD cbData, DWORD dwFlags);

} // extern "C"
