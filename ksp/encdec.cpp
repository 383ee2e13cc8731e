// Encryption, decryption and the operations this provider does not offer.
// Both directions run in the vault, encryption with the public key included: the provider keeps
// no RSA code of its own, so what the vault accepts is exactly what this provider accepts.
#include "ksp/ksp.h"

namespace {

constexpr DWORD kCipherFlags = NCRYPT_NO_PADDING_FLAG | NCRYPT_PAD_PKCS1_FLAG | NCRYPT_PAD_OAEP_FLAG |
                               NCRYPT_SILENT_FLAG;

// The vault algorithm for the padding flags. The caller's OAEP hash and label are not read:
// the vault's "RSA-OAEP" fixes both. With neither flag the request carries an empty algorithm
// and the vault's refusal is the answer.
const WCHAR *VaultCipherAlgorithm(DWORD dwFlags)
{
    if (dwFlags & NCRYPT_PAD_OAEP_FLAG)
        return L"RSA-OAEP";
    if (dwFlags & NCRYPT_PAD_PKCS1_FLAG)
        return L"RSA1_5";
    return nullptr;
}

// Signs the key's client in and has the vault encrypt or decrypt (pszAction) the input.
SECURITY_STATUS CipherInVault(const KSP_PROVIDER *provider, const KSP_KEY *pKey, const WCHAR *pszAction,
                              const WCHAR *pszSignInFailedMsg, const WCHAR *pszAlg, PBYTE pbInput, DWORD cbInput,
                              PBYTE pbOutput, DWORD cbOutput, DWORD *pcbResult)
{
    KVC *kvc = pKey->dwMachineKey ? provider->kvcMachine : provider->kvcUser;
    if (!KVCAuthenticate(kvc, nullptr)) {
        LogMsgError(pszSignInFailedMsg, static_cast<DWORD>(SEC_E_LOGON_DENIED), KSP_LOG_FAILURE);
        return SEC_E_LOGON_DENIED;
    }
    *pcbResult = cbOutput;
    return KVCCryptoOp(kvc, pszAction, pKey->kvKey.name, pKey->kvKey.version, FALSE, pszAlg, pbInput, cbInput,
                       pbOutput, pcbResult);
}

SECURITY_STATUS EncryptChecked(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                               PBYTE pbOutput, DWORD cbOutput, DWORD *pcbResult, DWORD dwFlags)
{
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    KSP_KEY *pKey = KspKeyFromHandle(hKey);
    if (!provider || !pKey)
        return NTE_INVALID_HANDLE;
    if (!pKey->fFinished)
        return NTE_BAD_KEY_STATE;
    if (!pbInput || cbInput == 0 || !pcbResult)
        return NTE_INVALID_PARAMETER;
    if ((dwFlags & ~kCipherFlags) || (dwFlags & NCRYPT_NO_PADDING_FLAG))
        return NTE_BAD_FLAGS;

    return CipherInVault(provider, pKey, L"encrypt", L"KestalKeyVaultKSPEncrypt Authenticate Failed ",
                         VaultCipherAlgorithm(dwFlags), pbInput, cbInput, pbOutput, cbOutput, pcbResult);
}

// Unlike encryption, decryption does not ask for a finalized key, and it tests the key's
// usage between the flag mask and the refusal of NCRYPT_NO_PADDING_FLAG.
SECURITY_STATUS DecryptChecked(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput, DWORD cbInput,
                               PBYTE pbOutput, DWORD cbOutput, DWORD *pcbResult, DWORD dwFlags)
{
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    KSP_KEY *pKey = KspKeyFromHandle(hKey);
    if (!provider || !pKey)
        return NTE_INVALID_HANDLE;
    if (!pbInput || cbInput == 0 || !pcbResult)
        return NTE_INVALID_PARAMETER;
    if (dwFlags & ~kCipherFlags)
        return NTE_BAD_FLAGS;
    if (!(pKey->dwKeyUsagePolicy & NCRYPT_ALLOW_DECRYPT_FLAG))
        return NTE_PERM;
    if (dwFlags & NCRYPT_NO_PADDING_FLAG)
        return NTE_BAD_FLAGS;

    // A null pbOutput still costs a whole decryption: the length is only known from the answer.
    return CipherInVault(provider, pKey, L"decrypt", L"KestalKeyVaultKSPDecrypt Authenticate Failed ",
                         VaultCipherAlgorithm(dwFlags), pbInput, cbInput, pbOutput, cbOutput, pcbResult);
}

SECURITY_STATUS NotSupported(const WCHAR *pszEntry)
{
    LogMsg(pszEntry, KSP_LOG_FAILURE);
    return NTE_NOT_SUPPORTED;
}

} // namespace

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                           PBYTE pbInput, DWORD cbInput, VOID *, PBYTE pbOutput,
                                                           DWORD cbOutput, DWORD *pcbResult, DWORD dwFlags)
{
    LogMsg(L"KestalKeyVaultKSPEncrypt", KSP_LOG_ENTRY);
    SECURITY_STATUS status =
        EncryptChecked(hProvider, hKey, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags);
    return status == ERROR_SUCCESS ? status : KspFail(L"KestalKeyVaultKSPEncrypt", status);
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                           PBYTE pbInput, DWORD cbInput, VOID *, PBYTE pbOutput,
                                                           DWORD cbOutput, DWORD *pcbResult, DWORD dwFlags)
{
    LogMsg(L"KestalKeyVaultKSPDecrypt", KSP_LOG_ENTRY);
    SECURITY_STATUS status =
        DecryptChecked(hProvider, hKey, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags);
    return status == ERROR_SUCCESS ? status : KspFail(L"KestalKeyVaultKSPDecrypt", status);
}

// The five entries below examine none of their arguments: there is no user interface to
// prompt with, no key change to notify of, and EC keys in the vault offer no secret agreement
// (so there are no secret handles to derive from or free either).

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPPromptUser(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, DWORD)
{
    return NotSupported(L"KestalKeyVaultKSPPromptUser");
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPNotifyChangeKey(NCRYPT_PROV_HANDLE, HANDLE *, DWORD)
{
    return NotSupported(L"KestalKeyVaultKSPNotifyChangeKey");
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPSecretAgreement(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE,
                                                                   NCRYPT_KEY_HANDLE, NCRYPT_SECRET_HANDLE *, DWORD)
{
    return NotSupported(L"KestalKeyVaultKSPSecretAgreement");
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPDeriveKey(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE, LPCWSTR,
                                                             NCryptBufferDesc *, PBYTE, DWORD, DWORD *, ULONG)
{
    return NotSupported(L"KestalKeyVaultKSPDeriveKey");
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeSecret(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE)
{
    return NotSupported(L"KestalKeyVaultKSPFreeSecret");
}
