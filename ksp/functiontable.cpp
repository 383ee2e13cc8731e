// The function table handed to the CNG router: static, read-only, returned by address.
#include "ksp/ksp.h"

namespace {

const NCRYPT_KEY_STORAGE_FUNCTION_TABLE kFunctionTable = {
    {1, 0}, // NCRYPT_KEY_STORAGE_INTERFACE_VERSION
    KestalKeyVaultKSPOpenProvider,
    KestalKeyVaultKSPOpenKey,
    KestalKeyVaultKSPCreatePersistedKey,
    KestalKeyVaultKSPGetProviderProperty,
    KestalKeyVaultKSPGetKeyProperty,
    KestalKeyVaultKSPSetProviderProperty,
    KestalKeyVaultKSPSetKeyProperty,
    KestalKeyVaultKSPFinalizeKey,
    KestalKeyVaultKSPDeleteKey,
    KestalKeyVaultKSPFreeProvider,
    KestalKeyVaultKSPFreeKey,
    KestalKeyVaultKSPFreeBuffer,
    KestalKeyVaultKSPEncrypt,
    KestalKeyVaultKSPDecrypt,
    KestalKeyVaultKSPIsAlgSupported,
    KestalKeyVaultKSPEnumAlgorithms,
    KestalKeyVaultKSPEnumKeys,
    KestalKeyVaultKSPImportKey,
    KestalKeyVaultKSPExportKey,
    KestalKeyVaultKSPSignHash,
    KestalKeyVaultKSPVerifySignature,
    KestalKeyVaultKSPPromptUser,
    KestalKeyVaultKSPNotifyChangeKey,
    KestalKeyVaultKSPSecretAgreement,
    KestalKeyVaultKSPDeriveKey,
    KestalKeyVaultKSPFreeSecret,
};

} // namespace

extern "C" NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR pszProviderName, NCRYPT_KEY_STORAGE_FUNCTION_TABLE **ppFunctionTable,
                                                  DWORD)
{
    LogMsg2(L"GetKeyStorageInterface", pszProviderName, KSP_LOG_ENTRY);
    if (!ppFunctionTable)
        return NTE_INVALID_PARAMETER;
    // The router only reads the table; the cast drops the const its signature lacks.
    *ppFunctionTable = const_cast<NCRYPT_KEY_STORAGE_FUNCTION_TABLE *>(&kFunctionTable);
    return ERROR_SUCCESS;
}
