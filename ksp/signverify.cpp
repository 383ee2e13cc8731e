// Signing and verification.
// Not built yet: each entry answers NTE_NOT_SUPPORTED until its operation lands.
#include "ksp/ksp.h"

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPSignHash(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, VOID *, PBYTE, DWORD, PBYTE, DWORD, DWORD *, DWORD)
{
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPVerifySignature(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, VOID *, PBYTE, DWORD, PBYTE, DWORD, DWORD)
{
    return NTE_NOT_SUPPORTED;
}
