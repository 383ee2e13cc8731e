// Creating, finalizing, deleting and freeing keys.
// Not built yet: each entry answers NTE_NOT_SUPPORTED until its operation lands.
#include "ksp/ksp.h"

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPCreatePersistedKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE *, LPCWSTR, LPCWSTR, DWORD, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPFinalizeKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPDeleteKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE)
{
    return NTE_NOT_SUPPORTED;
}
