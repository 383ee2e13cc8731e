// Opening and enumerating keys.
// Not built yet: each entry answers NTE_NOT_SUPPORTED until its operation lands.
#include "ksp/ksp.h"

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPOpenKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE *, LPCWSTR, DWORD, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPIsAlgSupported(NCRYPT_PROV_HANDLE, LPCWSTR, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPEnumAlgorithms(NCRYPT_PROV_HANDLE, DWORD, DWORD *, NCryptAlgorithmName **, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPEnumKeys(NCRYPT_PROV_HANDLE, LPCWSTR, NCryptKeyName **, PVOID *, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeBuffer(PVOID)
{
    return NTE_NOT_SUPPORTED;
}
