// The 32-bit provider as a WOW64 caller (32-bit signtool, Office) meets it: loaded from its
// own folder by file name, driven through GetKeyStorageInterface as the CNG router does, with
// its settings where an administrator writes them (the registry's 64-bit view). Prints one
// "KESTAL32 <step> OK" marker per step that worked; the shell test judges by the markers.
//   kestal32.exe <vault> <tenant> <client id> <client secret>
// The vault holds the RSA key "rsa32" and the EC P-256 key "ec32" (seeded by the shell test).
#include <windows.h>
#include <bcrypt.h>

#include <cstdio>
#include <cwchar>
#include <string>

#include "ksp/kspinterface.h"

namespace {

using GetInterfaceFn = NTSTATUS(WINAPI *)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE **, DWORD);
const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *g_ksp = nullptr;
NCRYPT_PROV_HANDLE g_provider = 0;

void Mark(const char *step, bool ok)
{
    std::printf("KESTAL32 %s %s\n", step, ok ? "OK" : "FAILED");
    std::fflush(stdout);
}

bool WriteSettings(wchar_t **argv)
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Kestal\\KestalKeyVaultKSP", 0, nullptr, 0,
                        KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr, &key, nullptr) != ERROR_SUCCESS)
        return false;
    const wchar_t *names[] = {L"KeyVault", L"TenantId", L"ClientId", L"ClientSecret"};
    bool ok = true;
    for (int i = 0; i < 4; ++i)
        ok &= RegSetValueExW(key, names[i], 0, REG_SZ, reinterpret_cast<const BYTE *>(argv[i + 1]),
                             static_cast<DWORD>((wcslen(argv[i + 1]) + 1) * sizeof(wchar_t))) == ERROR_SUCCESS;
    const DWORD clientSecret = 2, plainKeys = 1;
    ok &= RegSetValueExW(key, L"AuthenticationType", 0, REG_DWORD, reinterpret_cast<const BYTE *>(&clientSecret),
                         sizeof(DWORD)) == ERROR_SUCCESS;
    ok &= RegSetValueExW(key, L"CertificatesOrKeys", 0, REG_DWORD, reinterpret_cast<const BYTE *>(&plainKeys),
                         sizeof(DWORD)) == ERROR_SUCCESS;
    RegCloseKey(key);
    return ok;
}

bool Load()
{
    HMODULE dll = LoadLibraryW(L"KestalKeyVaultKSP.dll");
    auto getInterface =
        dll ? reinterpret_cast<GetInterfaceFn>(reinterpret_cast<void *>(GetProcAddress(dll, "GetKeyStorageInterface")))
            : nullptr;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table = nullptr;
    if (!getInterface || getInterface(L"Kestal Key Vault Key Storage Provider", &table, 0) != 0 || !table)
        return false;
    g_ksp = table;
    return table->Version.MajorVersion == 1 &&
           table->OpenProvider(&g_provider, L"Kestal Key Vault Key Storage Provider", 0) == 0;
}

bool EnumFindsBoth()
{
    bool rsa = false, ec = false;
    PVOID state = nullptr;
    NCryptKeyName *name = nullptr;
    while (g_ksp->EnumKeys(g_provider, nullptr, &name, &state, NCRYPT_MACHINE_KEY_FLAG) == 0) {
        rsa |= wcscmp(name->pszName, L"rsa32") == 0 && wcscmp(name->pszAlgid, L"RSA") == 0;
        ec |= wcscmp(name->pszName, L"ec32") == 0 && wcscmp(name->pszAlgid, L"ECDSA_P256") == 0;
        g_ksp->FreeBuffer(name);
    }
    if (state)
        g_ksp->FreeBuffer(state);
    return rsa && ec;
}

// Exports the public key, signs a SHA-256 hash in the vault and checks the signature with
// Windows' own BCrypt. *pfExported tells whether the export half worked.
bool SignAndVerify(const wchar_t *keyName, const wchar_t *blobType, const wchar_t *bcryptAlg, bool *pfExported)
{
    NCRYPT_KEY_HANDLE key = 0;
    if (g_ksp->OpenKey(g_provider, &key, keyName, 0, NCRYPT_MACHINE_KEY_FLAG) != 0)
        return false;
    BYTE blob[2048], hash[32], sig[512];
    DWORD cbBlob = 0, cbSig = 0;
    for (int i = 0; i < 32; ++i)
        hash[i] = static_cast<BYTE>(i * 7 + 1);
    *pfExported = g_ksp->ExportKey(g_provider, key, 0, blobType, nullptr, blob, sizeof(blob), &cbBlob, 0) == 0;
    const bool fRsa = wcscmp(bcryptAlg, BCRYPT_RSA_ALGORITHM) == 0;
    BCRYPT_PKCS1_PADDING_INFO pkcs1 = {BCRYPT_SHA256_ALGORITHM};
    void *padding = fRsa ? &pkcs1 : nullptr;
    const DWORD flags = fRsa ? BCRYPT_PAD_PKCS1 : 0;
    bool ok = g_ksp->SignHash(g_provider, key, padding, hash, sizeof(hash), sig, sizeof(sig), &cbSig, flags) == 0;
    g_ksp->FreeKey(g_provider, key);

    BCRYPT_ALG_HANDLE alg = nullptr;
    BCRYPT_KEY_HANDLE pub = nullptr;
    ok = ok && *pfExported && BCryptOpenAlgorithmProvider(&alg, bcryptAlg, nullptr, 0) == 0 &&
         BCryptImportKeyPair(alg, nullptr, blobType, &pub, blob, cbBlob, 0) == 0 &&
         BCryptVerifySignature(pub, padding, hash, sizeof(hash), sig, cbSig, flags) == 0;
    if (pub)
        BCryptDestroyKey(pub);
    if (alg)
        BCryptCloseAlgorithmProvider(alg, 0);
    return ok;
}

} // namespace

int wmain(int argc, wchar_t **argv)
{
    BOOL fWow64 = FALSE;
    Mark("WOW64", sizeof(void *) == 4 && IsWow64Process(GetCurrentProcess(), &fWow64) && fWow64);
    if (argc != 5 || !WriteSettings(argv)) {
        Mark("SETTINGS", false);
        return 1;
    }
    const bool loaded = Load();
    Mark("LOAD", loaded);
    if (!loaded)
        return 1;
    Mark("ENUMKEYS", EnumFindsBoth());
    bool exported = false;
    Mark("SIGN RSA", SignAndVerify(L"rsa32", BCRYPT_RSAPUBLIC_BLOB, BCRYPT_RSA_ALGORITHM, &exported));
    Mark("EXPORT RSA", exported);
    Mark("SIGN EC", SignAndVerify(L"ec32", BCRYPT_ECCPUBLIC_BLOB, BCRYPT_ECDSA_P256_ALGORITHM, &exported));
    Mark("EXPORT EC", exported);
    g_ksp->FreeProvider(g_provider);
    Mark("DONE", true);
    return 0;
}
