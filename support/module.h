// The module's process-wide state: made when the DLL is attached to a process, released when it
// is detached. Everything here may be used from any thread.
#pragma once

#include <windows.h>

// Module attach and detach (DllMain calls these; tests that link the core call them directly).
void KspModuleAttach(void);
void KspModuleDetach(void);

// ReuseConnections (HKEY_LOCAL_MACHINE, read at attach): 1 keeps vault connections alive and
// shares them among all calls of the process; 0 (the default) makes a new connection per call.
extern DWORD g_ReuseConnections;

// The lock around every key's property list: created at attach, closed at detach.
extern HANDLE g_hKspSemaphore;

// Blocks handed to CNG by EnumKeys, listed until FreeBuffer: a circular doubly linked list
// whose head points at itself when empty. CNG callers enumerate and free from any thread, so
// the list is only read or changed under g_EnumBufferLock.
struct KSP_BUFFER_NODE {
    PVOID pBuffer;
    KSP_BUFFER_NODE *Flink;
    KSP_BUFFER_NODE *Blink;
};
extern KSP_BUFFER_NODE g_EnumBufferList;
extern SRWLOCK g_EnumBufferLock;
