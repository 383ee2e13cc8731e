// Demo: loads KestalKeyVaultKSP.dll the way the CNG router does and shows what it offers:
// the function table, the provider's properties, the vault's keys and one opened key; then, for
// every key, a hash signed in the vault and checked with Windows' own BCrypt against the exported
// public key, and for RSA keys an encryption that round-trips through the vault.
// With --seed-settings it first writes demo connection settings for the machine scope and,
// through the emulated Azure's control API, registers the demo app and gives the demo vault a
// few keys (inside the test world only: the demo script passes it).
#include <windows.h>
#include <bcrypt.h>
#include <winhttp.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "ksp/ksp.h"

namespace {

constexpr const char *kSlotNames[26] = {
    "OpenProvider",   "OpenKey",         "CreatePersistedKey", "GetProviderProperty", "GetKeyProperty",
    "SetProviderProperty", "SetKeyProperty", "FinalizeKey",    "DeleteKey",           "FreeProvider",
    "FreeKey",        "FreeBuffer",      "Encrypt",            "Decrypt",             "IsAlgSupported",
    "EnumAlgorithms", "EnumKeys",        "ImportKey",          "ExportKey",           "SignHash",
    "VerifySignature", "PromptUser",     "NotifyChangeKey",    "SecretAgreement",     "DeriveKey",
    "FreeSecret",
};

using GetInterfaceFn = NTSTATUS(WINAPI *)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE **, DWORD);

constexpr wchar_t kSettingsKey[] = L"Software\\Kestal\\KestalKeyVaultKSP";
constexpr wchar_t kDemoVault[] = L"kestaldemo";
constexpr char kDemoApp[] = R"({"tenant":"00000000-0000-0000-0000-00000000d3e0",)"
                            R"("clientId":"11111111-1111-1111-1111-11111111d3e0","secret":"demo-only-client-secret"})";
// Names, algorithms and sizes a vault typically holds: a TLS key, a signing key, an agreement key.
constexpr const char *kDemoKeys[] = {
    R"({"name":"web-server-01","kty":"RSA","key_size":2048})",
    R"({"name":"code-signing-p256","kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"}})",
    R"({"name":"key-agreement-p384","kty":"EC","crv":"P-384"})",
};

struct InternetHandle {
    HINTERNET h = nullptr;
    ~InternetHandle()
    {
        if (h)
            WinHttpCloseHandle(h);
    }
};

// One plain-HTTP call to the emulated Azure's control API; the status, 0 when it did not answer.
DWORD ControlCall(const wchar_t *verb, const std::wstring &path, const std::string &json, std::string *answer)
{
    wchar_t base[256];
    DWORD n = GetEnvironmentVariableW(L"KESTAL_CONTROL_URL", base, ARRAYSIZE(base));
    if (n == 0 || n >= ARRAYSIZE(base))
        return 0;
    URL_COMPONENTS parts = {};
    parts.dwStructSize = sizeof(parts);
    parts.dwHostNameLength = static_cast<DWORD>(-1);
    if (!WinHttpCrackUrl(base, 0, 0, &parts))
        return 0;
    std::wstring host(parts.lpszHostName, parts.dwHostNameLength);
    InternetHandle session, connection, request;
    session.h =
        WinHttpOpen(L"kspdemo", WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0);
    connection.h = session.h ? WinHttpConnect(session.h, host.c_str(), parts.nPort, 0) : nullptr;
    request.h = connection.h ? WinHttpOpenRequest(connection.h, verb, path.c_str(), nullptr, WINHTTP_NO_REFERER,
                                                  WINHTTP_DEFAULT_ACCEPT_TYPES, 0)
                             : nullptr;
    DWORD cb = static_cast<DWORD>(json.size());
    if (!request.h ||
        !WinHttpSendRequest(request.h, L"Content-Type: application/json", static_cast<DWORD>(-1),
                            cb ? const_cast<char *>(json.data()) : WINHTTP_NO_REQUEST_DATA, cb, cb, 0) ||
        !WinHttpReceiveResponse(request.h, nullptr))
        return 0;
    DWORD status = 0, cbStatus = sizeof(status);
    WinHttpQueryHeaders(request.h, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, WINHTTP_HEADER_NAME_BY_INDEX,
                        &status, &cbStatus, WINHTTP_NO_HEADER_INDEX);
    char chunk[4096];
    for (DWORD got = 0; WinHttpReadData(request.h, chunk, sizeof(chunk), &got) && got > 0;)
        answer->append(chunk, got);
    return status;
}

// The demo app signs in to the emulated directory; an empty demo vault gets its keys.
void SeedEmulatedVault()
{
    std::string answer;
    if (ControlCall(L"POST", L"/apps", kDemoApp, &answer) != 200) {
        std::printf("emulated Azure: cannot register the demo app (is this the test world?)\n");
        return;
    }
    answer.clear();
    // A vault the emulator has not met yet has no keys either.
    if (ControlCall(L"GET", std::wstring(L"/vaults/") + kDemoVault, "", &answer) == 200 &&
        answer.find("\"keys\":[]") == std::string::npos) {
        std::printf("emulated Azure: demo app registered, vault %ls already holds keys\n", kDemoVault);
        return;
    }
    int seeded = 0;
    for (const char *key : kDemoKeys) {
        std::string bundle;
        seeded += ControlCall(L"POST", std::wstring(L"/vaults/") + kDemoVault + L"/keys", key, &bundle) == 200;
    }
    std::printf("emulated Azure: demo app registered, %d keys seeded in vault %ls\n", seeded, kDemoVault);
}

void SeedString(HKEY key, const wchar_t *name, const wchar_t *value)
{
    RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE *>(value),
                   static_cast<DWORD>((wcslen(value) + 1) * sizeof(wchar_t)));
}

bool SeedDemoSettings()
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kSettingsKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS)
        return false;
    DWORD clientSecretAuthentication = 2;
    SeedString(key, L"KeyVault", L"KestalDemo");
    RegSetValueExW(key, L"AuthenticationType", 0, REG_DWORD, reinterpret_cast<const BYTE *>(&clientSecretAuthentication),
                   sizeof(clientSecretAuthentication));
    SeedString(key, L"TenantId", L"00000000-0000-0000-0000-00000000d3e0");
    SeedString(key, L"ClientId", L"11111111-1111-1111-1111-11111111d3e0");
    SeedString(key, L"ClientSecret", L"demo-only-client-secret");
    RegCloseKey(key);
    return true;
}

// Length of a REG_SZ setting of the machine scope, -1 when absent.
long SettingLength(const wchar_t *name)
{
    wchar_t value[4096] = {};
    DWORD cb = sizeof(value) - sizeof(wchar_t);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, kSettingsKey, name, RRF_RT_REG_SZ, nullptr, value, &cb) != ERROR_SUCCESS)
        return -1;
    return static_cast<long>(wcslen(value));
}

void PrintProviderProperties(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table, NCRYPT_PROV_HANDLE provider)
{
    const struct {
        const wchar_t *name;
        bool text;
    } properties[] = {{L"Impl Type", false}, {L"Max Name Length", false}, {L"Name", true}, {L"Version", false},
                      {L"Security Descr Support", false}};
    for (const auto &property : properties) {
        union {
            DWORD number;
            wchar_t text[256];
        } value = {};
        DWORD cb = 0;
        SECURITY_STATUS status = table->GetProviderProperty(provider, property.name, reinterpret_cast<PBYTE>(&value),
                                                            sizeof(value), &cb, 0);
        if (status != 0)
            std::printf("  %-24ls failed: 0x%08lX\n", property.name, static_cast<unsigned long>(status));
        else if (property.text)
            std::printf("  %-24ls %ls\n", property.name, value.text);
        else
            std::printf("  %-24ls 0x%08lX\n", property.name, static_cast<unsigned long>(value.number));
    }
}

// Lists the machine scope's keys one by one; their names go to *pNames.
void PrintKeys(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table, NCRYPT_PROV_HANDLE provider,
               std::vector<std::wstring> *pNames)
{
    std::printf("EnumKeys (machine scope):\n");
    PVOID state = nullptr;
    NCryptKeyName *name = nullptr;
    SECURITY_STATUS status;
    while ((status = table->EnumKeys(provider, nullptr, &name, &state, NCRYPT_MACHINE_KEY_FLAG)) == 0) {
        std::printf("  %-28ls %ls\n", name->pszName, name->pszAlgid);
        pNames->push_back(name->pszName);
        table->FreeBuffer(name);
    }
    if (status == static_cast<SECURITY_STATUS>(NTE_NO_MORE_ITEMS))
        std::printf("  (end of list)\n");
    else
        std::printf("  failed: 0x%08lX\n", static_cast<unsigned long>(status));
    if (state)
        table->FreeBuffer(state);
}

// A key's algorithm name and length, asked for as any CNG caller asks: through GetKeyProperty.
struct KeyFacts {
    wchar_t algorithm[32] = L"?";
    DWORD bits = 0;
};
KeyFacts ReadKeyFacts(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table, NCRYPT_PROV_HANDLE provider,
                      NCRYPT_KEY_HANDLE key)
{
    KeyFacts facts;
    DWORD cb = 0;
    if (table->GetKeyProperty(provider, key, NCRYPT_ALGORITHM_PROPERTY, reinterpret_cast<PBYTE>(facts.algorithm),
                              sizeof(facts.algorithm) - sizeof(wchar_t), &cb, 0) != 0)
        wcscpy_s(facts.algorithm, ARRAYSIZE(facts.algorithm), L"?");
    if (table->GetKeyProperty(provider, key, NCRYPT_LENGTH_PROPERTY, reinterpret_cast<PBYTE>(&facts.bits),
                              sizeof(facts.bits), &cb, 0) != 0)
        facts.bits = 0;
    return facts;
}

void PrintOpenedKey(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table, NCRYPT_PROV_HANDLE provider,
                    const std::wstring &name)
{
    NCRYPT_KEY_HANDLE key = 0;
    SECURITY_STATUS status = table->OpenKey(provider, &key, name.c_str(), 0, NCRYPT_MACHINE_KEY_FLAG);
    if (status != 0) {
        std::printf("OpenKey \"%ls\": 0x%08lX\n", name.c_str(), static_cast<unsigned long>(status));
        return;
    }
    const KeyFacts facts = ReadKeyFacts(table, provider, key);
    std::printf("OpenKey \"%ls\": 0x00000000, %ls, %lu bits\n", name.c_str(), facts.algorithm,
                static_cast<unsigned long>(facts.bits));
    std::printf("FreeKey: 0x%08lX\n", static_cast<unsigned long>(table->FreeKey(provider, key)));
}

unsigned long Status(LONG status) { return static_cast<unsigned long>(status); }

// A BCrypt key for an exported public blob. ECDH blobs are read as ECDSA keys of the same curve,
// so that their signatures can be checked too.
BCRYPT_KEY_HANDLE ImportLocally(std::vector<BYTE> blob, const wchar_t *blobType)
{
    ULONG magic = 0;
    memcpy(&magic, blob.data(), sizeof(magic));
    const struct {
        ULONG ecdh, ecdsa;
        const wchar_t *algorithm;
    } curves[] = {{BCRYPT_ECDH_PUBLIC_P256_MAGIC, BCRYPT_ECDSA_PUBLIC_P256_MAGIC, BCRYPT_ECDSA_P256_ALGORITHM},
                  {BCRYPT_ECDH_PUBLIC_P384_MAGIC, BCRYPT_ECDSA_PUBLIC_P384_MAGIC, BCRYPT_ECDSA_P384_ALGORITHM},
                  {BCRYPT_ECDH_PUBLIC_P521_MAGIC, BCRYPT_ECDSA_PUBLIC_P521_MAGIC, BCRYPT_ECDSA_P521_ALGORITHM}};
    const wchar_t *algorithm = BCRYPT_RSA_ALGORITHM;
    for (const auto &curve : curves) {
        if (magic == curve.ecdh || magic == curve.ecdsa) {
            memcpy(blob.data(), &curve.ecdsa, sizeof(magic));
            algorithm = curve.algorithm;
        }
    }
    BCRYPT_ALG_HANDLE alg = nullptr;
    BCRYPT_KEY_HANDLE key = nullptr;
    if (BCryptOpenAlgorithmProvider(&alg, algorithm, nullptr, 0) == 0) {
        if (BCryptImportKeyPair(alg, nullptr, blobType, &key, blob.data(), static_cast<ULONG>(blob.size()), 0) != 0)
            key = nullptr;
        BCryptCloseAlgorithmProvider(alg, 0);
    }
    return key;
}

std::vector<BYTE> Sha256(const char *text)
{
    std::vector<BYTE> hash(32);
    BCRYPT_ALG_HANDLE alg = nullptr;
    if (BCryptOpenAlgorithmProvider(&alg, BCRYPT_SHA256_ALGORITHM, nullptr, 0) == 0) {
        BCryptHash(alg, nullptr, 0, reinterpret_cast<PUCHAR>(const_cast<char *>(text)),
                   static_cast<ULONG>(strlen(text)), hash.data(), static_cast<ULONG>(hash.size()));
        BCryptCloseAlgorithmProvider(alg, 0);
    }
    return hash;
}

// RSA-OAEP through the vault both ways: the provider encrypts (with the vault's public key
// operation) and decrypts.
void ShowEncryption(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table, NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key)
{
    char secret[] = "a session key for the Kestal demo";
    std::vector<BYTE> cipher(1024), plain(1024);
    DWORD cbCipher = 0, cbPlain = 0;
    SECURITY_STATUS status = table->Encrypt(provider, key, reinterpret_cast<PBYTE>(secret), sizeof(secret) - 1, nullptr,
                                            cipher.data(), static_cast<DWORD>(cipher.size()), &cbCipher,
                                            NCRYPT_PAD_OAEP_FLAG);
    std::printf("  Encrypt RSA-OAEP: 0x%08lX, %lu bytes of ciphertext\n", Status(status),
                static_cast<unsigned long>(cbCipher));
    if (status != 0)
        return;
    status = table->Decrypt(provider, key, cipher.data(), cbCipher, nullptr, plain.data(),
                            static_cast<DWORD>(plain.size()), &cbPlain, NCRYPT_PAD_OAEP_FLAG);
    bool same = status == 0 && cbPlain == sizeof(secret) - 1 && memcmp(plain.data(), secret, cbPlain) == 0;
    std::printf("  Decrypt RSA-OAEP: 0x%08lX, \"%.*s\" (%s)\n", Status(status), static_cast<int>(cbPlain),
                reinterpret_cast<const char *>(plain.data()), same ? "round trip OK" : "MISMATCH");
}

// Signs a SHA-256 hash in the vault, checks the signature with BCrypt against the exported public
// key and with the vault through the provider, and round-trips an encryption for RSA keys.
void ShowKeyCrypto(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table, NCRYPT_PROV_HANDLE provider,
                   const std::wstring &name, bool showEncryption = true)
{
    NCRYPT_KEY_HANDLE key = 0;
    SECURITY_STATUS status = table->OpenKey(provider, &key, name.c_str(), 0, NCRYPT_MACHINE_KEY_FLAG);
    if (status != 0) {
        std::printf("\"%ls\": OpenKey 0x%08lX\n", name.c_str(), Status(status));
        return;
    }
    const KeyFacts facts = ReadKeyFacts(table, provider, key);
    bool rsa = wcscmp(facts.algorithm, L"RSA") == 0;
    std::printf("\"%ls\" (%ls):\n", name.c_str(), facts.algorithm);

    const wchar_t *blobType = rsa ? BCRYPT_RSAPUBLIC_BLOB : BCRYPT_ECCPUBLIC_BLOB;
    DWORD cbBlob = 0;
    status = table->ExportKey(provider, key, 0, blobType, nullptr, nullptr, 0, &cbBlob, 0);
    std::vector<BYTE> blob(cbBlob);
    if (status == 0)
        status = table->ExportKey(provider, key, 0, blobType, nullptr, blob.data(), cbBlob, &cbBlob, 0);
    std::printf("  ExportKey %ls: 0x%08lX, %lu bytes\n", blobType, Status(status), static_cast<unsigned long>(cbBlob));

    std::vector<BYTE> hash = Sha256("Signed in Azure Key Vault, checked by Windows");
    BCRYPT_PKCS1_PADDING_INFO pkcs1 = {BCRYPT_SHA256_ALGORITHM};
    DWORD padding = rsa ? BCRYPT_PAD_PKCS1 : 0;
    std::vector<BYTE> signature(512);
    DWORD cbSignature = 0;
    status = table->SignHash(provider, key, rsa ? &pkcs1 : nullptr, hash.data(), static_cast<DWORD>(hash.size()),
                             signature.data(), static_cast<DWORD>(signature.size()), &cbSignature, padding);
    std::printf("  SignHash %s: 0x%08lX, %lu-byte signature\n", rsa ? "SHA-256 PKCS1" : "SHA-256 ECDSA",
                Status(status), static_cast<unsigned long>(cbSignature));
    if (status == 0 && !blob.empty()) {
        signature.resize(cbSignature);
        BCRYPT_KEY_HANDLE local = ImportLocally(blob, blobType);
        NTSTATUS verified = local ? BCryptVerifySignature(local, rsa ? &pkcs1 : nullptr, hash.data(),
                                                          static_cast<ULONG>(hash.size()), signature.data(),
                                                          cbSignature, padding)
                                  : static_cast<NTSTATUS>(0xC0000002);
        if (local)
            BCryptDestroyKey(local);
        std::printf("  BCryptVerifySignature with the exported key: 0x%08lX%s\n", Status(verified),
                    verified == 0 ? " (valid)" : local ? " (INVALID)" : " (curve not available here)");
        SECURITY_STATUS good = table->VerifySignature(provider, key, rsa ? &pkcs1 : nullptr, hash.data(),
                                                      static_cast<DWORD>(hash.size()), signature.data(), cbSignature,
                                                      padding);
        signature[0] ^= 1;
        SECURITY_STATUS tampered = table->VerifySignature(provider, key, rsa ? &pkcs1 : nullptr, hash.data(),
                                                          static_cast<DWORD>(hash.size()), signature.data(),
                                                          cbSignature, padding);
        std::printf("  VerifySignature in the vault: 0x%08lX; with one bit flipped: 0x%08lX\n", Status(good),
                    Status(tampered));
    }
    if (rsa && showEncryption)
        ShowEncryption(table, provider, key);
    table->FreeKey(provider, key);
}

// A key's whole life through the provider: created in the vault (behind a certificate, the
// default mode), used like any other key, then deleted and purged so the name is free again.
void ShowLifecycle(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table, NCRYPT_PROV_HANDLE provider)
{
    const wchar_t *name = L"demo lifecycle key";
    NCRYPT_KEY_HANDLE key = 0;
    SECURITY_STATUS status = table->CreatePersistedKey(provider, &key, BCRYPT_RSA_ALGORITHM, name, 0,
                                                       NCRYPT_MACHINE_KEY_FLAG | NCRYPT_OVERWRITE_KEY_FLAG);
    std::printf("CreatePersistedKey \"%ls\" RSA: 0x%08lX\n", name, Status(status));
    if (status != 0)
        return;
    DWORD bits = 3072;
    status = table->SetKeyProperty(provider, key, NCRYPT_LENGTH_PROPERTY, reinterpret_cast<PBYTE>(&bits),
                                   sizeof(bits), 0);
    std::printf("  SetKeyProperty Length %lu: 0x%08lX\n", static_cast<unsigned long>(bits), Status(status));
    status = table->FinalizeKey(provider, key, 0);
    std::printf("  FinalizeKey (the vault makes the key pair): 0x%08lX\n", Status(status));
    table->FreeKey(provider, key);
    if (status != 0)
        return;
    // A certificate's key is made for its key usage ("digitalSignature"): the vault signs with it
    // but refuses to encrypt, so only signing is shown here.
    ShowKeyCrypto(table, provider, name, false);
    status = table->OpenKey(provider, &key, name, 0, NCRYPT_MACHINE_KEY_FLAG);
    if (status == 0) {
        status = table->DeleteKey(provider, key, 0);
        if (status != 0)
            table->FreeKey(provider, key);
    }
    std::printf("DeleteKey \"%ls\" (deleted and purged): 0x%08lX\n", name, Status(status));
}

HMODULE LoadProvider()
{
    wchar_t path[MAX_PATH];
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    while (n > 0 && path[n - 1] != L'\\' && path[n - 1] != L'/')
        --n;
    lstrcpynW(path + n, L"KestalKeyVaultKSP.dll", MAX_PATH - static_cast<int>(n));
    return LoadLibraryW(path);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1 && std::strcmp(argv[1], "--seed-settings") == 0) {
        if (!SeedDemoSettings()) {
            std::printf("cannot write the demo settings\n");
            return 1;
        }
        SeedEmulatedVault();
    }
    HMODULE module = LoadProvider();
    if (!module) {
        std::printf("LoadLibraryW(KestalKeyVaultKSP.dll) failed: %lu\n", GetLastError());
        return 1;
    }
    auto getInterface = reinterpret_cast<GetInterfaceFn>(
        reinterpret_cast<void *>(GetProcAddress(module, "GetKeyStorageInterface")));
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table = nullptr;
    if (!getInterface || getInterface(KSP_PROVIDER_NAME, &table, 0) != 0 || !table) {
        std::printf("GetKeyStorageInterface failed\n");
        return 1;
    }

    std::printf("%ls\n", KSP_PROVIDER_NAME);
    std::printf("function table version %u.%u\n", table->Version.MajorVersion, table->Version.MinorVersion);
    auto entries = reinterpret_cast<void *const *>(&table->OpenProvider);
    auto base = reinterpret_cast<const char *>(module);
    for (int slot = 0; slot < 26; ++slot)
        std::printf("  %2d  %-20s  KestalKeyVaultKSP.dll+0x%llx\n", slot + 1, kSlotNames[slot],
                    static_cast<unsigned long long>(static_cast<const char *>(entries[slot]) - base));

    NCRYPT_PROV_HANDLE provider = 0;
    SECURITY_STATUS status = table->OpenProvider(&provider, KSP_PROVIDER_NAME, 0);
    std::printf("OpenProvider: 0x%08lX\n", static_cast<unsigned long>(status));
    if (status == 0) {
        PrintProviderProperties(table, provider);
        // The first open turns a plain client secret into its DPAPI form and blanks it.
        std::printf("machine settings: ClientSecret %ld characters, ClientDPAPISecret %ld characters\n",
                    SettingLength(L"ClientSecret"), SettingLength(L"ClientDPAPISecret"));
        std::vector<std::wstring> names;
        PrintKeys(table, provider, &names);
        if (!names.empty())
            PrintOpenedKey(table, provider, names.front());
        for (const std::wstring &name : names)
            ShowKeyCrypto(table, provider, name);
        ShowLifecycle(table, provider);
        std::printf("FreeProvider: 0x%08lX\n", static_cast<unsigned long>(table->FreeProvider(provider)));
    }
    FreeLibrary(module);
    return status == 0 ? 0 : 1;
}
