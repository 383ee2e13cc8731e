// Key listing and lookup: every key of the vault as CNG names, page by page, and one key by
// its CNG name into a KVKey. Both wait out throttling the same way: six calls at most.
#include "kvclient/kvc.h"
#include "kvclient/kvjson.h"
#include "kvclient/algorithms.h"

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

namespace {

constexpr char kKeysPathMarker[] = "/keys?";

void FreeNames(WCHAR **ppNames, DWORD cNames)
{
    if (!ppNames)
        return;
    for (DWORD i = 0; i < cNames; ++i)
        free(ppNames[i]);
    free(ppNames);
}

// The names gathered so far, owned until handed to the caller. A failed growth frees them all:
// a caller told "0 names" can never stumble over half an array.
struct NameList {
    WCHAR **ppNames = nullptr;
    DWORD cNames = 0;
    bool fOutOfMemory = false;

    ~NameList() { FreeNames(ppNames, cNames); }
    bool Reserve(size_t cMore)
    {
        // One spare byte, as the array has always been sized.
        void *grown = realloc(ppNames, (cNames + cMore) * sizeof(WCHAR *) + 1);
        if (!grown) {
            FreeNames(ppNames, cNames);
            ppNames = nullptr;
            cNames = 0;
            fOutOfMemory = true;
            return false;
        }
        ppNames = static_cast<WCHAR **>(grown);
        return true;
    }
};

// The CNG algorithm a listed key's "AlgID" tag names exactly (the provider writes it when it
// creates a key); empty when the tag is missing or names none.
const WCHAR *TaggedAlgorithm(json_object *item)
{
    const char *pszTag = KVCJsonGetString(KVCJsonMember(item, "tags", json_type_object), "AlgID");
    WCHAR szTag[KVC_ALGID_CHARS] = {};
    if (!pszTag || strlen(pszTag) >= KVC_ALGID_CHARS ||
        !MultiByteToWideChar(CP_UTF8, 0, pszTag, -1, szTag, KVC_ALGID_CHARS))
        return L"";
    const KVC_ALGORITHM *alg = KVCAlgorithmByName(szTag);
    return alg ? alg->pszName : L"";
}

// The clear name of one listed key ("kid" without a version ends in the vault name) and its
// tagged algorithm, appended; elements without a "kid" and names that do not decode are skipped.
void AppendKeyName(json_object *item, NameList *list)
{
    const char *pszKid = KVCJsonGetString(item, "kid");
    if (!pszKid)
        return;
    const char *slash = strrchr(pszKid, '/');
    WCHAR *pszVaultName = BytesStrToWStr(slash ? slash + 1 : pszKid);
    if (!pszVaultName)
        return;
    WCHAR szClear[KVC_CLEAR_NAME_CHARS];
    if (KVCConvertEncodedKeyNameToClear(pszVaultName, szClear, nullptr)) {
        LogMsg3(L"KVCGetKeys kids", pszVaultName, szClear, KSP_LOG_STEP);
        WCHAR *pszCopy = KVCJoinText({szClear, L"|", TaggedAlgorithm(item)});
        if (pszCopy) {
            // The name, then the algorithm behind its terminator (a CNG name may hold "|" itself).
            pszCopy[wcslen(szClear)] = 0;
            list->ppNames[list->cNames++] = pszCopy;
        }
        else
            LogMsg2(L"KVCGetKeys kids _wcsdup Failed", szClear, KSP_LOG_FAILURE);
    } else {
        LogMsg3(L"KVCGetKeys kids KVCConvertEncodedKeyNameToClear Failed", pszVaultName, szClear, KSP_LOG_FAILURE);
    }
    free(pszVaultName);
}

} // namespace

int KVCGetKeys(KVC *kvc, WCHAR ***pppNames, DWORD *pcCount)
{
    LogMsg(L"KVCGetKeys", KSP_LOG_STEP);
    if (!kvc)
        return 0;
    if (!pppNames || !pcCount) {
        LogMsg(L"KeyVaultClient::GetKeys Bad Count or Array pointer", KSP_LOG_FAILURE);
        return 0;
    }

    NameList list;
    ScopedAnswer answer;
    const KVC_RETRY_POLICY policy =
        KVCThrottlePolicy(L"KVCGetKeys ActionThrottled", TRUE, L"KVCGetKeys REST Call Error");
    KVC_LISTING listing = {L"KVCGetKeys Listing Stopped"};
    WCHAR *pszNextPath = nullptr; // the next page's "/keys?..." tail; null for the first page
    for (;;) {
        // Every page gets the whole throttling allowance of its own.
        DWORD dwWaitMs = policy.dwFirstWaitMs;
        const KVC_REQUEST request = {pszNextPath, KVC_COLLECTION_KEYS, nullptr, L"GET", nullptr, nullptr, nullptr};
        KVCVaultCall(kvc, &request, &policy, &dwWaitMs, &answer);
        if (answer.status != KVC_HTTP_OK && answer.status != KVC_HTTP_TOO_MANY_REQUESTS) {
            LogMsgError(L"KVCGetKeys REST Call Error", answer.status, KSP_LOG_FAILURE);
            free(pszNextPath);
            return 0; // the names of earlier pages go with the list
        }

        free(pszNextPath);
        pszNextPath = nullptr;
        // A throttled answer that outlasted the waits is read like a page: it carries neither
        // names nor a link, so what earlier pages gave is still handed back.
        KVCJsonDoc page = KVCJsonParse(answer.body);
        if (!page)
            break;

        const char *pszNextLink = KVCJsonGetString(page.get(), "nextLink");
        const char *pszTail = pszNextLink ? strstr(pszNextLink, kKeysPathMarker) : nullptr;
        if (pszTail) {
            // The link's own scheme and host are dropped: the frame puts the client's vault in front.
            pszNextPath = BytesStrToWStr(pszTail);
            LogMsg2(L"KVCGetKeys rawURL nextlinkstr Found", pszNextPath, KSP_LOG_STEP);
        }

        json_object *items = KVCJsonMember(page.get(), "value", json_type_array);
        size_t cItems = items ? KVCListingTake(&listing, static_cast<DWORD>(json_object_array_length(items))) : 0;
        if (items && !list.Reserve(cItems)) {
            LogMsg(L"KVCGetKeys realloc Failed", KSP_LOG_FAILURE);
            free(pszNextPath);
            break;
        }
        for (size_t i = 0; i < cItems; ++i)
            AppendKeyName(json_object_array_get_idx(items, i), &list);
        if (!KVCListingFollow(&listing, pszNextPath)) {
            free(pszNextPath);
            break;
        }
    }

    *pppNames = list.ppNames;
    *pcCount = list.cNames;
    list.ppNames = nullptr;
    list.cNames = 0;
    return answer.status == KVC_HTTP_OK && !list.fOutOfMemory ? 1 : 0;
}

int KVCGetKey(KVC *kvc, const WCHAR *pszKeyName, KVKey *pKey, DWORD fSuppress)
{
    LogMsg2(L"KVCGetKey", pszKeyName, KSP_LOG_STEP);
    if (!kvc || !pszKeyName || !pKey) {
        LogMsg(L"KVCGetKey End", KSP_LOG_TRACE);
        return 0;
    }
    WCHAR szEncoded[KVC_ENCODED_NAME_CHARS] = {};
    memset(pKey, 0, sizeof(*pKey));
    // An empty name would make the request one for the whole collection: the key listing.
    if (!*pszKeyName || !KVCConvertClearKeyNameToEncoded(pszKeyName, szEncoded, nullptr)) {
        LogMsg2(L"KVCGetKey KVCConvertClearKeyNameToEncoded Failed", pszKeyName, KSP_LOG_STEP);
        return 0;
    }
    LogMsg2(L"KVCGetKey Encoded Name", szEncoded, KSP_LOG_STEP);

    int result = 0;
    ScopedAnswer answer;
    // Every refused call is logged before its throttling line; a key that may be missing is
    // looked for quietly.
    const WCHAR *pszSuppressed = L"KVCGetKey KVCDoKVRESTCall SupressFailedReadError";
    const int level = fSuppress ? KSP_LOG_TRACE : KSP_LOG_FAILURE;
    KVC_RETRY_POLICY policy = KVCThrottlePolicy(L"KVCGetKey KVCDoKVRESTCall ActionThrottled", TRUE,
                                                fSuppress ? pszSuppressed : L"KVCGetKey KVCDoKVRESTCall Error");
    policy.callFailedLevel = level;
    DWORD dwWaitMs = policy.dwFirstWaitMs;
    const KVC_REQUEST request = {nullptr, KVC_COLLECTION_KEYS, szEncoded, L"GET", nullptr, nullptr, nullptr};
    if (KVCVaultCall(kvc, &request, &policy, &dwWaitMs, &answer) && answer.status == KVC_HTTP_OK) {
        result = KVCParseJSONKey(szEncoded, answer.body, pKey);
        if (!result)
            LogMsg2(L"KVCGetKey KVCParseJSONKey Failed", szEncoded, KSP_LOG_FAILURE);
    } else if (answer.status != KVC_HTTP_TOO_MANY_REQUESTS) { // throttling was logged call by call
        LogMsgError(fSuppress ? pszSuppressed : L"KVCGetKey KVCDoKVRESTCall Failed", answer.status, level);
    }

    LogMsg2(L"KVCGetKey End", pszKeyName, KSP_LOG_TRACE);
    return result;
}

const WCHAR *KVCListedAlgorithm(const WCHAR *pszListedName)
{
    return pszListedName ? pszListedName + wcslen(pszListedName) + 1 : L"";
}
