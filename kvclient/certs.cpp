// Certificate retrieval: the vault's certificate listing as (clear name, thumbprint) tables,
// and one certificate's DER by its vault name.
#include "kvclient/kvc.h"
#include "kvclient/kvjson.h"

#include <wincrypt.h>

#include <memory>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

namespace {

constexpr size_t kSlotChars = 128;
// One table entry: its pointer and the slot the pointer points at.
constexpr size_t kEntryBytes = sizeof(WCHAR *) + kSlotChars * sizeof(WCHAR);
// What the caller's next request keeps of a continuation link: the service's host is dropped
// so that paging never leaves the client's own vault.
constexpr char kNextLinkTail[] = "/certificates?";

// One listed certificate while the pages are read; the tables are built from these at the end.
struct CertEntry {
    WCHAR szName[kSlotChars];
    WCHAR szThumbprint[kSlotChars];
};

struct CertEntries {
    CertEntry *p = nullptr;
    DWORD count = 0;
    ~CertEntries() { free(p); }
};

// 1 when the array has room for cMore further entries. A failed growth keeps what is there.
bool Reserve(CertEntries *entries, DWORD cMore)
{
    size_t cWanted = static_cast<size_t>(entries->count) + cMore;
    auto *p = static_cast<CertEntry *>(realloc(entries->p, cWanted * sizeof(CertEntry)));
    if (!p)
        return false;
    entries->p = p;
    return true;
}

// Adds one listing item to entries when it names a certificate this provider can show to CNG.
void AddItem(json_object *item, CertEntries *entries)
{
    json_object *id = nullptr;
    json_object *x5t = nullptr;
    if (!json_object_object_get_ex(item, "id", &id) || !json_object_object_get_ex(item, "x5t", &x5t) || !id ||
        !x5t) {
        LogMsg(L"KVCGetCerts kids json_object_object_get id or x5t NULL", KSP_LOG_FAILURE);
        return;
    }
    if (!json_object_is_type(id, json_type_string) || !json_object_is_type(x5t, json_type_string)) {
        LogMsg(L"KVCGetCerts kids json_object_get_string iditem or x5t failed", KSP_LOG_FAILURE);
        return;
    }
    const char *slash = strrchr(json_object_get_string(id), '/');
    if (!slash) {
        LogMsg(L"KVCGetCerts kids strrchr / failed", KSP_LOG_FAILURE);
        return;
    }
    BldStrPtr name(BldStrNewStrFromAscii(slash + 1));
    BldStrPtr thumbprint(BldStrNewStrFromAscii(json_object_get_string(x5t)));
    if (!name || !thumbprint) {
        LogMsg(L"KVCGetCerts kids BytesStrToWStr NULL", KSP_LOG_FAILURE);
        return;
    }
    WCHAR szClear[KVC_CLEAR_NAME_CHARS];
    if (!KVCConvertEncodedKeyNameToClear(name->cStr, szClear, nullptr)) {
        LogMsg3(L"KVCGetCerts kids KVCConvertEncodedKeyNameToClear FAILED", name->cStr, L"InvalidName",
                KSP_LOG_FAILURE);
        return;
    }
    LogMsg3(L"KVCGetCerts kids", name->cStr, szClear, KSP_LOG_STEP);
    CertEntry &entry = entries->p[entries->count++];
    wcsncpy_s(entry.szName, szClear, _TRUNCATE);
    wcsncpy_s(entry.szThumbprint, thumbprint->cStr, _TRUNCATE);
}

// One page's "value" items into entries, as many as the listing still takes.
void ReadItems(json_object *value, CertEntries *entries, KVC_LISTING *pListing)
{
    DWORD n = value ? static_cast<DWORD>(json_object_array_length(value)) : 0;
    LogMsgNum(L"KVCGetCerts value len is", L"", static_cast<int>(n), KSP_LOG_STEP);
    LogMsgNum(L"KVCGetCerts value mycount is ", L"", static_cast<int>(entries->count), KSP_LOG_STEP);
    n = KVCListingTake(pListing, n);
    if (n == 0) {
        LogMsg(L"KVCGetCerts value len is Zero", KSP_LOG_STEP);
        return;
    }
    if (!Reserve(entries, n)) {
        LogMsg(L"KVCGetCerts realloc failed", KSP_LOG_FAILURE);
        return;
    }
    for (DWORD i = 0; i < n; i++) {
        json_object *item = json_object_array_get_idx(value, i);
        if (!item) {
            LogMsgError(L"KVCGetCerts kids json_object_array_get_idx valueToken", i, KSP_LOG_FAILURE);
            continue;
        }
        AddItem(item, entries);
    }
}

// Reads one page into entries; the next link to follow (or null) into *ppszNextLink.
void ReadPage(const char *pszBody, CertEntries *entries, WCHAR **ppszNextLink, KVC_LISTING *pListing)
{
    KVCJsonDoc doc = KVCJsonParse(pszBody);
    BldStrPtr link;
    if (const char *pszLink = KVCJsonGetString(doc.get(), "nextLink")) {
        if (const char *pszTail = strstr(pszLink, kNextLinkTail)) {
            link.reset(BldStrNewStrFromAscii(pszTail));
            if (link)
                LogMsg2(L"KVCGetCerts rawURL nextlinkstr Found", link->cStr, KSP_LOG_STEP);
        }
    }
    ReadItems(KVCJsonMember(doc.get(), "value", json_type_array), entries, pListing);
    // Followed only once the page's items are counted: a full listing reads no further page.
    if (link && KVCListingFollow(pListing, link->cStr)) {
        *ppszNextLink = link->cStr;
        link->cStr = nullptr;
    }
}

// One process-heap block of count pointers followed by the slots they point at, filled from
// the entries' names or thumbprints. Null when the heap refuses.
WCHAR **NewTable(const CertEntries &entries, WCHAR (CertEntry::*pText)[kSlotChars])
{
    auto **table = static_cast<WCHAR **>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, entries.count * kEntryBytes));
    if (!table)
        return nullptr;
    WCHAR *slots = reinterpret_cast<WCHAR *>(table + entries.count);
    for (DWORD i = 0; i < entries.count; i++) {
        table[i] = slots + i * kSlotChars;
        wcsncpy_s(table[i], kSlotChars, entries.p[i].*pText, _TRUNCATE);
    }
    return table;
}

} // namespace

BOOL KVCGetCerts(KVC *kvc, WCHAR ***ppNames, WCHAR ***ppThumbprints, DWORD *pcCount)
{
    LogMsg(L"KVCGetCerts", KSP_LOG_STEP);
    if (!kvc) {
        LogMsg(L"KVCGetCerts kvc NULL - skipping", KSP_LOG_STEP);
        return FALSE;
    }
    if (!pcCount) {
        LogMsg(L"KVCGetCerts Bad Count", KSP_LOG_FAILURE);
        return FALSE;
    }
    if (!ppNames) {
        LogMsg(L"KVCGetCerts Bad WCHARCertsArray Array pointer", KSP_LOG_FAILURE);
        return FALSE;
    }
    if (!ppThumbprints) {
        LogMsg(L"KVCGetCerts Bad WCHARThumbprintArray pointer", KSP_LOG_FAILURE);
        return FALSE;
    }

    CertEntries entries;
    ScopedAnswer answer;
    // A persisting 429 ends the listing with what the earlier pages gave.
    const KVC_RETRY_POLICY policy =
        KVCThrottlePolicy(L"KVCGetCerts ActionThrottled", FALSE, L"KVCGetCerts REST Call Error");
    KVC_LISTING listing = {L"KVCGetCerts Listing Stopped"};
    WCHAR *pszNextLink = nullptr;
    do {
        DWORD dwWaitMs = policy.dwFirstWaitMs;
        const KVC_REQUEST request = {pszNextLink, KVC_COLLECTION_CERTIFICATES, nullptr, L"GET",
                                     nullptr,     nullptr,                     nullptr};
        KVCVaultCall(kvc, &request, &policy, &dwWaitMs, &answer);
        if (answer.status != KVC_HTTP_OK && answer.status != KVC_HTTP_TOO_MANY_REQUESTS) {
            LogMsgError(L"KVCGetCerts REST Call Error", answer.status, KSP_LOG_FAILURE);
            free(pszNextLink);
            return FALSE;
        }
        free(pszNextLink);
        pszNextLink = nullptr;
        if (!answer.body)
            break;
        ReadPage(answer.body, &entries, &pszNextLink, &listing);
    } while (pszNextLink);

    LogMsg(L"KVCGetCerts found sizes OK", KSP_LOG_STEP);
    WCHAR **names = NewTable(entries, &CertEntry::szName);
    WCHAR **thumbprints = names ? NewTable(entries, &CertEntry::szThumbprint) : nullptr;
    if (!thumbprints) {
        if (names)
            HeapFree(GetProcessHeap(), 0, names);
        *pcCount = 0;
        return FALSE;
    }
    *pcCount = entries.count;
    *ppNames = names;
    *ppThumbprints = thumbprints;
    LogMsg(L"KVCGetCerts Complete", KSP_LOG_STEP);
    return answer.status == KVC_HTTP_OK;
}

BOOL KVCGetCert(KVC *kvc, const WCHAR *pszCertName, DATA_BLOB *pBlob)
{
    LogMsg(L"KVCGetCert", KSP_LOG_STEP);
    if (!pszCertName || !pBlob) {
        LogMsg(L"KVCGetCert Bad CertName or certblob pointer", KSP_LOG_FAILURE);
        return FALSE;
    }
    if (!kvc) {
        LogMsg(L"KVCGetCert kvc NULL - skipping", KSP_LOG_STEP);
        return FALSE;
    }

    DWORD dwCollection = kvc->fCertMode ? KVC_COLLECTION_CERTIFICATES : KVC_COLLECTION_KEYS;
    // After five 429 answers the last body is read anyway: it holds no certificate.
    ScopedAnswer answer;
    const KVC_RETRY_POLICY policy = KVCThrottlePolicy(L"KVCGetCert ActionThrottled", FALSE);
    DWORD dwWaitMs = policy.dwFirstWaitMs;
    const KVC_REQUEST request = {nullptr, dwCollection, pszCertName, L"GET", nullptr, nullptr, nullptr};
    KVCVaultCall(kvc, &request, &policy, &dwWaitMs, &answer);
    if (answer.status != KVC_HTTP_OK && answer.status != KVC_HTTP_TOO_MANY_REQUESTS) {
        LogMsgError(L"KVCGetCert REST Call Error", answer.status, KSP_LOG_FAILURE);
        return FALSE;
    }

    KVCJsonDoc doc = KVCJsonParse(answer.body);
    if (!doc)
        return FALSE;
    // A bundle that carries the exportable form ("value") as well as the DER ("cer") is read
    // by its "value".
    const char *pszText = KVCJsonGetString(doc.get(), "value");
    if (pszText) {
        LogMsg(L"KeyVaultClient::GetCert Found Certificate - value (non-exportable)", KSP_LOG_TRACE);
    } else if ((pszText = KVCJsonGetString(doc.get(), "cer"))) {
        LogMsg(L"KeyVaultClient::GetCert Found Certificate - cer (exportable)", KSP_LOG_TRACE);
    } else {
        return FALSE;
    }
    BldStrPtr text(BldStrNewStrFromAscii(pszText));
    if (!text)
        return FALSE;
    return KVCKKVKSP_FromBase64(text->cStr, &pBlob->pbData, &pBlob->cbData, TRUE) ? TRUE : FALSE;
}
