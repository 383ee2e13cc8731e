// The 32-bit provider as a WOW64 caller (32-bit signtool, Office) meets it: loaded from its own
// folder by file name and driven through GetKeyStorageInterface as the CNG router does, with its
// settings where an administrator writes them (the registry's 64-bit view). Prints one
// "KESTAL32 <step> OK" (or FAILED) per step; the shell test judges by the markers.
//   kestal32.exe <vault> <tenant> <client id> <client secret>
// The vault holds the RSA key "rsa32" and the EC P-256 key "ec32".
#include <windows.h>
#include <bcrypt.h>

#include <cstdio>
#include <cwchar>

#include "ksp/kspinterface.h"

namespace {

using GetInterfaceFn = NTSTATUS(WINAPI *)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE **, DWORD);
constexpr wchar_t kName[] = L"Kestal Key Vault Key Storage Provider";

void Mark(const char *step, bool ok) { std::printf("KESTAL32 %s %s\n", step, ok ? "OK" : "FAILED"); }

bool WriteSettings(wchar_t **argv)
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Kestal\\KestalKeyVaultKSP", 0, nullptr, 0,
                        KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr, &key, nullptr) != ERROR_SUCCESS)
        return false;
    const wchar_t *names[] = {L"KeyVault", L"TenantId", L"ClientId", L"ClientSecret"};
    LSTATUS rc = 0;
    for (int i = 0; i < 4; ++i)
        rc |= RegSetValueExW(key, names[i], 0, REG_SZ, reinterpret_cast<const BYTE *>(argv[i + 1]),
                             static_cast<DWORD>((wcslen(argv[i + 1]) + 1) * sizeof(wchar_t)));
    const DWORD clientSecret = 2, plainKeys = 1;
    rc |= RegSetValueExW(key, L"AuthenticationType", 0, REG_DWORD, reinterpret_cast<const BYTE *>(&clientSecret), 4);
    rc |= RegSetValueExW(key, L"CertificatesOrKeys", 0, REG_DWORD, reinterpret_cast<const BYTE *>(&plainKeys), 4);
    RegCloseKey(key);
    return rc == ERROR_SUCCESS;
}

} // namespace

int wmain(int argc, wchar_t **argv)
{
    BOOL fWow64 = FALSE;
    Mark("WOW64", sizeof(void *) == 4 && IsWow64Process(GetCurrentProcess(), &fWow64) && fWow64);
    HMODULE dll = argc == 5 && WriteSettings(argv) ? LoadLibraryW(L"KestalKeyVaultKSP.dll") : nullptr;
    auto getInterface =
        dll ? reinterpret_cast<GetInterfaceFn>(reinterpret_cast<void *>(GetProcAddress(dll, "GetKeyStorageInterface")))
            : nullptr;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *ksp = nullptr;
    NCRYPT_PROV_HANDLE provider = 0;
    const bool loaded = getInterface && getInterface(kName, &ksp, 0) == 0 && ksp->OpenProvider(&provider, kName, 0) == 0;
    Mark("LOAD", loaded);
    if (!loaded)
        return 1;

    int found = 0;
    PVOID state = nullptr;
    NCryptKeyName *name = nullptr;
    while (ksp->EnumKeys(provider, nullptr, &name, &state, NCRYPT_MACHINE_KEY_FLAG) == 0) {
        found += !wcscmp(name->pszName, L"rsa32") && !wcscmp(name->pszAlgid, L"RSA");
        found += !wcscmp(name->pszName, L"ec32") && !wcscmp(name->pszAlgid, L"ECDSA_P256");
        ksp->FreeBuffer(name);
    }
    ksp->FreeBuffer(state);
    Mark("ENUMKEYS", found == 2);

    // Each key: its public blob exported, a SHA-256 hash signed in the vault, checked by BCrypt.
    const struct {
        const char *sign, *exportStep;
        const wchar_t *key, *blobType, *alg;
    } keys[] = {{"SIGN RSA", "EXPORT RSA", L"rsa32", BCRYPT_RSAPUBLIC_BLOB, BCRYPT_RSA_ALGORITHM},
                {"SIGN EC", "EXPORT EC", L"ec32", BCRYPT_ECCPUBLIC_BLOB, BCRYPT_ECDSA_P256_ALGORITHM}};
    for (const auto &k : keys) {
        const bool rsa = wcscmp(k.alg, BCRYPT_RSA_ALGORITHM) == 0;
        BCRYPT_PKCS1_PADDING_INFO pkcs1 = {BCRYPT_SHA256_ALGORITHM};
        BYTE blob[1024], hash[32] = {1, 2, 3}, sig[512];
        DWORD cbBlob = 0, cbSig = 0, flags = rsa ? BCRYPT_PAD_PKCS1 : 0;
        NCRYPT_KEY_HANDLE key = 0;
        BCRYPT_ALG_HANDLE alg = nullptr;
        BCRYPT_KEY_HANDLE pub = nullptr;
        const bool opened = ksp->OpenKey(provider, &key, k.key, 0, NCRYPT_MACHINE_KEY_FLAG) == 0;
        const bool exported =
            opened && ksp->ExportKey(provider, key, 0, k.blobType, nullptr, blob, sizeof(blob), &cbBlob, 0) == 0;
        bool ok = opened && ksp->SignHash(provider, key, rsa ? &pkcs1 : nullptr, hash, 32, sig, 512, &cbSig, flags) == 0;
        ok = ok && exported && BCryptOpenAlgorithmProvider(&alg, k.alg, nullptr, 0) == 0 &&
             BCryptImportKeyPair(alg, nullptr, k.blobType, &pub, blob, cbBlob, 0) == 0 &&
             BCryptVerifySignature(pub, rsa ? &pkcs1 : nullptr, hash, 32, sig, cbSig, flags) == 0;
        Mark(k.sign, ok);
        Mark(k.exportStep, exported);
        if (pub)
            BCryptDestroyKey(pub);
        if (alg)
            BCryptCloseAlgorithmProvider(alg, 0);
        if (key)
            ksp->FreeKey(provider, key);
    }
    ksp->FreeProvider(provider);
    Mark("DONE", true);
    return 0;
}
