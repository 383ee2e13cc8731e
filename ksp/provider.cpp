// Provider object and provider properties.
// Not built yet: each entry answers NTE_NOT_SUPPORTED until its operation lands.
#include "ksp/ksp.h"

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPOpenProvider(NCRYPT_PROV_HANDLE *, LPCWSTR, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeProvider(NCRYPT_PROV_HANDLE)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPGetProviderProperty(NCRYPT_PROV_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD *, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPSetProviderProperty(NCRYPT_PROV_HANDLE, LPCWSTR, PBYTE, DWORD, DWORD)
{
    return NTE_NOT_SUPPORTED;
}
