// Registration with CNG: the provider's image and its KEY_STORAGE interface, and its place in
// the list of key storage providers. The BCrypt registration functions do the work where they
// work; where they only pretend (Wine's return success and write nothing) the same registry
// layout is written directly. Either way the registry is read back and reported, because a
// success code alone proves nothing.
#include "admin/admin.h"

#include <bcrypt.h>

#include "ksp/ksp.h"

namespace {

constexpr wchar_t kProvidersKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Cryptography\\Providers\\";
constexpr wchar_t kKeyStorageOrderKey[] =
    L"SYSTEM\\CurrentControlSet\\Control\\Cryptography\\Configuration\\Local\\Default\\00010001\\KEY_STORAGE";
constexpr wchar_t kInterfaceSubkey[] = L"\\UM\\00010001";
constexpr wchar_t kImageName[] = L"KestalKeyVaultKSP.dll";
constexpr wchar_t kKeyStorage[] = L"KEY_STORAGE";

std::wstring ProviderKey(const wchar_t *pszSuffix) { return kProvidersKey + std::wstring(KSP_PROVIDER_NAME) + pszSuffix; }

// A REG_MULTI_SZ as a list; empty when absent or of another type.
std::vector<std::wstring> ReadMultiString(const wchar_t *pszKey, const wchar_t *pszValue)
{
    std::vector<std::wstring> items;
    DWORD cb = 0;
    DWORD type = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, pszKey, pszValue, RRF_RT_REG_MULTI_SZ, &type, nullptr, &cb) != ERROR_SUCCESS)
        return items;
    std::vector<wchar_t> buffer(cb / sizeof(wchar_t) + 2, L'\0');
    cb = static_cast<DWORD>((buffer.size() - 2) * sizeof(wchar_t));
    if (RegGetValueW(HKEY_LOCAL_MACHINE, pszKey, pszValue, RRF_RT_REG_MULTI_SZ, &type, buffer.data(), &cb) !=
        ERROR_SUCCESS)
        return items;
    for (const wchar_t *p = buffer.data(); *p; p += wcslen(p) + 1)
        items.emplace_back(p);
    return items;
}

LSTATUS WriteMultiString(HKEY hKey, const wchar_t *pszValue, const std::vector<std::wstring> &items)
{
    std::wstring block;
    for (const std::wstring &item : items)
        block += item + L'\0';
    block += L'\0';
    return RegSetValueExW(hKey, pszValue, 0, REG_MULTI_SZ, reinterpret_cast<const BYTE *>(block.data()),
                          static_cast<DWORD>(block.size() * sizeof(wchar_t)));
}

LSTATUS CreateKey(const std::wstring &path, RegKeyOwner *pKey)
{
    return RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_QUERY_VALUE | KEY_SET_VALUE, nullptr,
                           &pKey->h, nullptr);
}

// The layout the BCrypt registration functions write, for where they do not.
LSTATUS WriteRegistration(const std::wstring &image)
{
    RegKeyOwner um, iface, order;
    LSTATUS rc = CreateKey(ProviderKey(L"\\UM"), &um);
    if (rc == ERROR_SUCCESS)
        rc = RegSetValueExW(um.h, L"Image", 0, REG_SZ, reinterpret_cast<const BYTE *>(image.c_str()),
                            static_cast<DWORD>((image.size() + 1) * sizeof(wchar_t)));
    if (rc == ERROR_SUCCESS)
        rc = CreateKey(ProviderKey(kInterfaceSubkey), &iface);
    if (rc == ERROR_SUCCESS)
        rc = WriteMultiString(iface.h, L"Functions", {kKeyStorage});
    if (rc == ERROR_SUCCESS)
        rc = CreateKey(kKeyStorageOrderKey, &order);
    if (rc != ERROR_SUCCESS)
        return rc;
    // Lowest priority: appended once, after every provider already there.
    std::vector<std::wstring> providers = ReadMultiString(kKeyStorageOrderKey, L"Providers");
    for (const std::wstring &name : providers)
        if (name == KSP_PROVIDER_NAME)
            return ERROR_SUCCESS;
    providers.emplace_back(KSP_PROVIDER_NAME);
    return WriteMultiString(order.h, L"Providers", providers);
}

LSTATUS RemoveRegistration()
{
    std::vector<std::wstring> providers = ReadMultiString(kKeyStorageOrderKey, L"Providers");
    std::vector<std::wstring> others;
    for (const std::wstring &name : providers)
        if (name != KSP_PROVIDER_NAME)
            others.push_back(name);
    if (others.size() != providers.size()) {
        RegKeyOwner order;
        LSTATUS rc = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKeyStorageOrderKey, 0, KEY_SET_VALUE, &order.h);
        if (rc == ERROR_SUCCESS)
            rc = WriteMultiString(order.h, L"Providers", others);
        if (rc != ERROR_SUCCESS)
            return rc;
    }
    LSTATUS rc = RegDeleteTreeW(HKEY_LOCAL_MACHINE, ProviderKey(L"").c_str());
    return rc == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : rc;
}

// The BCrypt registration functions, looked up at run time: not every SDK declares them.
using RegisterProviderFn = NTSTATUS(WINAPI *)(LPCWSTR, ULONG, PCRYPT_PROVIDER_REG);
using AddContextFunctionProviderFn = NTSTATUS(WINAPI *)(ULONG, LPCWSTR, ULONG, LPCWSTR, LPCWSTR, ULONG);
using RemoveContextFunctionProviderFn = NTSTATUS(WINAPI *)(ULONG, LPCWSTR, ULONG, LPCWSTR, LPCWSTR);
using UnregisterProviderFn = NTSTATUS(WINAPI *)(LPCWSTR);

template <typename Fn> Fn BcryptFunction(const char *pszName)
{
    HMODULE hBcrypt = GetModuleHandleW(L"bcrypt.dll");
    if (!hBcrypt)
        hBcrypt = LoadLibraryW(L"bcrypt.dll");
    return hBcrypt ? reinterpret_cast<Fn>(reinterpret_cast<void *>(GetProcAddress(hBcrypt, pszName))) : nullptr;
}

// Wine's registration functions are stubs; there is no point in calling them.
bool IsWine()
{
    HMODULE hNtdll = GetModuleHandleW(L"ntdll.dll");
    return hNtdll && GetProcAddress(hNtdll, "wine_get_version");
}

void RegisterWithBcrypt(const std::wstring &image)
{
    auto pfnRegister = BcryptFunction<RegisterProviderFn>("BCryptRegisterProvider");
    auto pfnAdd = BcryptFunction<AddContextFunctionProviderFn>("BCryptAddContextFunctionProvider");
    if (!pfnRegister || !pfnAdd)
        return;
    PWSTR functions[] = {const_cast<PWSTR>(kKeyStorage)};
    CRYPT_INTERFACE_REG iface = {NCRYPT_KEY_STORAGE_INTERFACE, CRYPT_LOCAL, 1, functions};
    PCRYPT_INTERFACE_REG interfaces[] = {&iface};
    CRYPT_IMAGE_REG um = {const_cast<PWSTR>(image.c_str()), 1, interfaces};
    CRYPT_PROVIDER_REG reg = {0, nullptr, &um, nullptr};
    NTSTATUS status = pfnRegister(KSP_PROVIDER_NAME, CRYPT_OVERWRITE, &reg);
    if (status != 0)
        Err(L"BCryptRegisterProvider answered 0x%08lX.\n", static_cast<unsigned long>(status));
    KSPADM_REGISTRATION now;
    ReadRegistration(&now);
    if (now.position == 0) {
        status = pfnAdd(CRYPT_LOCAL, nullptr, NCRYPT_KEY_STORAGE_INTERFACE, NCRYPT_KEY_STORAGE_ALGORITHM,
                        KSP_PROVIDER_NAME, CRYPT_PRIORITY_BOTTOM);
        if (status != 0)
            Err(L"BCryptAddContextFunctionProvider answered 0x%08lX.\n", static_cast<unsigned long>(status));
    }
}

void UnregisterWithBcrypt()
{
    auto pfnRemove = BcryptFunction<RemoveContextFunctionProviderFn>("BCryptRemoveContextFunctionProvider");
    auto pfnUnregister = BcryptFunction<UnregisterProviderFn>("BCryptUnregisterProvider");
    if (pfnRemove)
        pfnRemove(CRYPT_LOCAL, nullptr, NCRYPT_KEY_STORAGE_INTERFACE, NCRYPT_KEY_STORAGE_ALGORITHM, KSP_PROVIDER_NAME);
    if (pfnUnregister)
        pfnUnregister(KSP_PROVIDER_NAME);
}

void ExplainRegistryFailure(LSTATUS rc)
{
    if (rc == ERROR_ACCESS_DENIED)
        Err(L"Access to HKEY_LOCAL_MACHINE\\SYSTEM was denied: run this from an elevated (Administrator) prompt.\n");
    else
        Err(L"The registry refused the change (error %ld).\n", static_cast<long>(rc));
}

// The image to register: the bare name (System32) by default, or the full path of --dll.
// Prints why and returns 0 when that file is not a loadable provider.
int ChooseImage(const KSPADM_ARGS *pArgs, std::wstring *pImage)
{
    std::wstring path = ImagePath(kImageName);
    *pImage = kImageName;
    if (!pArgs->dllPath.empty()) {
        wchar_t szFull[MAX_PATH];
        DWORD cch = GetFullPathNameW(pArgs->dllPath.c_str(), MAX_PATH, szFull, nullptr);
        if (cch == 0 || cch >= MAX_PATH) {
            Err(L"Cannot use the path \"%ls\".\n", pArgs->dllPath.c_str());
            return 0;
        }
        path = *pImage = szFull;
    }
    if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
        Err(L"%ls does not exist. Install the MSI, or give the DLL's place: kestalksp register --dll PATH\n",
            path.c_str());
        return 0;
    }
    KSPADM_PROVIDER provider;
    return LoadProvider(path.c_str(), FALSE, &provider);
}

} // namespace

void ReadRegistration(KSPADM_REGISTRATION *pReg)
{
    *pReg = KSPADM_REGISTRATION{};
    RegKeyOwner um;
    pReg->fProviderKey =
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, ProviderKey(L"\\UM").c_str(), 0, KEY_QUERY_VALUE, &um.h) == ERROR_SUCCESS;
    wchar_t szImage[MAX_PATH] = L"";
    DWORD cb = sizeof(szImage);
    if (pReg->fProviderKey &&
        RegGetValueW(um.h, nullptr, L"Image", RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, szImage,
                     &cb) == ERROR_SUCCESS)
        pReg->image = szImage;
    for (const std::wstring &function : ReadMultiString(ProviderKey(kInterfaceSubkey).c_str(), L"Functions"))
        if (function == kKeyStorage)
            pReg->fKeyStorage = TRUE;
    pReg->order = ReadMultiString(kKeyStorageOrderKey, L"Providers");
    for (size_t i = 0; i < pReg->order.size(); ++i)
        if (pReg->order[i] == KSP_PROVIDER_NAME && pReg->position == 0)
            pReg->position = i + 1;
}

BOOL IsRegistered(const KSPADM_REGISTRATION *pReg)
{
    return pReg->fProviderKey && !pReg->image.empty() && pReg->fKeyStorage && pReg->position != 0;
}

std::wstring ImagePath(const std::wstring &image)
{
    if (image.find_first_of(L"\\/:") != std::wstring::npos)
        return image;
    wchar_t szSystem[MAX_PATH];
    UINT cch = GetSystemDirectoryW(szSystem, MAX_PATH);
    if (cch == 0 || cch >= MAX_PATH)
        return image;
    return std::wstring(szSystem) + L"\\" + image;
}

std::wstring FileVersion(const std::wstring &path)
{
    DWORD dwHandle = 0;
    DWORD cb = GetFileVersionInfoSizeW(path.c_str(), &dwHandle);
    if (cb == 0)
        return L"";
    std::vector<BYTE> info(cb);
    VS_FIXEDFILEINFO *pFixed = nullptr;
    UINT cbFixed = 0;
    if (!GetFileVersionInfoW(path.c_str(), 0, cb, info.data()) ||
        !VerQueryValueW(info.data(), L"\\", reinterpret_cast<void **>(&pFixed), &cbFixed) || !pFixed ||
        cbFixed < sizeof(*pFixed))
        return L"";
    wchar_t szVersion[48];
    _snwprintf_s(szVersion, ARRAYSIZE(szVersion), _TRUNCATE, L"%u.%u.%u.%u", HIWORD(pFixed->dwFileVersionMS),
                 LOWORD(pFixed->dwFileVersionMS), HIWORD(pFixed->dwFileVersionLS), LOWORD(pFixed->dwFileVersionLS));
    return szVersion;
}

void PrintRegistration(const KSPADM_REGISTRATION *pReg)
{
    if (!pReg->fProviderKey && pReg->position == 0) {
        Out(L"Provider \"%ls\": not registered.\n", KSP_PROVIDER_NAME);
        return;
    }
    Out(L"Provider \"%ls\": %ls\n", KSP_PROVIDER_NAME,
        IsRegistered(pReg) ? L"registered" : L"registration incomplete (run: kestalksp register)");
    if (!pReg->image.empty()) {
        std::wstring path = ImagePath(pReg->image);
        bool fExists = GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
        std::wstring version = fExists ? FileVersion(path) : L"";
        Out(L"  Image:     %ls\n  DLL:       %ls (%ls)\n", pReg->image.c_str(), path.c_str(),
            !fExists ? L"missing" : version.empty() ? L"no version" : (L"version " + version).c_str());
    } else {
        Out(L"  Image:     (none)\n");
    }
    Out(L"  Interface: %ls\n", pReg->fKeyStorage ? kKeyStorage : L"(KEY_STORAGE missing)");
    if (pReg->position)
        Out(L"  Order:     %u of %u key storage providers\n", static_cast<unsigned>(pReg->position),
            static_cast<unsigned>(pReg->order.size()));
    else
        Out(L"  Order:     not in the list of key storage providers\n");
}

int CmdRegister(const KSPADM_ARGS *pArgs)
{
    std::wstring image;
    if (!ChooseImage(pArgs, &image))
        return KSPADM_FAILED;
    if (!IsWine())
        RegisterWithBcrypt(image);
    KSPADM_REGISTRATION reg;
    ReadRegistration(&reg);
    if (!IsRegistered(&reg) || reg.image != image) {
        LSTATUS rc = WriteRegistration(image);
        if (rc != ERROR_SUCCESS) {
            ExplainRegistryFailure(rc);
            return KSPADM_FAILED;
        }
        ReadRegistration(&reg);
    }
    PrintRegistration(&reg);
    if (!IsRegistered(&reg) || reg.image != image) {
        Err(L"The registration did not take: the registry does not show it.\n");
        return KSPADM_FAILED;
    }
    Out(L"Next: kestalksp config set KeyVault <vault name>, then kestalksp set-secret (or use a managed identity).\n");
    return KSPADM_OK;
}

int CmdUnregister(const KSPADM_ARGS *)
{
    if (!IsWine())
        UnregisterWithBcrypt();
    KSPADM_REGISTRATION reg;
    ReadRegistration(&reg);
    if (reg.fProviderKey || reg.position) {
        LSTATUS rc = RemoveRegistration();
        if (rc != ERROR_SUCCESS) {
            ExplainRegistryFailure(rc);
            return KSPADM_FAILED;
        }
        ReadRegistration(&reg);
    }
    PrintRegistration(&reg);
    if (reg.fProviderKey || reg.position) {
        Err(L"The registration is still there.\n");
        return KSPADM_FAILED;
    }
    Out(L"The settings under Software\\Kestal\\KestalKeyVaultKSP are kept.\n");
    return KSPADM_OK;
}
