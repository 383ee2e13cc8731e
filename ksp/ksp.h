// The CNG key storage provider: the exported entry and the 26 operations of its function table.
#pragma once

#include "ksp/kspinterface.h"
#include "kvclient/kvc.h"

#define KSP_PROVIDER_NAME L"Kestal Key Vault Key Storage Provider"

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
    WCHAR szKeyVaultMachine[KSP_VAULT_NAME_CHARS]; // vault name pattern for machine-scope keys
    WCHAR szKeyVaultUser[KSP_VAULT_NAME_CHARS];    // vault name pattern for user-scope keys
    KVC *kvcMachine;          // owned: the client for machine-scope keys (may be null)
    KVC *kvcUser;             // owned: the client for user-scope keys (may be null)
    DWORD fCertsSynced;       // 1 once a machine-scope key open has synchronised certificates
};

// The provider behind a handle, or null when the handle is null, too short or of another kind.
KSP_PROVIDER *KspProviderFromHandle(NCRYPT_PROV_HANDLE hProvider);

// Writes a REG_SZ under Software\Kestal\KestalKeyVaultKSP of HKEY_LOCAL_MACHINE (fMachine) or
// HKEY_CURRENT_USER. The key is opened, never created. TRUE when the value was written.
BOOL KestalRegSetString(BOOL fMachine, const WCHAR *pszValueName, const WCHAR *pszValue);

// Unprotects a base64 DPAPI blob into pbOut (at most cbOut bytes). TRUE for a non-empty secret.
BOOL GetSecretFromDPAPI(const WCHAR *pszBase64, BYTE *pbOut, DWORD cbOut);

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
