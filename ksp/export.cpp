// Public-key export.
// Not built yet: each entry answers NTE_NOT_SUPPORTED until its operation lands.
#include "ksp/ksp.h"

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPExportKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE, NCRYPT_KEY_HANDLE, LPCWSTR, NCryptBufferDesc *, PBYTE, DWORD, DWORD *, DWORD)
{
    return NTE_NOT_SUPPORTED;
}
