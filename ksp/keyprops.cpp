// Key properties. The built-in ones are answered from the key object's fields; a property set
// with NCRYPT_PERSIST_FLAG or NCRYPT_PERSIST_ONLY_FLAG is also kept as a node of the key's
// PropertyList, readable with NCRYPT_PERSIST_ONLY_FLAG. Setting "SmartCardKeyCertificate" arms
// the publication of the key's store certificate that FreeKey performs.
//
// The semaphore is released only after a wait that succeeded. Giving back a count that was never
// taken is not harmless: while another thread holds the lists it would let a third one in.
#include "ksp/ksp.h"
#include "kvclient/algorithms.h"

#include <string.h>
#include <wchar.h>

namespace {

constexpr DWORD kSemaphoreWaitMs = 60000;
constexpr DWORD kSecurityDescrFlags = 0x1F; // owner, group, DACL, SACL and label information

constexpr const WCHAR *kNumericNames[] = {
    L"Block Length",    L"Export Policy",          L"Impl Type",         L"Key Type", L"Key Usage", L"Length",
    L"Max Name Length", L"Security Descr Support", L"Enabled Use Count", L"Version"};
// "SmartCardPin" and "SmartCardSecurePin" are text too, but secrets: only their names are logged.
constexpr const WCHAR *kTextNames[] = {
    L"Algorithm Group", L"Algorithm Name", L"SmartCardAssociatedECDHKey", L"Name", L"SmartCardReader",
    L"Unique Name",     L"Use Context"};

template <size_t N> bool OneOf(LPCWSTR pszName, const WCHAR *const (&names)[N])
{
    for (const WCHAR *pszKnown : names)
        if (_wcsicmp(pszName, pszKnown) == 0)
            return true;
    return false;
}

// Waits for the property lists' lock; a failed wait is logged and the caller goes on without it.
bool LockLists(const WCHAR *pszMessage, LPCWSTR pszProperty)
{
    DWORD dwWait = WaitForSingleObject(g_hKspSemaphore, kSemaphoreWaitMs);
    if (dwWait == WAIT_OBJECT_0)
        return true;
    LogMsgNum(pszMessage, pszProperty, static_cast<int>(dwWait), KSP_LOG_ENTRY);
    return false;
}
void UnlockLists(bool fLocked)
{
    if (fLocked)
        ReleaseSemaphore(g_hKspSemaphore, 1, nullptr);
}

KSP_PROPERTY *FindProperty(KSP_KEY *pKey, LPCWSTR pszName)
{
    for (LIST_ENTRY *entry = pKey->PropertyList.Flink; entry != &pKey->PropertyList; entry = entry->Flink) {
        KSP_PROPERTY *pProperty = CONTAINING_RECORD(entry, KSP_PROPERTY, ListEntry);
        if (wcscmp(pProperty->szName, pszName) == 0)
            return pProperty;
    }
    return nullptr;
}

// The value of a built-in property, built in a scratch buffer; NTE_NOT_SUPPORTED for names the
// key does not answer.
struct BuiltinValue {
    union {
        DWORD dw;
        NCRYPT_SUPPORTED_LENGTHS lengths;
        SECURITY_DESCRIPTOR sd;
        NCRYPT_UI_POLICY ui;
        HWND hWnd;
    } scratch{};
    const void *pv = &scratch;
    DWORD cb = 0;
};

SECURITY_STATUS ReadBuiltin(const KSP_KEY *pKey, LPCWSTR pszName, BuiltinValue *pValue)
{
    auto text = [&](const WCHAR *psz) {
        pValue->pv = psz;
        pValue->cb = static_cast<DWORD>((wcslen(psz) + 1) * sizeof(WCHAR));
        return ERROR_SUCCESS;
    };
    auto dword = [&](DWORD dw) {
        pValue->scratch.dw = dw;
        pValue->cb = sizeof(DWORD);
        return ERROR_SUCCESS;
    };
    if (wcscmp(pszName, NCRYPT_NAME_PROPERTY) == 0 || wcscmp(pszName, NCRYPT_UNIQUE_NAME_PROPERTY) == 0)
        return pKey->pszKeyName ? text(pKey->pszKeyName) : NTE_NOT_SUPPORTED;
    if (wcscmp(pszName, NCRYPT_ALGORITHM_PROPERTY) == 0)
        return text(pKey->szAlgorithm);
    if (wcscmp(pszName, NCRYPT_ALGORITHM_GROUP_PROPERTY) == 0)
        // Curve keys answer "RSA" too: programs that picked their padding by this property when
        // the provider was introduced keep working. KeyProps tests pin the value.
        return text(L"RSA");
    if (wcscmp(pszName, NCRYPT_BLOCK_LENGTH_PROPERTY) == 0)
        return dword((pKey->dwKeyBitLength + 7) / 8);
    if (wcscmp(pszName, NCRYPT_EXPORT_POLICY_PROPERTY) == 0)
        return dword(pKey->dwExportPolicy);
    if (wcscmp(pszName, NCRYPT_KEY_USAGE_PROPERTY) == 0)
        return dword(pKey->dwKeyUsagePolicy);
    if (wcscmp(pszName, NCRYPT_KEY_TYPE_PROPERTY) == 0)
        return dword(0); // machine keys are not reported as such
    if (wcscmp(pszName, NCRYPT_LENGTH_PROPERTY) == 0)
        return dword(pKey->dwKeyBitLength);
    if (wcscmp(pszName, NCRYPT_LENGTHS_PROPERTY) == 0) {
        // RSA by its exact name; a curve by the size its name holds.
        const KVC_ALGORITHM *alg = wcscmp(pKey->szAlgorithm, L"RSA") == 0
                                       ? KVCAlgorithmByName(L"RSA")
                                       : KVCAlgorithmBySizeIn(pKey->szAlgorithm, FALSE);
        if (!alg)
            return NTE_NOT_SUPPORTED;
        pValue->scratch.lengths = {alg->dwMinBits, alg->dwMaxBits, alg->dwIncrementBits, alg->dwDefaultBits};
        pValue->cb = sizeof(pValue->scratch.lengths);
        return ERROR_SUCCESS;
    }
    if (wcscmp(pszName, NCRYPT_SECURITY_DESCR_PROPERTY) == 0) {
        // An empty descriptor, not the one set on the key: the key's access is the vault's.
        InitializeSecurityDescriptor(&pValue->scratch.sd, SECURITY_DESCRIPTOR_REVISION);
        pValue->cb = sizeof(SECURITY_DESCRIPTOR);
        return ERROR_SUCCESS;
    }
    if (wcscmp(pszName, NCRYPT_USE_CONTEXT_PROPERTY) == 0)
        return text(pKey->pszUseContext ? pKey->pszUseContext : L"");
    if (wcscmp(pszName, NCRYPT_UI_POLICY_PROPERTY) == 0) {
        pValue->scratch.ui = {1, 0, nullptr, nullptr, nullptr};
        pValue->cb = sizeof(NCRYPT_UI_POLICY);
        return ERROR_SUCCESS;
    }
    if (wcscmp(pszName, NCRYPT_WINDOW_HANDLE_PROPERTY) == 0) {
        pValue->scratch.hWnd = pKey->hWnd;
        pValue->cb = sizeof(HWND);
        return ERROR_SUCCESS;
    }
    return NTE_NOT_SUPPORTED;
}

} // namespace

void KspLogPropertyValue(const WCHAR *pszEntry, LPCWSTR pszName, const BYTE *pbInput, DWORD cbInput)
{
    if (!pszName)
        return;
    if (OneOf(pszName, kNumericNames)) {
        DWORD dw = 0xFFFFFFFF;
        if (pbInput && cbInput >= sizeof(DWORD))
            memcpy(&dw, pbInput, sizeof(DWORD));
        LogMsgNum(pszEntry, pszName, static_cast<int>(dw), KSP_LOG_TRACE);
    } else if (OneOf(pszName, kTextNames)) {
        // The value need not be terminated inside cbInput.
        WCHAR szText[256] = L"(NULL)";
        if (pbInput) {
            size_t cch = wcsnlen(reinterpret_cast<const WCHAR *>(pbInput), cbInput / sizeof(WCHAR));
            cch = cch < ARRAYSIZE(szText) - 1 ? cch : ARRAYSIZE(szText) - 1;
            memcpy(szText, pbInput, cch * sizeof(WCHAR));
            szText[cch] = 0;
        }
        LogMsg3(pszEntry, pszName, szText, KSP_LOG_TRACE);
    } else {
        LogMsg2(pszEntry, pszName, KSP_LOG_TRACE);
    }
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                                  LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                                                  DWORD *pcbResult, DWORD dwFlags)
{
    LogMsgNum(L"KestalKeyVaultKSPGetKeyProperty", pszProperty, static_cast<int>(dwFlags), KSP_LOG_ENTRY);
    KSP_KEY *pKey = KspKeyFromHandle(hKey);
    if (!KspProviderFromHandle(hProvider) || !pKey)
        return KspFail(L"KestalKeyVaultKSPGetKeyProperty", NTE_INVALID_HANDLE);
    if (!pszProperty || KspPropertyNameTooLong(pszProperty) || !pcbResult)
        return KspFail(L"KestalKeyVaultKSPGetKeyProperty", NTE_INVALID_PARAMETER);

    if (dwFlags & NCRYPT_PERSIST_ONLY_FLAG) {
        bool fLocked = LockLists(L"KestalKeyVaultKSPGetKeyProperty Failed to grab Semaphone - Result", pszProperty);
        SECURITY_STATUS status = ERROR_SUCCESS;
        if (KSP_PROPERTY *pProperty = FindProperty(pKey, pszProperty)) {
            *pcbResult = pProperty->cbPropertyData;
            if (pbOutput && cbOutput < pProperty->cbPropertyData)
                status = NTE_BUFFER_TOO_SMALL;
            else if (pbOutput)
                memcpy(pbOutput, KspPropertyData(pProperty), pProperty->cbPropertyData);
        } else {
            status = NTE_NOT_FOUND;
        }
        UnlockLists(fLocked);
        return status == ERROR_SUCCESS ? status : KspFail(L"KestalKeyVaultKSPGetKeyProperty", status);
    }

    // "Use Context" may be replaced by another thread: it is read and copied under its lock.
    SrwShared lock(&pKey->useContextLock);
    BuiltinValue value;
    SECURITY_STATUS status = ReadBuiltin(pKey, pszProperty, &value);
    if (status != ERROR_SUCCESS) {
        // Asking whether a key carries a certificate is routine; the answer is no, quietly.
        if (wcscmp(pszProperty, NCRYPT_CERTIFICATE_PROPERTY) == 0)
            return status;
        return KspFail(L"KestalKeyVaultKSPGetKeyProperty", status);
    }
    *pcbResult = value.cb;
    if (!pbOutput)
        return ERROR_SUCCESS;
    if (cbOutput < value.cb)
        return KspFail(L"KestalKeyVaultKSPGetKeyProperty", NTE_BUFFER_TOO_SMALL);
    memcpy(pbOutput, value.pv, value.cb);
    if (value.pv == &value.scratch && value.cb == sizeof(DWORD))
        LogMsgNum(L"KestalKeyVaultKSPGetKeyProperty", pszProperty, static_cast<int>(value.scratch.dw), KSP_LOG_TRACE);
    else if (value.pv != &value.scratch)
        LogMsg3(L"KestalKeyVaultKSPGetKeyProperty", pszProperty, static_cast<const WCHAR *>(value.pv), KSP_LOG_TRACE);
    else
        LogMsg2(L"KestalKeyVaultKSPGetKeyProperty", pszProperty, KSP_LOG_TRACE);
    return ERROR_SUCCESS;
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                                  LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput,
                                                                  DWORD dwFlags)
{
    LogMsg2(L"KestalKeyVaultKSPSetKeyProperty", pszProperty, KSP_LOG_ENTRY);
    KspLogPropertyValue(L"KestalKeyVaultKSPSetKeyProperty", pszProperty, pbInput, cbInput);
    KSP_KEY *pKey = KspKeyFromHandle(hKey);
    if (!KspProviderFromHandle(hProvider) || !pKey)
        return KspFail(L"KestalKeyVaultKSPSetKeyProperty", NTE_INVALID_HANDLE);
    if (!pszProperty || KspPropertyNameTooLong(pszProperty) || !pbInput)
        return KspFail(L"KestalKeyVaultKSPSetKeyProperty", NTE_INVALID_PARAMETER);

    if (_wcsicmp(pszProperty, NCRYPT_CERTIFICATE_PROPERTY) == 0) {
        LogMsg(L"KestalKeyVaultKSPSetKeyProperty SmartCardKeyCertificate Set publishCert", KSP_LOG_STEP);
        pKey->fPublishCert = 1;
    }

    dwFlags &= ~NCRYPT_SILENT_FLAG;
    const bool fFlagsOk = wcscmp(pszProperty, NCRYPT_SECURITY_DESCR_PROPERTY) == 0
                              ? dwFlags != 0 && !(dwFlags & ~(kSecurityDescrFlags | NCRYPT_PERSIST_FLAG))
                              : !(dwFlags & ~(NCRYPT_PERSIST_FLAG | NCRYPT_PERSIST_ONLY_FLAG));
    if (!fFlagsOk)
        return KspFail(L"KestalKeyVaultKSPSetKeyProperty", NTE_BAD_FLAGS);

    if (!(dwFlags & NCRYPT_PERSIST_ONLY_FLAG)) {
        SECURITY_STATUS status = SetBuildinKeyProperty(pKey, pszProperty, pbInput, cbInput, &dwFlags);
        if (status != ERROR_SUCCESS)
            return KspFail(L"KestalKeyVaultKSPSetKeyProperty", status);
        if (!(dwFlags & NCRYPT_PERSIST_FLAG))
            return ERROR_SUCCESS;
    }

    // The node is built before the lock is taken: a failure leaves an earlier value in place.
    KSP_PROPERTY *pNew = nullptr;
    SECURITY_STATUS status = CreateNewProperty(pszProperty, pbInput, cbInput, dwFlags, &pNew);
    if (status != ERROR_SUCCESS)
        return KspFail(L"KestalKeyVaultKSPSetKeyProperty", status);
    bool fLocked = LockLists(L"KestalKeyVaultKSPSetKeyProperty Failed to grab Semaphone - Result", pszProperty);
    if (KSP_PROPERTY *pOld = FindProperty(pKey, pszProperty)) {
        pOld->ListEntry.Blink->Flink = pOld->ListEntry.Flink;
        pOld->ListEntry.Flink->Blink = pOld->ListEntry.Blink;
        KspFreeProperty(pOld);
    }
    LIST_ENTRY *tail = pKey->PropertyList.Blink;
    pNew->ListEntry.Flink = &pKey->PropertyList;
    pNew->ListEntry.Blink = tail;
    tail->Flink = &pNew->ListEntry;
    pKey->PropertyList.Blink = &pNew->ListEntry;
    UnlockLists(fLocked);
    return ERROR_SUCCESS;
}
