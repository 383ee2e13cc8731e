// The names the product is known by: to CNG, and in the registry.
#pragma once

#include <windows.h>

#define KSP_PROVIDER_NAME L"Kestal Key Vault Key Storage Provider"

// Where every setting lives, under HKEY_LOCAL_MACHINE or HKEY_CURRENT_USER.
inline constexpr WCHAR KSP_SETTINGS_KEY[] = L"Software\\Kestal\\KestalKeyVaultKSP";
// Every access goes to the registry's 64-bit view, where administrators and the installer keep
// the settings: the 32-bit DLL loaded by WOW64 callers would otherwise be sent to WOW6432Node
// under HKEY_LOCAL_MACHINE. A 64-bit process, and HKEY_CURRENT_USER, see the same key either way.
inline constexpr REGSAM KSP_SETTINGS_VIEW = KEY_WOW64_64KEY;         // RegOpenKeyExW access
inline constexpr DWORD KSP_SETTINGS_RRF_VIEW = RRF_SUBKEY_WOW6464KEY; // RegGetValueW flags
