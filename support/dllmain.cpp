// Module entry of KestalKeyVaultKSP.dll.
#include "support/log.h"
#include "support/module.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD dwReason, LPVOID)
{
    if (dwReason == DLL_PROCESS_ATTACH)
        KspModuleAttach();
    else if (dwReason == DLL_PROCESS_DETACH)
        KspModuleDetach();
    return TRUE;
}
