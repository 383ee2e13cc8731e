// The names the product is known by: to CNG, and in the registry.
#pragma once

#include <windows.h>

#define KSP_PROVIDER_NAME L"Kestal Key Vault Key Storage Provider"

// Where every setting lives, under HKEY_LOCAL_MACHINE or HKEY_CURRENT_USER.
inline constexpr WCHAR KSP_SETTINGS_KEY[] = L"Software\\Kestal\\KestalKeyVaultKSP";
