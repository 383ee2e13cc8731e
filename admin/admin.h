// kestalksp.exe, the administrator's tool: registers the provider with CNG, reads and writes
// its settings, stores the client secret as the provider keeps it, and checks that sign-in,
// the vault and signing work. Every command prints what to do next.
#pragma once

#include <windows.h>
#include "ksp/kspinterface.h"

#include <string>
#include <vector>

// Exit codes, the same for every command (docs/troubleshooting.md lists them).
enum KSPADM_EXIT {
    KSPADM_OK = 0,
    KSPADM_FAILED = 1, // the command could not do what was asked (registry refused, not registered, ...)
    KSPADM_USAGE = 2,  // unknown command, option or setting, or a value of the wrong type or range
    KSPADM_SIGNIN = 3, // Entra ID sign-in failed
    KSPADM_VAULT = 4,  // the vault did not answer or refused access
    KSPADM_NO_KEY = 5, // the key is not in the vault
};

// The command line after the command's name.
struct KSPADM_ARGS {
    std::vector<std::wstring> words; // positional arguments, in order
    BOOL fMachine = TRUE;            // --machine (the default) or --user
    BOOL fProbe = FALSE;             // --probe
    std::wstring dllPath;            // --dll PATH, empty when not given
};

// ---- Output: UTF-8 on standard output and standard error -------------------------------
void Out(const wchar_t *pszFormat, ...);
void Err(const wchar_t *pszFormat, ...);
// "NTE_NOT_FOUND (0x80090011)" and the like.
std::wstring StatusText(SECURITY_STATUS status);
const wchar_t *ScopeName(BOOL fMachine); // "machine" or "user"
const wchar_t *HiveName(BOOL fMachine);  // "HKEY_LOCAL_MACHINE" or "HKEY_CURRENT_USER"

// ---- Windows handles owned by the tool ----------------------------------------------------
struct RegKeyOwner {
    HKEY h = nullptr;
    RegKeyOwner() = default;
    RegKeyOwner(const RegKeyOwner &) = delete;
    RegKeyOwner &operator=(const RegKeyOwner &) = delete;
    ~RegKeyOwner()
    {
        if (h)
            RegCloseKey(h);
    }
};

// ---- Registration with CNG (registration.cpp) ---------------------------------------------
// What the registry says about this provider.
struct KSPADM_REGISTRATION {
    BOOL fProviderKey = FALSE;       // Providers\<name>\UM exists
    std::wstring image;              // its Image value
    BOOL fKeyStorage = FALSE;        // UM\00010001 lists the KEY_STORAGE function
    std::vector<std::wstring> order; // every key storage provider, in CNG's order
    size_t position = 0;             // 1-based place of this provider in order; 0 when absent
};
void ReadRegistration(KSPADM_REGISTRATION *pReg);
BOOL IsRegistered(const KSPADM_REGISTRATION *pReg);
// The file an image name stands for: a bare name lives in System32.
std::wstring ImagePath(const std::wstring &image);
// "1.0.0.0" from a file's VERSIONINFO, empty when it has none.
std::wstring FileVersion(const std::wstring &path);
// Prints the registration as read back from the registry.
void PrintRegistration(const KSPADM_REGISTRATION *pReg);
int CmdRegister(const KSPADM_ARGS *pArgs);
int CmdUnregister(const KSPADM_ARGS *pArgs);

// ---- Settings (settings.cpp) ----------------------------------------------------------------
// Prints one scope's settings as `config show` does, secrets masked.
void PrintSettings(BOOL fMachine);
// A REG_DWORD setting, or dwDefault when it is absent or of another type.
DWORD ReadDwordSetting(BOOL fMachine, const wchar_t *pszName, DWORD dwDefault);
// A REG_SZ setting, or "" when it is absent or of another type. Not for secrets: the copy is
// not wiped.
std::wstring ReadStringSetting(BOOL fMachine, const wchar_t *pszName);
// The length of a REG_SZ secret (0 when absent or of another type); the text read is wiped.
size_t SecretSettingLength(BOOL fMachine, const wchar_t *pszName);
int CmdConfig(const KSPADM_ARGS *pArgs);
int CmdSetSecret(const KSPADM_ARGS *pArgs);

// ---- Status and the probe (status.cpp) ----------------------------------------------------
int CmdStatus(const KSPADM_ARGS *pArgs);

// ---- Calls through the provider's function table (providercalls.cpp) -------------------------
// The provider DLL loaded as the CNG router loads it, with one provider handle open.
struct KSPADM_PROVIDER {
    HMODULE hModule = nullptr;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *pTable = nullptr;
    NCRYPT_PROV_HANDLE hProvider = 0;
    KSPADM_PROVIDER() = default;
    KSPADM_PROVIDER(const KSPADM_PROVIDER &) = delete;
    KSPADM_PROVIDER &operator=(const KSPADM_PROVIDER &) = delete;
    ~KSPADM_PROVIDER();
};
// Loads the DLL at pszPath and checks its function table (version 1.0, 26 entries). When
// fOpen, also opens a provider handle. Prints the reason and returns 0 on failure.
int LoadProvider(const wchar_t *pszPath, BOOL fOpen, KSPADM_PROVIDER *pProvider);
int CmdKeys(const KSPADM_ARGS *pArgs);
int CmdTest(const KSPADM_ARGS *pArgs);
int CmdSync(const KSPADM_ARGS *pArgs);
