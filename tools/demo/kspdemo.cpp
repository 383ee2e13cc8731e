// Demo: loads KestalKeyVaultKSP.dll the way the CNG router does and shows what it offers.
// With --seed-settings it first writes demo connection settings for the machine scope
// (inside the test world only: the demo script passes it).
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <cwchar>

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
    if (argc > 1 && std::strcmp(argv[1], "--seed-settings") == 0 && !SeedDemoSettings()) {
        std::printf("cannot write the demo settings\n");
        return 1;
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
        std::printf("FreeProvider: 0x%08lX\n", static_cast<unsigned long>(table->FreeProvider(provider)));
    }
    FreeLibrary(module);
    return status == 0 ? 0 : 1;
}
