// Key objects and their property lists: the record behind every key handle, the properties
// the key itself understands, the list of buffers handed out by EnumKeys, and the process-heap
// wrappers for memory that crosses the CNG boundary.
#include "ksp/ksp.h"
#include "kvclient/algorithms.h"

#include <wincrypt.h>
#include <dpapi.h>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

namespace {

constexpr DWORD kSemaphoreWaitMs = 60000;
constexpr size_t kMaxKeyNameBytes = 260; // 129 characters and the terminator
// cbLength stays 1000 for every reader of handles; the block is as large as the record needs.
constexpr SIZE_T kKeyBlockBytes = sizeof(KSP_KEY) > KSP_KEY_LENGTH ? sizeof(KSP_KEY) : KSP_KEY_LENGTH;
constexpr DWORD kExportBits = NCRYPT_ALLOW_EXPORT_FLAG | NCRYPT_ALLOW_PLAINTEXT_EXPORT_FLAG |
                              NCRYPT_ALLOW_ARCHIVING_FLAG | NCRYPT_ALLOW_PLAINTEXT_ARCHIVING_FLAG;

void InitList(LIST_ENTRY *head)
{
    head->Flink = head;
    head->Blink = head;
}

void Unlink(LIST_ENTRY *entry)
{
    entry->Blink->Flink = entry->Flink;
    entry->Flink->Blink = entry->Blink;
}

// Frees a process-heap field and clears it; the step is logged first so a crash names it.
template <typename T> void FreeField(const WCHAR *pszMessage, int level, T **ppField)
{
    LogMsg(pszMessage, level);
    if (*ppField)
        KspFree(*ppField);
    *ppField = nullptr;
}

SECURITY_STATUS Refuse(const WCHAR *pszName, const WCHAR *pszWhat, SECURITY_STATUS status)
{
    LogMsg3(L"SetBuildinKeyProperty", pszName, pszWhat, KSP_LOG_FAILURE);
    return status;
}

// The 32-bit value of a size-checked property that may only change before finalize.
SECURITY_STATUS ReadDwordBeforeFinalize(const KSP_KEY *pKey, LPCWSTR pszName, const BYTE *pbInput, DWORD cbInput,
                                        DWORD *pdwValue)
{
    if (cbInput != sizeof(DWORD))
        return Refuse(pszName, L"Bad Size", NTE_BAD_DATA);
    if (pKey->fFinished)
        return Refuse(pszName, L"Key Already Finalized", NTE_BAD_KEY_STATE);
    memcpy(pdwValue, pbInput, sizeof(DWORD));
    return ERROR_SUCCESS;
}

SECURITY_STATUS SetExportPolicy(KSP_KEY *pKey, DWORD dwPolicy)
{
    if (dwPolicy > 0xF)
        return Refuse(L"Export Policy", L"Unknown Flags", NTE_NOT_SUPPORTED);
    // Keys never leave the vault through this provider: whatever was asked, the key says 0.
    pKey->dwExportPolicy = 0;
    // Without a client the registry default applies: no export.
    DWORD dwOption = pKey->kvc ? pKey->kvc->dwExportable : 0;
    if (dwOption == 1)
        return ERROR_SUCCESS;
    if (dwOption != 0) {
        LogMsgNum(L"SetBuildinKeyProperty bad Exportable Value", L"ExportableOption", static_cast<int>(dwOption),
                  KSP_LOG_FAILURE);
        return NTE_NOT_SUPPORTED;
    }
    if (dwPolicy & kExportBits) {
        LogMsg(L"SetBuildinKeyProperty EXPORTABLE_KEYS_UNSUPPORTED", KSP_LOG_FAILURE);
        return NTE_NOT_SUPPORTED;
    }
    return ERROR_SUCCESS;
}

// The stored length stays even when refused: callers read back what was asked for.
SECURITY_STATUS SetLength(KSP_KEY *pKey, DWORD dwBits)
{
    pKey->dwKeyBitLength = dwBits;
    if (wcscmp(pKey->szAlgorithm, L"RSA") == 0) {
        if (dwBits < 2048 || dwBits > 4096 || dwBits % 8 != 0)
            return Refuse(L"Length", L"Not Supported", NTE_NOT_SUPPORTED);
        return ERROR_SUCCESS;
    }
    // A curve's size is part of its algorithm name and cannot be changed.
    if (const KVC_ALGORITHM *curve = KVCAlgorithmBySizeIn(pKey->szAlgorithm, FALSE))
        return dwBits == curve->dwDefaultBits ? ERROR_SUCCESS : Refuse(L"Length", L"Not Supported", NTE_NOT_SUPPORTED);
    return ERROR_SUCCESS;
}

// Whether the descriptor's parts lie within cb bytes, so that checking it reads nothing beyond
// the caller's buffer. A self-relative descriptor (what callers pass; an empty DACL makes one of
// 28 bytes) is its header and the SIDs and ACLs its offsets name; an absolute one holds pointers
// and is at least the whole structure.
bool DescriptorWithin(const BYTE *pb, DWORD cb)
{
    SECURITY_DESCRIPTOR_RELATIVE sd;
    if (cb < sizeof(sd))
        return false;
    memcpy(&sd, pb, sizeof(sd));
    if (!(sd.Control & SE_SELF_RELATIVE))
        return cb >= sizeof(SECURITY_DESCRIPTOR);
    constexpr DWORD kSidHeader = 8, kAclHeader = 8; // SID: up to its count of sub-authorities
    for (DWORD offset : {sd.Owner, sd.Group}) {
        if (offset && (offset > cb || cb - offset < kSidHeader ||
                       cb - offset < kSidHeader + 4u * pb[offset + 1])) // SubAuthorityCount
            return false;
    }
    const DWORD acls[][2] = {{sd.Sacl, SE_SACL_PRESENT}, {sd.Dacl, SE_DACL_PRESENT}};
    for (const auto &[offset, present] : acls) {
        if (!(sd.Control & present) || !offset)
            continue;
        if (offset > cb || cb - offset < kAclHeader)
            return false;
        ACL acl;
        memcpy(&acl, pb + offset, sizeof(acl));
        if (acl.AclSize < kAclHeader || cb - offset < acl.AclSize)
            return false;
    }
    return true;
}

SECURITY_STATUS SetSecurityDescr(KSP_KEY *pKey, const BYTE *pbInput, DWORD cbInput, DWORD dwFlags)
{
    auto *pSD = const_cast<PSECURITY_DESCRIPTOR>(static_cast<const void *>(pbInput));
    if (!DescriptorWithin(pbInput, cbInput) || !IsValidSecurityDescriptor(pSD) ||
        GetSecurityDescriptorLength(pSD) > cbInput)
        return Refuse(L"Security Descr", L"Invalid", NTE_BAD_DATA);
    auto *pbCopy = static_cast<PBYTE>(KspAlloc(cbInput));
    if (!pbCopy)
        return Refuse(L"Security Descr", L"HeapAlloc Failed", NTE_NO_MEMORY);
    memcpy(pbCopy, pbInput, cbInput);
    // It may be set after finalize, from several threads on one handle: each caller frees only
    // the copy its own exchange took out, never one another caller is replacing too.
    PVOID pvOld = InterlockedExchangePointer(reinterpret_cast<PVOID volatile *>(&pKey->pbSecurityDescr), pbCopy);
    pKey->cbSecurityDescr = cbInput;
    pKey->dwSecurityInfo = dwFlags;
    if (pvOld)
        KspFree(pvOld);
    return ERROR_SUCCESS;
}

SECURITY_STATUS SetUseContext(KSP_KEY *pKey, const BYTE *pbInput, DWORD cbInput)
{
    // The text need not be terminated inside cbInput: copy what is there and terminate it.
    size_t cch = wcsnlen(reinterpret_cast<const WCHAR *>(pbInput), cbInput / sizeof(WCHAR));
    auto *pszCopy = static_cast<WCHAR *>(malloc((cch + 1) * sizeof(WCHAR)));
    if (!pszCopy)
        return Refuse(L"Use Context", L"Allocation Failed", NTE_NO_MEMORY);
    memcpy(pszCopy, pbInput, cch * sizeof(WCHAR));
    pszCopy[cch] = 0;
    WCHAR *pszOld = nullptr;
    {
        SrwExclusive lock(&pKey->useContextLock);
        pszOld = pKey->pszUseContext;
        pKey->pszUseContext = pszCopy;
    }
    free(pszOld);
    return ERROR_SUCCESS;
}

} // namespace

PVOID KspAlloc(SIZE_T cb)
{
    if (cb > 0xFFFFFFFF) {
        SetLastError(ERROR_OUTOFMEMORY);
        return nullptr;
    }
    return HeapAlloc(GetProcessHeap(), 0, cb);
}

BOOL KspFree(PVOID pb)
{
    return HeapFree(GetProcessHeap(), 0, pb);
}

KSP_KEY *KspKeyFromHandle(NCRYPT_KEY_HANDLE hKey)
{
    auto *pKey = reinterpret_cast<KSP_KEY *>(hKey);
    if (!pKey || pKey->cbLength < KSP_KEY_LENGTH || pKey->dwMagic != KSP_KEY_MAGIC)
        return nullptr;
    return pKey;
}

SECURITY_STATUS CreateNewKeyObject(LPCWSTR pszKeyName, LPCWSTR pszAlgorithm, KSP_KEY **ppKey, DWORD dwMachineKey)
{
    LogMsg2(L"CreateNewKeyObject", pszKeyName, KSP_LOG_TRACE);
    if (!ppKey || !pszAlgorithm) {
        LogMsg(L"CreateNewKeyObject NULL", KSP_LOG_WARNING);
        return NTE_INVALID_PARAMETER;
    }
    *ppKey = nullptr;
    auto *pKey = static_cast<KSP_KEY *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, kKeyBlockBytes));
    if (!pKey) {
        LogMsg(L"CreateNewKeyObject HeapAlloc Failed", KSP_LOG_FAILURE);
        return NTE_NO_MEMORY;
    }
    pKey->cbLength = KSP_KEY_LENGTH;
    pKey->dwMagic = KSP_KEY_MAGIC;
    pKey->dwKeyUsagePolicy = NCRYPT_ALLOW_DECRYPT_FLAG | NCRYPT_ALLOW_SIGNING_FLAG;
    pKey->dwMachineKey = dwMachineKey;
    InitList(&pKey->PropertyList);

    SECURITY_STATUS status = ERROR_SUCCESS;
    if (wcsnlen(pszAlgorithm, KSP_ALGORITHM_CHARS) >= KSP_ALGORITHM_CHARS) {
        LogMsg2(L"CreateNewKeyObject Algorithm Name Too Long", pszAlgorithm, KSP_LOG_FAILURE);
        status = NTE_INVALID_PARAMETER;
    } else {
        wcscpy_s(pKey->szAlgorithm, KSP_ALGORITHM_CHARS, pszAlgorithm);
        if (const KVC_ALGORITHM *alg = KVCAlgorithmByName(pszAlgorithm))
            pKey->dwKeyBitLength = alg->dwDefaultBits;
    }

    if (status == ERROR_SUCCESS && pszKeyName) {
        size_t cbName = (wcsnlen(pszKeyName, kMaxKeyNameBytes / sizeof(WCHAR)) + 1) * sizeof(WCHAR);
        if (cbName > kMaxKeyNameBytes) {
            LogMsg(L"CreateNewKeyObject Key Name Too Long", KSP_LOG_FAILURE);
            status = NTE_INVALID_PARAMETER;
        } else {
            // Twice what the name needs, as the name buffer has always been sized.
            pKey->pszKeyName = static_cast<LPWSTR>(KspAlloc(cbName * 2));
            if (pKey->pszKeyName) {
                memcpy(pKey->pszKeyName, pszKeyName, cbName);
            } else {
                LogMsg(L"CreateNewKeyObject HeapAlloc Name Failed", KSP_LOG_FAILURE);
                status = NTE_NO_MEMORY;
            }
        }
    }

    if (status != ERROR_SUCCESS) {
        DeleteKeyObject(pKey); // nothing half-built stays behind
        return status;
    }
    *ppKey = pKey;
    return ERROR_SUCCESS;
}

SECURITY_STATUS DeleteKeyObject(KSP_KEY *pKey)
{
    if (!pKey) {
        LogMsg(L"DeleteKeyObject pKey NULL", KSP_LOG_WARNING);
        return NTE_INVALID_PARAMETER;
    }
    FreeField(L"DeleteKeyObject HeapFree pszKeyFilePath", KSP_LOG_ENTRY, &pKey->pszKeyFilePath);
    FreeField(L"DeleteKeyObject HeapFree pszKeyName", KSP_LOG_STEP, &pKey->pszKeyName);
    FreeField(L"DeleteKeyObject HeapFree pbKeyFile", KSP_LOG_STEP, &pKey->pbKeyFile);
    FreeField(L"DeleteKeyObject HeapFree pbSecurityDescr", KSP_LOG_STEP, &pKey->pbSecurityDescr);
    if (pKey->pbPrivateKey)
        SecureZeroMemory(pKey->pbPrivateKey, static_cast<SIZE_T>(pKey->cbPrivateKey));
    FreeField(L"DeleteKeyObject HeapFree pbPrivateKey", KSP_LOG_STEP, &pKey->pbPrivateKey);
    pKey->cbPrivateKey = 0;
    // Owned by the key as well: freeing beats leaking when a caller forgot (both are idempotent).
    free(pKey->pszUseContext);
    pKey->pszUseContext = nullptr;
    KVCFreeKVKey(&pKey->kvKey);

    LogMsg(L"DeleteKeyObject HeapFree PropertyList", KSP_LOG_STEP);
    // A failed wait is logged and the list freed anyway: walking it unprotected beats leaking.
    DWORD dwWait = WaitForSingleObject(g_hKspSemaphore, kSemaphoreWaitMs);
    if (dwWait != WAIT_OBJECT_0)
        LogMsgError(L"DeleteKeyObject Failed to grab Semaphone - Result", dwWait, KSP_LOG_ENTRY);
    while (pKey->PropertyList.Flink != &pKey->PropertyList) {
        LIST_ENTRY *entry = pKey->PropertyList.Flink;
        LogMsg(L"DeleteKeyObject HeapFree pProperty", KSP_LOG_STEP);
        Unlink(entry);
        KspFreeProperty(CONTAINING_RECORD(entry, KSP_PROPERTY, ListEntry));
    }
    // Only a wait that succeeded is given back: releasing someone else's hold would let two
    // threads into the lists at once.
    if (dwWait == WAIT_OBJECT_0)
        ReleaseSemaphore(g_hKspSemaphore, 1, nullptr);
    LogMsg(L"DeleteKeyObject Complete", KSP_LOG_STEP);

    SecureZeroMemory(pKey, kKeyBlockBytes); // the magic goes too: a stale handle is refused
    KspFree(pKey);
    return ERROR_SUCCESS;
}

void KspFreeProperty(KSP_PROPERTY *pProperty)
{
    if (!pProperty)
        return;
    SecureZeroMemory(pProperty, sizeof(KSP_PROPERTY) + static_cast<SIZE_T>(pProperty->cbPropertyData));
    KspFree(pProperty);
}

SECURITY_STATUS CreateNewProperty(LPCWSTR pszName, const BYTE *pbData, DWORD cbData, DWORD dwFlags,
                                  KSP_PROPERTY **ppProperty)
{
    LogMsg2(L"CreateNewProperty", pszName, KSP_LOG_TRACE);
    if (!pszName || !ppProperty || (!pbData && cbData)) {
        LogMsg(L"CreateNewProperty NULL", KSP_LOG_WARNING);
        return NTE_INVALID_PARAMETER;
    }
    *ppProperty = nullptr;
    auto *pProperty = static_cast<KSP_PROPERTY *>(KspAlloc(sizeof(KSP_PROPERTY) + static_cast<SIZE_T>(cbData)));
    if (!pProperty) {
        LogMsg(L"CreateNewProperty HeapAlloc Failed", KSP_LOG_FAILURE);
        return NTE_NO_MEMORY;
    }
    size_t i = 0;
    for (; i < KSP_PROPERTY_NAME_CHARS - 1 && pszName[i]; ++i)
        pProperty->szName[i] = pszName[i];
    if (pszName[i]) {
        LogMsg(L"CreateNewProperty Name Too Long", KSP_LOG_FAILURE);
        KspFree(pProperty);
        return NTE_INVALID_PARAMETER;
    }
    pProperty->szName[i] = 0;
    pProperty->cbPropertyData = cbData;
    pProperty->fPersist = dwFlags >= NCRYPT_PERSIST_ONLY_FLAG ? 1 : 0;
    pProperty->fNotPersistOnly = (dwFlags & NCRYPT_PERSIST_ONLY_FLAG) ? 0 : 1;
    InitList(&pProperty->ListEntry);
    if (cbData)
        memcpy(KspPropertyData(pProperty), pbData, cbData);
    *ppProperty = pProperty;
    return ERROR_SUCCESS;
}

SECURITY_STATUS KspStorePrivateKeyBlob(KSP_KEY *pKey, LPCWSTR pszBlobType, const BYTE *pbBlob, DWORD cbBlob)
{
    LogMsg2(L"KspStorePrivateKeyBlob", pszBlobType, KSP_LOG_TRACE);
    if (!pKey || !pszBlobType || !pbBlob) {
        LogMsg(L"KspStorePrivateKeyBlob NULL", KSP_LOG_WARNING);
        return NTE_INVALID_PARAMETER;
    }
    ULONG ulMagic;
    if (wcscmp(pszBlobType, BCRYPT_RSAPRIVATE_BLOB) == 0)
        ulMagic = BCRYPT_RSAPRIVATE_MAGIC;
    else if (wcscmp(pszBlobType, BCRYPT_RSAFULLPRIVATE_BLOB) == 0)
        ulMagic = BCRYPT_RSAFULLPRIVATE_MAGIC;
    else
        return NTE_NOT_SUPPORTED;

    // The header must be there and announce as many bytes as follow it.
    BCRYPT_RSAKEY_BLOB header;
    if (cbBlob < sizeof(header)) {
        LogMsg(L"KspStorePrivateKeyBlob Blob Too Short", KSP_LOG_FAILURE);
        return NTE_BAD_DATA;
    }
    memcpy(&header, pbBlob, sizeof(header));
    ULONGLONG cbNeeded = sizeof(header) + static_cast<ULONGLONG>(header.cbPublicExp) + header.cbModulus +
                         header.cbPrime1 + header.cbPrime2;
    if (ulMagic == BCRYPT_RSAFULLPRIVATE_MAGIC) // exponent1, exponent2, coefficient, private exponent
        cbNeeded += 2ull * header.cbPrime1 + header.cbPrime2 + header.cbModulus;
    if (header.Magic != ulMagic || cbNeeded > cbBlob) {
        LogMsg(L"KspStorePrivateKeyBlob Bad Blob", KSP_LOG_FAILURE);
        return NTE_BAD_DATA;
    }

    // The private key is never held in the clear: only DPAPI's protected form is kept.
    DATA_BLOB clear{cbBlob, const_cast<BYTE *>(pbBlob)};
    DATA_BLOB sealed{};
    if (!CryptProtectData(&clear, L"Private Key", nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &sealed)) {
        LogMsgError(L"KspStorePrivateKeyBlob CryptProtectData Failed", GetLastError(), KSP_LOG_FAILURE);
        return NTE_INTERNAL_ERROR;
    }
    auto *pbCopy = static_cast<PBYTE>(KspAlloc(sealed.cbData));
    if (pbCopy)
        memcpy(pbCopy, sealed.pbData, sealed.cbData);
    LocalFree(sealed.pbData);
    if (!pbCopy) {
        LogMsg(L"KspStorePrivateKeyBlob HeapAlloc Failed", KSP_LOG_FAILURE);
        return NTE_NO_MEMORY;
    }
    SrwExclusive lock(&pKey->privateKeyLock);
    if (pKey->pbPrivateKey) {
        SecureZeroMemory(pKey->pbPrivateKey, static_cast<SIZE_T>(pKey->cbPrivateKey));
        KspFree(pKey->pbPrivateKey);
    }
    pKey->pbPrivateKey = pbCopy;
    pKey->cbPrivateKey = sealed.cbData;
    return ERROR_SUCCESS;
}

SECURITY_STATUS SetBuildinKeyProperty(KSP_KEY *pKey, LPCWSTR pszName, const BYTE *pbInput, DWORD cbInput,
                                      DWORD *pdwFlags)
{
    LogMsg2(L"SetBuildinKeyProperty", pszName, KSP_LOG_TRACE);
    if (!pKey || !pszName || !pbInput || !pdwFlags) {
        LogMsg(L"SetBuildinKeyProperty NULL", KSP_LOG_WARNING);
        return NTE_INVALID_PARAMETER;
    }
    // Only the policies are kept as nodes as well; everything else lives in the key's fields.
    DWORD dwFlagsIn = *pdwFlags;
    *pdwFlags &= ~NCRYPT_PERSIST_FLAG;
    SECURITY_STATUS status;
    DWORD dwValue = 0;

    if (wcscmp(pszName, NCRYPT_EXPORT_POLICY_PROPERTY) == 0) {
        status = ReadDwordBeforeFinalize(pKey, pszName, pbInput, cbInput, &dwValue);
        if (status == ERROR_SUCCESS)
            status = SetExportPolicy(pKey, dwValue);
        if (status == ERROR_SUCCESS)
            *pdwFlags |= NCRYPT_PERSIST_FLAG;
        return status;
    }
    if (wcscmp(pszName, NCRYPT_KEY_USAGE_PROPERTY) == 0) {
        status = ReadDwordBeforeFinalize(pKey, pszName, pbInput, cbInput, &dwValue);
        if (status != ERROR_SUCCESS)
            return status;
        pKey->dwKeyUsagePolicy = dwValue;
        WCHAR szLine[40];
        _snwprintf_s(szLine, ARRAYSIZE(szLine), _TRUNCATE, L"Key Usage = %d", static_cast<int>(dwValue));
        LogMsg(szLine, KSP_LOG_TRACE);
        *pdwFlags |= NCRYPT_PERSIST_FLAG;
        return ERROR_SUCCESS;
    }
    if (wcscmp(pszName, NCRYPT_LENGTH_PROPERTY) == 0) {
        status = ReadDwordBeforeFinalize(pKey, pszName, pbInput, cbInput, &dwValue);
        return status == ERROR_SUCCESS ? SetLength(pKey, dwValue) : status;
    }
    if (wcscmp(pszName, NCRYPT_SECURITY_DESCR_PROPERTY) == 0)
        return SetSecurityDescr(pKey, pbInput, cbInput, dwFlagsIn);
    if (wcscmp(pszName, L"PRIVATEBLOB") == 0) {
        DWORD dwMagic = 0;
        if (cbInput >= sizeof(dwMagic))
            memcpy(&dwMagic, pbInput, sizeof(dwMagic));
        const WCHAR *pszBlobType = dwMagic == BCRYPT_RSAPRIVATE_MAGIC       ? BCRYPT_RSAPRIVATE_BLOB
                                   : dwMagic == BCRYPT_RSAFULLPRIVATE_MAGIC ? BCRYPT_RSAFULLPRIVATE_BLOB
                                                                            : nullptr;
        if (!pszBlobType)
            return Refuse(pszName, L"Bad Magic", NTE_BAD_DATA);
        if (pKey->fFinished)
            return Refuse(pszName, L"Key Already Finalized", NTE_BAD_KEY_STATE);
        return KspStorePrivateKeyBlob(pKey, pszBlobType, pbInput, cbInput);
    }
    if (wcscmp(pszName, NCRYPT_WINDOW_HANDLE_PROPERTY) == 0) {
        HWND hWnd = nullptr;
        memcpy(&hWnd, pbInput, cbInput < sizeof(hWnd) ? cbInput : sizeof(hWnd));
        pKey->hWnd = hWnd;
        return ERROR_SUCCESS;
    }
    if (wcscmp(pszName, NCRYPT_UI_POLICY_PROPERTY) == 0)
        return ERROR_SUCCESS; // this provider never shows a user interface
    if (wcscmp(pszName, NCRYPT_USE_CONTEXT_PROPERTY) == 0)
        return SetUseContext(pKey, pbInput, cbInput);
    if (wcscmp(pszName, NCRYPT_CERTIFICATE_PROPERTY) == 0)
        return ERROR_SUCCESS; // SetKeyProperty arms the publication; FreeKey reads the store
    return NTE_NOT_SUPPORTED;
}

namespace {

// Called with g_EnumBufferLock held.
KSP_BUFFER_NODE *FindEnumBuffer(PVOID pBuffer)
{
    for (KSP_BUFFER_NODE *node = g_EnumBufferList.Flink; node != &g_EnumBufferList; node = node->Flink)
        if (node->pBuffer == pBuffer)
            return node;
    return nullptr;
}

} // namespace

KSP_BUFFER_NODE *AddEnumBuffer(PVOID pBuffer)
{
    LogMsg(L"AddEnumBuffer", KSP_LOG_TRACE);
    auto *node = static_cast<KSP_BUFFER_NODE *>(KspAlloc(sizeof(KSP_BUFFER_NODE)));
    if (!node) {
        LogMsg(L"AddEnumBuffer HeapAlloc Failed", KSP_LOG_FAILURE);
        return nullptr;
    }
    node->pBuffer = pBuffer;
    SrwExclusive lock(&g_EnumBufferLock);
    if (FindEnumBuffer(pBuffer)) {
        KspFree(node);
        return nullptr;
    }
    node->Flink = &g_EnumBufferList;
    node->Blink = g_EnumBufferList.Blink;
    g_EnumBufferList.Blink->Flink = node;
    g_EnumBufferList.Blink = node;
    return node;
}

BOOL IsEnumBuffer(PVOID pBuffer)
{
    SrwShared lock(&g_EnumBufferLock);
    return FindEnumBuffer(pBuffer) ? TRUE : FALSE;
}

BOOL RemoveEnumBuffer(PVOID pBuffer)
{
    KSP_BUFFER_NODE *node = nullptr;
    {
        SrwExclusive lock(&g_EnumBufferLock);
        node = FindEnumBuffer(pBuffer);
        if (node) {
            node->Blink->Flink = node->Flink;
            node->Flink->Blink = node->Blink;
        }
    }
    KspFree(node);
    return node ? TRUE : FALSE;
}
