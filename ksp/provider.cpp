// Provider object and provider properties: the handle CNG opens first, the settings of both
// scopes, the DPAPI form of the client secret, and the two vault clients.
#include "ksp/ksp.h"
#include "support/handles.h"

#include <wincrypt.h>
#include <dpapi.h>

#include <string.h>
#include <wchar.h>

namespace {

constexpr DWORD kUserNameChars = 257;      // UNLEN + 1
constexpr DWORD kSettingBytes = 1024;      // vault name, tenant, client, secret, certificate
constexpr DWORD kDpapiTextChars = 4096;    // ClientDPAPISecret, base64
constexpr DWORD kProtectedBlobBytes = 4096; // the decoded DPAPI blob
constexpr DWORD kMaxProviderNameBytes = 65535;

// Mixed into every protection and unprotection of the client secret, both scopes.
// Changing it makes every stored ClientDPAPISecret unreadable.
constexpr BYTE kSecretEntropy[20] = {0x4B, 0x65, 0x73, 0x74, 0x61, 0x6C, 0x2D, 0x4B, 0x56, 0x2D,
                                     0x9E, 0x31, 0xC7, 0x05, 0x6A, 0xD2, 0x18, 0xF3, 0x7B, 0x40};

DATA_BLOB EntropyBlob()
{
    return DATA_BLOB{sizeof(kSecretEntropy), const_cast<BYTE *>(kSecretEntropy)};
}

bool OpenSettings(HKEY hive, REGSAM access, UniqueRegKey *key)
{
    return RegOpenKeyExW(hive, KSP_SETTINGS_KEY, 0, access | KSP_SETTINGS_VIEW, key->put()) == ERROR_SUCCESS;
}

// Reads a REG_SZ into a zeroed buffer of cbBuffer bytes. A missing value, another type, or a
// value longer than the buffer (no room for its terminator) leaves the buffer empty.
void ReadSettingString(HKEY hive, const WCHAR *pszName, WCHAR *pszBuffer, DWORD cbBuffer)
{
    SecureZeroMemory(pszBuffer, cbBuffer);
    UniqueRegKey key;
    if (!OpenSettings(hive, KEY_QUERY_VALUE, &key))
        return;
    DWORD type = 0;
    DWORD cb = cbBuffer;
    LSTATUS rc = RegQueryValueExW(key.get(), pszName, nullptr, &type, reinterpret_cast<BYTE *>(pszBuffer), &cb);
    DWORD cch = cbBuffer / sizeof(WCHAR);
    bool fits = rc == ERROR_SUCCESS && type == REG_SZ &&
                (cb < cbBuffer || (cb == cbBuffer && pszBuffer[cch - 1] == 0));
    if (!fits) {
        SecureZeroMemory(pszBuffer, cbBuffer);
        return;
    }
    if (cb < cbBuffer)
        pszBuffer[cb / sizeof(WCHAR)] = 0; // a value stored without its terminator
}

// Reads a REG_DWORD; anything else gives 0.
DWORD ReadSettingDword(HKEY hive, const WCHAR *pszName)
{
    UniqueRegKey key;
    if (!OpenSettings(hive, KEY_QUERY_VALUE, &key))
        return 0;
    DWORD type = 0;
    DWORD value = 0;
    DWORD cb = sizeof(value);
    if (RegQueryValueExW(key.get(), pszName, nullptr, &type, reinterpret_cast<BYTE *>(&value), &cb) != ERROR_SUCCESS ||
        type != REG_DWORD || cb != sizeof(value))
        return 0;
    return value;
}

// The settings of one scope, as read from its hive. Lives on OpenProvider's stack.
struct ScopeSettings {
    DWORD dwAuthenticationType;
    WCHAR szTenantId[kSettingBytes / sizeof(WCHAR)];
    WCHAR szClientId[kSettingBytes / sizeof(WCHAR)];
    WCHAR szClientSecret[kSettingBytes / sizeof(WCHAR)];
    WCHAR szClientDPAPISecret[kDpapiTextChars];
    WCHAR szClientCertId[kSettingBytes / sizeof(WCHAR)];
    DWORD dwDoDeletePurge;
    DWORD dwCertificatesOrKeys;
    DWORD dwExportableOption;
    WCHAR szAzureCloud[kSettingBytes / sizeof(WCHAR)];
    WCHAR szVaultType[kSettingBytes / sizeof(WCHAR)];
};

// Everything that held or could rebuild a secret, and the numbers, back to zero.
void WipeScopeSettings(ScopeSettings *s)
{
    SecureZeroMemory(s->szClientId, sizeof(s->szClientId));
    SecureZeroMemory(s->szClientSecret, sizeof(s->szClientSecret));
    SecureZeroMemory(s->szClientDPAPISecret, sizeof(s->szClientDPAPISecret));
    SecureZeroMemory(s->szClientCertId, sizeof(s->szClientCertId));
    s->dwAuthenticationType = 0;
    s->dwDoDeletePurge = 0;
    s->dwCertificatesOrKeys = 0;
    s->dwExportableOption = 0;
}

void ReadScopeSettings(HKEY hive, WCHAR *pszKeyVault, ScopeSettings *s)
{
    ReadSettingString(hive, L"KeyVault", pszKeyVault, KSP_VAULT_NAME_CHARS * sizeof(WCHAR));
    if (pszKeyVault[0] == 0) {
        // No vault configured: one vault per identity.
        pszKeyVault[0] = L'%';
        pszKeyVault[1] = L'G';
        pszKeyVault[2] = 0;
    }
    s->dwAuthenticationType = ReadSettingDword(hive, L"AuthenticationType");
    ReadSettingString(hive, L"TenantId", s->szTenantId, sizeof(s->szTenantId));
    ReadSettingString(hive, L"ClientId", s->szClientId, sizeof(s->szClientId));
    ReadSettingString(hive, L"ClientSecret", s->szClientSecret, sizeof(s->szClientSecret));
    ReadSettingString(hive, L"ClientDPAPISecret", s->szClientDPAPISecret, sizeof(s->szClientDPAPISecret));
    ReadSettingString(hive, L"ClientCertID", s->szClientCertId, sizeof(s->szClientCertId));
    s->dwDoDeletePurge = ReadSettingDword(hive, L"DoDeletePurge");
    s->dwCertificatesOrKeys = ReadSettingDword(hive, L"CertificatesOrKeys");
    s->dwExportableOption = ReadSettingDword(hive, L"ExportableOption");
    ReadSettingString(hive, L"AzureCloud", s->szAzureCloud, sizeof(s->szAzureCloud));
    ReadSettingString(hive, L"VaultType", s->szVaultType, sizeof(s->szVaultType));
}

// Protects the whole secret buffer (text and zero fill) and replaces the DPAPI text with the
// base64 of the result. On failure the DPAPI text stays as it was read.
bool ProtectSecret(ScopeSettings *s, DWORD dwProtectFlags)
{
    DATA_BLOB clear{sizeof(s->szClientSecret), reinterpret_cast<BYTE *>(s->szClientSecret)};
    DATA_BLOB entropy = EntropyBlob();
    DATA_BLOB protectedBlob{};
    if (!CryptProtectData(&clear, nullptr, &entropy, nullptr, nullptr, dwProtectFlags, &protectedBlob)) {
        LogMsgError(L"KestalKeyVaultKSPOpenProvider CryptProtectData Failed", GetLastError(), KSP_LOG_FAILURE);
        return false;
    }
    WCHAR szBase64[kDpapiTextChars] = {};
    DWORD cch = kDpapiTextChars;
    // One line of base64. CRYPT_STRING_NOCRLF alone says so everywhere; adding CRYPT_STRING_NOCR
    // makes Wine break the text with bare line feeds.
    BOOL converted = CryptBinaryToStringW(protectedBlob.pbData, protectedBlob.cbData,
                                          CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF, szBase64, &cch);
    DWORD dwError = GetLastError();
    LocalFree(protectedBlob.pbData);
    if (!converted) {
        LogMsgError(L"KestalKeyVaultKSPOpenProvider CryptBinaryToStringW Failed", dwError, KSP_LOG_FAILURE);
        return false;
    }
    memcpy(s->szClientDPAPISecret, szBase64, sizeof(szBase64));
    SecureZeroMemory(szBase64, sizeof(szBase64));
    return true;
}

// Steps of one scope: read, convert a plain secret, unprotect, create the client.
KVC *OpenScope(BOOL fMachine, WCHAR *pszKeyVault, ScopeSettings *s)
{
    HKEY hive = fMachine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
    ReadScopeSettings(hive, pszKeyVault, s);

    if (s->szClientSecret[0] != 0) {
        if (fMachine)
            LogMsg(L"KestalKeyVaultKSPOpenProvider Saving Machine DPAPI Secret", KSP_LOG_STEP);
        else
            LogMsg(L"KestalKeyVaultKSPOpenProvider Saving User DPAPI Secret", KSP_LOG_STEP);
        if (ProtectSecret(s, fMachine ? CRYPTPROTECT_LOCAL_MACHINE : CRYPTPROTECT_UI_FORBIDDEN))
            KestalRegSetString(fMachine, L"ClientDPAPISecret", s->szClientDPAPISecret);
    }

    if (s->szClientDPAPISecret[0] != 0) {
        if (fMachine)
            LogMsg(L"KestalKeyVaultKSPOpenProvider Reading Machine DPAPI Secret", KSP_LOG_STEP);
        else
            LogMsg(L"KestalKeyVaultKSPOpenProvider Reading User DPAPI Secret", KSP_LOG_STEP);
        if (GetSecretFromDPAPI(s->szClientDPAPISecret, reinterpret_cast<BYTE *>(s->szClientSecret),
                               sizeof(s->szClientSecret)))
            KestalRegSetString(fMachine, L"ClientSecret", L""); // the plain secret no longer rests in the registry
        else
            LogMsg(L"KestalKeyVaultKSPOpenProvider Failed to Decrypt DPAPI Secret", KSP_LOG_STEP);
        // A blob protected by someone else may fill the buffer without a terminator.
        s->szClientSecret[ARRAYSIZE(s->szClientSecret) - 1] = 0;
    }

    LogMsg3(L"KestalKeyVaultKSPOpenProvider", pszKeyVault, s->szClientId, KSP_LOG_STEP);
    KVC *kvc = KVCNew(pszKeyVault, s->dwAuthenticationType, s->szTenantId, s->szClientId, s->szClientSecret,
                      s->szClientCertId, fMachine, !s->dwDoDeletePurge, !s->dwCertificatesOrKeys, s->dwExportableOption);
    // A cloud or kind it does not know leaves the scope without a client: its keys then fail,
    // rather than the secret going to the public cloud's sign-in.
    if (kvc && !KVCSetCloud(kvc, s->szAzureCloud, s->szVaultType)) {
        KVCDelete(kvc);
        kvc = nullptr;
    }
    return kvc;
}

} // namespace

KSP_PROVIDER *KspProviderFromHandle(NCRYPT_PROV_HANDLE hProvider)
{
    auto *provider = reinterpret_cast<KSP_PROVIDER *>(hProvider);
    if (!provider || provider->cbLength < sizeof(KSP_PROVIDER) || provider->dwMagic != KSP_PROVIDER_MAGIC)
        return nullptr;
    return provider;
}

BOOL GetSecretFromDPAPI(const WCHAR *pszBase64, BYTE *pbOut, DWORD cbOut)
{
    LogMsg(L"GetSecretFromDPAPI", KSP_LOG_TRACE);
    if (!pszBase64 || pszBase64[0] == 0)
        return FALSE;
    // The decoder takes at most 4,092 characters; anything longer cannot be one of our blobs.
    if (wcsnlen(pszBase64, 4093) > 4092) {
        LogMsg(L"GetSecretFromDPAPI DPAPI text too long", KSP_LOG_FAILURE);
        return FALSE;
    }
    BYTE blob[kProtectedBlobBytes];
    DWORD cbBlob = sizeof(blob);
    if (!KKVKSP_FromBase64(pszBase64, blob, &cbBlob))
        return FALSE;

    DATA_BLOB in{cbBlob, blob};
    DATA_BLOB entropy = EntropyBlob();
    DATA_BLOB out{};
    LPWSTR pszDescription = nullptr;
    if (!CryptUnprotectData(&in, &pszDescription, &entropy, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &out)) {
        LogMsgError(L"GetSecretFromDPAPI Failed to decrypt secret - CryptUnprotectData", GetLastError(),
                    KSP_LOG_FAILURE);
        return FALSE;
    }
    memcpy(pbOut, out.pbData, out.cbData < cbOut ? out.cbData : cbOut);
    BOOL fSecret = out.cbData != 0;
    SecureZeroMemory(out.pbData, out.cbData);
    LocalFree(pszDescription);
    LocalFree(out.pbData);
    return fSecret;
}

BOOL KspProtectClientSecret(BOOL fMachine, const WCHAR *pszSecret, WCHAR *pszBase64, DWORD cchBase64)
{
    if (!pszSecret || !pszBase64)
        return FALSE;
    // The same buffer, flags and entropy as the conversion in OpenProvider, so the provider
    // reads the result as if it had made it.
    ScopeSettings s{};
    BOOL fMade = FALSE;
    if (wcsnlen(pszSecret, ARRAYSIZE(s.szClientSecret)) < ARRAYSIZE(s.szClientSecret)) {
        wcscpy_s(s.szClientSecret, pszSecret);
        fMade = ProtectSecret(&s, fMachine ? CRYPTPROTECT_LOCAL_MACHINE : CRYPTPROTECT_UI_FORBIDDEN) &&
                wcsnlen(s.szClientDPAPISecret, kDpapiTextChars) < cchBase64;
        if (fMade)
            wcscpy_s(pszBase64, cchBase64, s.szClientDPAPISecret);
    }
    SecureZeroMemory(&s, sizeof(s));
    return fMade;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPOpenProvider(NCRYPT_PROV_HANDLE *phProvider, LPCWSTR pszProviderName,
                                                                DWORD)
{
    WCHAR szUser[kUserNameChars] = {};
    DWORD cchUser = kUserNameChars;
    if (!GetUserNameW(szUser, &cchUser))
        szUser[0] = 0;
    LogMsg3(L"KestalKeyVaultKSPOpenProvider", szUser, pszProviderName, KSP_LOG_ENTRY);

    if (!phProvider) {
        LogMsg(L"KestalKeyVaultKSPOpenProvider phProvider NULL", KSP_LOG_WARNING);
        return KspFail(L"KestalKeyVaultKSPOpenProvider", NTE_INVALID_PARAMETER);
    }
    if (!pszProviderName) {
        LogMsg(L"KestalKeyVaultKSPOpenProvider pszProviderName NULL", KSP_LOG_WARNING);
        return KspFail(L"KestalKeyVaultKSPOpenProvider", NTE_INVALID_PARAMETER);
    }
    size_t cbProviderName = (wcsnlen(pszProviderName, kMaxProviderNameBytes / sizeof(WCHAR)) + 1) * sizeof(WCHAR);
    if (cbProviderName > kMaxProviderNameBytes) {
        LogMsg(L"KestalKeyVaultKSPOpenProvider cbProviderName too long", KSP_LOG_FAILURE);
        return KspFail(L"KestalKeyVaultKSPOpenProvider", NTE_INVALID_PARAMETER);
    }

    DWORD cbLength = static_cast<DWORD>(sizeof(KSP_PROVIDER) + cbProviderName);
    auto *provider = static_cast<KSP_PROVIDER *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, cbLength));
    if (!provider) {
        LogMsg(L"KestalKeyVaultKSPOpenProvider HeapAlloc Failed", KSP_LOG_FAILURE);
        return KspFail(L"KestalKeyVaultKSPOpenProvider", NTE_NO_MEMORY);
    }
    provider->cbLength = cbLength;
    provider->dwMagic = KSP_PROVIDER_MAGIC;
    provider->dwReserved = 0;
    provider->pszProviderName = reinterpret_cast<LPWSTR>(provider + 1);
    memcpy(provider->pszProviderName, pszProviderName, cbProviderName);

    LogMsg(L"KestalKeyVaultKSPOpenProvider Read Key Vault Names", KSP_LOG_STEP);
    ScopeSettings settings{};
    provider->kvcMachine = OpenScope(TRUE, provider->szKeyVaultMachine, &settings);
    WipeScopeSettings(&settings);
    provider->kvcUser = OpenScope(FALSE, provider->szKeyVaultUser, &settings);
    SecureZeroMemory(&settings, sizeof(settings)); // the clients hold their own copies now

    *phProvider = reinterpret_cast<NCRYPT_PROV_HANDLE>(provider);
    return ERROR_SUCCESS;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeProvider(NCRYPT_PROV_HANDLE hProvider)
{
    LogMsg(L"KestalKeyVaultKSPFreeProvider", KSP_LOG_ENTRY);
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    if (!provider)
        return KspFail(L"KestalKeyVaultKSPFreeProvider", NTE_INVALID_HANDLE);

    KVCDelete(provider->kvcMachine);
    provider->kvcMachine = nullptr;
    KVCDelete(provider->kvcUser);
    provider->kvcUser = nullptr;
    if (provider->pszUseContext)
        HeapFree(GetProcessHeap(), 0, provider->pszUseContext);
    provider->pszUseContext = nullptr;
    SecureZeroMemory(provider, provider->cbLength);
    HeapFree(GetProcessHeap(), 0, provider);
    return ERROR_SUCCESS;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                                                       PBYTE pbOutput, DWORD cbOutput, DWORD *pcbResult,
                                                                       DWORD dwFlags)
{
    LogMsg2(L"KestalKeyVaultKSPGetProviderProperty", pszProperty, KSP_LOG_ENTRY);
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    if (!provider)
        return KspFail(L"KestalKeyVaultKSPGetProviderProperty", NTE_INVALID_HANDLE);
    if (!pszProperty || !pcbResult || KspPropertyNameTooLong(pszProperty))
        return KspFail(L"KestalKeyVaultKSPGetProviderProperty", NTE_INVALID_PARAMETER);
    if (dwFlags != 0 && dwFlags != NCRYPT_SILENT_FLAG)
        return KspFail(L"KestalKeyVaultKSPGetProviderProperty", NTE_BAD_FLAGS);

    // "Use Context" may be replaced by another thread: it is read and copied under its lock.
    SrwShared lock(&provider->useContextLock);
    DWORD dwValue = 0;
    const WCHAR *pszValue = nullptr; // set for the text-valued properties
    if (wcscmp(pszProperty, L"Impl Type") == 0) {
        dwValue = NCRYPT_IMPL_HARDWARE_FLAG;
    } else if (wcscmp(pszProperty, L"Max Name Length") == 0) {
        dwValue = 42;
    } else if (wcscmp(pszProperty, L"Name") == 0) {
        pszValue = provider->pszProviderName;
    } else if (wcscmp(pszProperty, L"Version") == 0) {
        dwValue = 0x00010000;
    } else if (wcscmp(pszProperty, L"Use Context") == 0) {
        if (!provider->pszUseContext)
            return KspFail(L"KestalKeyVaultKSPGetProviderProperty", NTE_INTERNAL_ERROR);
        pszValue = provider->pszUseContext;
    } else if (wcscmp(pszProperty, L"Security Descr Support") == 0) {
        dwValue = 0;
    } else {
        return KspFail(L"KestalKeyVaultKSPGetProviderProperty", NTE_NOT_SUPPORTED);
    }

    DWORD cbValue = pszValue ? static_cast<DWORD>((wcslen(pszValue) + 1) * sizeof(WCHAR)) : sizeof(DWORD);
    *pcbResult = cbValue;
    if (!pbOutput)
        return ERROR_SUCCESS;
    if (cbOutput < cbValue)
        return KspFail(L"KestalKeyVaultKSPGetProviderProperty", NTE_BUFFER_TOO_SMALL);
    if (pszValue) {
        memcpy(pbOutput, pszValue, cbValue);
        LogMsg3(L"KestalKeyVaultKSPGetProviderProperty", pszProperty, pszValue, KSP_LOG_TRACE);
    } else {
        memcpy(pbOutput, &dwValue, sizeof(dwValue));
        LogMsgNum(L"KestalKeyVaultKSPGetProviderProperty", pszProperty, static_cast<int>(dwValue), KSP_LOG_TRACE);
    }
    return ERROR_SUCCESS;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty,
                                                                       PBYTE pbInput, DWORD cbInput, DWORD dwFlags)
{
    LogMsg(L"KestalKeyVaultKSPSetProviderProperty", KSP_LOG_ENTRY);
    KspLogPropertyValue(L"KestalKeyVaultKSPSetProviderProperty", pszProperty, pbInput, cbInput);
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    if (!provider)
        return KspFail(L"KestalKeyVaultKSPSetProviderProperty", NTE_INVALID_HANDLE);
    if (!pszProperty || KspPropertyNameTooLong(pszProperty) || !pbInput)
        return KspFail(L"KestalKeyVaultKSPSetProviderProperty", NTE_INVALID_PARAMETER);
    if (dwFlags != 0 && dwFlags != NCRYPT_SILENT_FLAG)
        return KspFail(L"KestalKeyVaultKSPSetProviderProperty", NTE_BAD_FLAGS);
    if (wcscmp(pszProperty, L"Use Context") != 0)
        return KspFail(L"KestalKeyVaultKSPSetProviderProperty", NTE_NOT_SUPPORTED);

    // The bytes are kept as given; the zeroed tail behind them ends the text for readers
    // when the caller left out the terminator.
    auto *pszNew =
        static_cast<LPWSTR>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, static_cast<SIZE_T>(cbInput) + 2 * sizeof(WCHAR)));
    if (pszNew)
        memcpy(pszNew, pbInput, cbInput);
    LPWSTR pszOld = nullptr;
    {
        // A failed allocation still drops the old value, as a caller who set a new one expects.
        SrwExclusive lock(&provider->useContextLock);
        pszOld = provider->pszUseContext;
        provider->pszUseContext = pszNew;
    }
    if (pszOld)
        HeapFree(GetProcessHeap(), 0, pszOld);
    if (!pszNew)
        return KspFail(L"KestalKeyVaultKSPSetProviderProperty", NTE_NO_MEMORY);
    return ERROR_SUCCESS;
}

SECURITY_STATUS KspFail(const WCHAR *pszEntry, SECURITY_STATUS status)
{
    LogMsgError(pszEntry, static_cast<DWORD>(status), KSP_LOG_FAILURE);
    return status;
}
