// Demo: loads KestalKeyVaultKSP.dll the way the CNG router does and shows what it offers.
#include <windows.h>

#include <cstdio>

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

int main()
{
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
    std::printf("OpenProvider: 0x%08lX%s\n", static_cast<unsigned long>(status),
                status == NTE_NOT_SUPPORTED ? " (NTE_NOT_SUPPORTED: not built yet)" : "");
    if (status == 0)
        table->FreeProvider(provider);
    FreeLibrary(module);
    return 0;
}
