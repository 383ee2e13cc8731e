// Opening and enumerating keys: a key handle for a vault key by name, the vault's keys one at a
// time, the algorithms this provider knows, and the release of what the enumerations handed out.
#include "ksp/ksp.h"
#include "kvclient/algorithms.h"

#include <string.h>
#include <wchar.h>

namespace {

// What EnumKeys keeps between calls: one process-heap block, zero-filled and listed in
// g_EnumBufferList, holding this header, then dwCount name pointers, then dwCount name slots.
struct KSP_ENUM_STATE {
    DWORD dwIndex;     // the next name to return
    DWORD dwCount;     // how many names there are
    LPWSTR *ppszNames; // the pointer array right behind this header
};
constexpr size_t kEnumNameChars = 128; // a 256-byte slot per name

// The record EnumKeys hands out: its name points into the enumeration state, its algorithm
// name into the same block.
struct KSP_KEY_NAME_BLOCK {
    NCryptKeyName keyName;
    WCHAR szAlgid[KSP_ALGORITHM_CHARS];
};

// The status returned when the vault could not list or read the keys being enumerated.
constexpr SECURITY_STATUS kEnumVaultFailed = static_cast<SECURITY_STATUS>(0x801B8002);



bool FlagsAllowed(DWORD dwFlags, DWORD dwAllowed) { return (dwFlags & ~(dwAllowed | NCRYPT_SILENT_FLAG)) == 0; }

// The CNG algorithm of a vault key. Curve keys whose record names no algorithm are taken for
// ECDH, the use that allows the most; an unknown curve gives no name at all.
void AlgorithmOfKey(const KVKey *pKey, WCHAR (&szAlgorithm)[KSP_ALGORITHM_CHARS])
{
    szAlgorithm[0] = 0;
    if (!pKey->isEC) {
        wcscpy_s(szAlgorithm, L"RSA");
    } else if (pKey->AlgID[0]) {
        wcsncpy_s(szAlgorithm, pKey->AlgID, _TRUNCATE);
    } else if (const KVC_ALGORITHM *alg = KVCAlgorithmByCurve(pKey->crv, TRUE)) {
        wcscpy_s(szAlgorithm, alg->pszName);
    }
}

// The key length in bits: the modulus for RSA, the curve coordinate for EC. A P-521 coordinate
// needs 66 bytes, but the curve is 521 bits long: that is what CNG reports for such keys and the
// only "Length" a P-521 key object accepts.
DWORD BitLengthOfKey(const KVKey *pKey)
{
    if (!pKey->isEC)
        return pKey->n_siz * 8;
    constexpr DWORD kP521CoordinateBytes = 66;
    return pKey->x_siz == kP521CoordinateBytes ? 521 : pKey->x_siz * 8;
}

// A slot holds the name, its terminator, then the algorithm the listing named (or nothing).
void KeepListedName(const WCHAR *pszListed, LPWSTR pszSlot)
{
    wcsncpy_s(pszSlot, kEnumNameChars, pszListed, _TRUNCATE);
    const size_t cchName = wcslen(pszSlot) + 1;
    wcsncpy_s(pszSlot + cchName, kEnumNameChars - cchName, KVCListedAlgorithm(pszListed), _TRUNCATE);
}

// The vault's key names in a fresh enumeration state; the vault client's copies are released.
SECURITY_STATUS NewEnumState(KVC *kvc, KSP_ENUM_STATE **ppState)
{
    WCHAR **ppNames = nullptr;
    DWORD cNames = 0;
    int listed = KVCGetKeys(kvc, &ppNames, &cNames);
    SECURITY_STATUS status = listed ? ERROR_SUCCESS : kEnumVaultFailed;
    KSP_ENUM_STATE *pState = nullptr;
    if (status == ERROR_SUCCESS) {
        SIZE_T cbState = sizeof(KSP_ENUM_STATE) + cNames * (sizeof(LPWSTR) + kEnumNameChars * sizeof(WCHAR));
        pState = static_cast<KSP_ENUM_STATE *>(KspAlloc(cbState));
        if (pState) {
            ZeroMemory(pState, cbState);
            pState->dwCount = cNames;
            pState->ppszNames = reinterpret_cast<LPWSTR *>(pState + 1);
            auto *pszSlots = reinterpret_cast<LPWSTR>(pState->ppszNames + cNames);
            for (DWORD i = 0; i < cNames; ++i) {
                pState->ppszNames[i] = pszSlots + i * kEnumNameChars;
                if (ppNames[i]) // the name, and its listed algorithm behind the name's terminator
                    KeepListedName(ppNames[i], pState->ppszNames[i]);
            }
        } else {
            LogMsg(L"KestalKeyVaultKSPEnumKeys HeapAlloc Failed", KSP_LOG_FAILURE);
            status = NTE_NO_MEMORY;
        }
    }
    for (DWORD i = 0; ppNames && i < cNames; ++i)
        free(ppNames[i]);
    free(ppNames);
    if (pState && !AddEnumBuffer(pState)) {
        KspFree(pState);
        pState = nullptr;
        status = NTE_NO_MEMORY;
    }
    *ppState = pState;
    return status;
}

} // namespace

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE *phKey,
                                                           LPCWSTR pszKeyName, DWORD, DWORD dwFlags)
{
    LogMsgNum(L"KestalKeyVaultKSPOpenKey", pszKeyName, static_cast<int>(dwFlags), KSP_LOG_ENTRY);
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    if (!provider)
        return KspFail(L"KestalKeyVaultKSPOpenKey Error", NTE_INVALID_HANDLE);
    // An empty name names no key: asked of the vault, it would read as the key listing.
    if (!phKey || !pszKeyName || !*pszKeyName)
        return KspFail(L"KestalKeyVaultKSPOpenKey Error", NTE_INVALID_PARAMETER);

    KSP_KEY *pKey = nullptr;
    DWORD dwMachineKey = dwFlags & NCRYPT_MACHINE_KEY_FLAG;
    SECURITY_STATUS status = CreateNewKeyObject(pszKeyName, L"", &pKey, dwMachineKey);
    if (status != ERROR_SUCCESS)
        return status;

    KVC *kvc = dwMachineKey ? provider->kvcMachine : provider->kvcUser;
    pKey->kvc = kvc;
    if (!kvc) {
        LogMsg(L"KestalKeyVaultKSPOpenKey pKey->kvc NULL ", KSP_LOG_WARNING);
        status = NTE_INVALID_PARAMETER;
    } else if (!KVCAuthenticate(kvc, nullptr)) {
        LogMsg(L"KestalKeyVaultKSPOpenKey Authenticate Failed ", KSP_LOG_FAILURE);
        status = SEC_E_LOGON_DENIED;
    } else {
        // Certificates reach the machine store once per provider handle; the flag goes up first,
        // in one step, so that of several threads opening keys at once exactly one syncs, and a
        // sync that fails is not retried on every open.
        if (dwMachineKey && kvc->fCertMode && InterlockedCompareExchange(&provider->fCertsSynced, 1, 0) == 0)
            KVCSyncCertsFromKVToMachine(kvc);
        if (!KVCGetKey(kvc, pszKeyName, &pKey->kvKey, 1)) {
            status = NTE_NOT_FOUND;
        } else if (!KVCKeyMaterialUsable(&pKey->kvKey)) {
            // A handle on it would sign, export and report lengths from nothing.
            LogMsg2(L"KestalKeyVaultKSPOpenKey Unusable Key Material", pszKeyName, KSP_LOG_FAILURE);
            status = NTE_BAD_KEY;
        }
    }
    if (status != ERROR_SUCCESS) {
        DeleteKeyObject(pKey);
        return KspFail(L"KestalKeyVaultKSPOpenKey Error", status);
    }

    AlgorithmOfKey(&pKey->kvKey, pKey->szAlgorithm);
    pKey->dwKeyBitLength = BitLengthOfKey(&pKey->kvKey);
    pKey->fFinished = 1;
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(pKey);
    return ERROR_SUCCESS;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPIsAlgSupported(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszAlgId,
                                                                  DWORD dwFlags)
{
    LogMsg2(L"KestalKeyVaultKSPIsAlgSupported", pszAlgId, KSP_LOG_ENTRY);
    if (!KspProviderFromHandle(hProvider))
        return KspFail(L"KestalKeyVaultKSPIsAlgSupported", NTE_INVALID_HANDLE);
    if (!pszAlgId)
        return KspFail(L"KestalKeyVaultKSPIsAlgSupported", NTE_INVALID_PARAMETER);
    if (!FlagsAllowed(dwFlags, 0))
        return KspFail(L"KestalKeyVaultKSPIsAlgSupported", NTE_BAD_FLAGS);
    if (KVCAlgorithmByName(pszAlgId))
        return ERROR_SUCCESS;
    LogMsg2(L"KestalKeyVaultKSPIsAlgSupported Not Supported", pszAlgId, KSP_LOG_FAILURE);
    return NTE_NOT_SUPPORTED;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPEnumAlgorithms(NCRYPT_PROV_HANDLE hProvider, DWORD dwAlgOperations,
                                                                  DWORD *pdwAlgCount, NCryptAlgorithmName **ppAlgList,
                                                                  DWORD dwFlags)
{
    LogMsgNum(L"KestalKeyVaultKSPEnumAlgorithms", L"dwAlgOperations", static_cast<int>(dwAlgOperations),
              KSP_LOG_ENTRY);
    if (!KspProviderFromHandle(hProvider))
        return KspFail(L"KestalKeyVaultKSPEnumAlgorithms", NTE_INVALID_HANDLE);
    if (!pdwAlgCount || !ppAlgList)
        return KspFail(L"KestalKeyVaultKSPEnumAlgorithms", NTE_INVALID_PARAMETER);
    if (!FlagsAllowed(dwFlags, 0))
        return KspFail(L"KestalKeyVaultKSPEnumAlgorithms", NTE_BAD_FLAGS);

    // Any operation asked for lists RSA; curves only for their own operation, and key agreement
    // only alongside signing or encryption.
    if (dwAlgOperations != 0 &&
        !(dwAlgOperations & (NCRYPT_SIGNATURE_OPERATION | NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION)))
        return KspFail(L"KestalKeyVaultKSPEnumAlgorithms", NTE_NOT_SUPPORTED);
    const KVC_ALGORITHM *chosen[ARRAYSIZE(KVC_ALGORITHMS)];
    size_t cChosen = 0;
    for (const KVC_ALGORITHM &alg : KVC_ALGORITHMS) {
        const DWORD dwCurveOperation = alg.fEcdh ? NCRYPT_SECRET_AGREEMENT_OPERATION : NCRYPT_SIGNATURE_OPERATION;
        if (dwAlgOperations == 0 || !alg.pszCurve || (dwAlgOperations & dwCurveOperation))
            chosen[cChosen++] = &alg;
    }

    // Room for every entry and every name, whatever was chosen; the unused rest stays 0xCC.
    SIZE_T cbBlock = ARRAYSIZE(KVC_ALGORITHMS) * sizeof(NCryptAlgorithmName);
    for (const KVC_ALGORITHM &alg : KVC_ALGORITHMS)
        cbBlock += (wcslen(alg.pszName) + 1) * sizeof(WCHAR);
    auto *pbBlock = static_cast<PBYTE>(KspAlloc(cbBlock));
    if (!pbBlock)
        return KspFail(L"KestalKeyVaultKSPEnumAlgorithms", NTE_NO_MEMORY);
    memset(pbBlock, 0xCC, cbBlock);
    auto *pList = reinterpret_cast<NCryptAlgorithmName *>(pbBlock);
    auto *pszNames = reinterpret_cast<LPWSTR>(pList + cChosen);
    for (size_t i = 0; i < cChosen; ++i) {
        size_t cch = wcslen(chosen[i]->pszName) + 1;
        memcpy(pszNames, chosen[i]->pszName, cch * sizeof(WCHAR));
        pList[i] = {pszNames, chosen[i]->dwInterface, chosen[i]->dwOperations, 0};
        pszNames += cch;
    }
    *pdwAlgCount = static_cast<DWORD>(cChosen);
    *ppAlgList = pList;
    return ERROR_SUCCESS;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR,
                                                            NCryptKeyName **ppKeyName, PVOID *ppEnumState,
                                                            DWORD dwFlags)
{
    LogMsg(L"KestalKeyVaultKSPEnumKeys", KSP_LOG_ENTRY);
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    if (!provider)
        return KspFail(L"KestalKeyVaultKSPEnumKeys", NTE_INVALID_HANDLE);
    if (!ppKeyName || !ppEnumState)
        return KspFail(L"KestalKeyVaultKSPEnumKeys", NTE_INVALID_PARAMETER);
    if (!FlagsAllowed(dwFlags, NCRYPT_MACHINE_KEY_FLAG))
        return KspFail(L"KestalKeyVaultKSPEnumKeys", NTE_BAD_FLAGS);

    DWORD dwMachineKey = dwFlags & NCRYPT_MACHINE_KEY_FLAG;
    if (dwMachineKey)
        LogMsg(L"KestalKeyVaultKSPEnumKeys NCRYPT_MACHINE_KEY_FLAG", KSP_LOG_TRACE);
    else
        LogMsg(L"KestalKeyVaultKSPEnumKeys NOT NCRYPT_MACHINE_KEY_FLAG", KSP_LOG_TRACE);
    KVC *kvc = dwMachineKey ? provider->kvcMachine : provider->kvcUser;
    if (!kvc)
        return KspFail(L"KestalKeyVaultKSPEnumKeys", NTE_INVALID_PARAMETER);
    if (!KVCAuthenticate(kvc, nullptr)) {
        LogMsg(L"KestalKeyVaultKSPEnumKeys Authenticate Failed", KSP_LOG_FAILURE);
        return SEC_E_LOGON_DENIED;
    }

    auto *pState = static_cast<KSP_ENUM_STATE *>(*ppEnumState);
    if (!pState) {
        SECURITY_STATUS status = NewEnumState(kvc, &pState);
        if (status != ERROR_SUCCESS)
            return KspFail(L"KestalKeyVaultKSPEnumKeys", status);
        // Handed out at once: the caller frees it even when there is nothing to enumerate.
        *ppEnumState = pState;
    } else if (!IsEnumBuffer(pState)) {
        return KspFail(L"KestalKeyVaultKSPEnumKeys", NTE_INVALID_PARAMETER);
    }
    if (pState->dwIndex >= pState->dwCount)
        return NTE_NO_MORE_ITEMS;

    // A key the provider made carries its algorithm in the listing's tags; any other is read.
    LPWSTR pszName = pState->ppszNames[pState->dwIndex];
    const WCHAR *pszListedAlgorithm = pszName + wcslen(pszName) + 1;
    WCHAR szAlgid[KSP_ALGORITHM_CHARS] = {};
    if (*pszListedAlgorithm) {
        wcsncpy_s(szAlgid, pszListedAlgorithm, _TRUNCATE);
    } else {
        KVKey record;
        const int read = KVCGetKey(kvc, pszName, &record, 0);
        if (read)
            AlgorithmOfKey(&record, szAlgid);
        KVCFreeKVKey(&record);
        if (!read)
            return KspFail(L"KestalKeyVaultKSPEnumKeys", kEnumVaultFailed);
    }
    auto *pBlock = static_cast<KSP_KEY_NAME_BLOCK *>(KspAlloc(sizeof(KSP_KEY_NAME_BLOCK)));
    if (!pBlock)
        return KspFail(L"KestalKeyVaultKSPEnumKeys", NTE_NO_MEMORY);
    ZeroMemory(pBlock, sizeof(*pBlock));
    wcscpy_s(pBlock->szAlgid, szAlgid);
    pBlock->keyName.pszName = pszName; // lives as long as the enumeration state
    pBlock->keyName.pszAlgid = pBlock->szAlgid;
    pBlock->keyName.dwLegacyKeySpec = 0;
    pBlock->keyName.dwFlags = dwMachineKey;
    if (!AddEnumBuffer(pBlock)) {
        KspFree(pBlock);
        return KspFail(L"KestalKeyVaultKSPEnumKeys", NTE_NO_MEMORY);
    }
    pState->dwIndex++;
    *ppKeyName = &pBlock->keyName;
    *ppEnumState = pState;
    return ERROR_SUCCESS;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPFreeBuffer(PVOID pvInput)
{
    LogMsg(L"KestalKeyVaultKSPFreeBuffer", KSP_LOG_ENTRY);
    if (!pvInput)
        return ERROR_SUCCESS;
    RemoveEnumBuffer(pvInput);
    KspFree(pvInput);
    return ERROR_SUCCESS;
}
