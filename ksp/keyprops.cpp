// Key properties.
// Not built yet: each entry answers NTE_NOT_SUPPORTED until its operation lands.
#include "ksp/ksp.h"

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPGetKeyProperty(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD *, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPSetKeyProperty(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD)
{
    return NTE_NOT_SUPPORTED;
}
