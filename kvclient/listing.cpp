// The bounds of one paged listing. A vault's pages link on through "nextLink" until the last;
// a link that comes round again, pages without end or items piled into a page would otherwise
// keep a caller (EnumKeys, the certificate sync inside OpenKey) reading for as long as the
// vault likes. Up to these bounds the listing is read; what was read by then is the listing.
#include "kvclient/kvc.h"

#include <wchar.h>

namespace {

// Far beyond what one machine's vault holds (the service pages by 25: 10,000 items fill 400
// pages; pages may come out short, so the page bound leaves room for that).
constexpr DWORD kMaxPages = 1000;
constexpr DWORD kMaxItems = 10000;
// The service's links run to a few hundred characters; every link followed is kept to spot a
// repeat, so a longer one ends the listing rather than growing that record by megabytes a page.
constexpr size_t kMaxLinkChars = 8192;

} // namespace

int KVCListingFollow(KVC_LISTING *pListing, const WCHAR *pszNextLink)
{
    if (!pListing || !pszNextLink)
        return 0;
    // A full listing reads no further page: its items could not be taken anyway.
    if (pListing->cItems >= kMaxItems)
        return 0;
    if (pListing->cPages + 1 >= kMaxPages) {
        LogMsg2(pListing->pszStoppedMsg, L"Page Limit", KSP_LOG_WARNING);
        return 0;
    }
    if (wcsnlen(pszNextLink, kMaxLinkChars + 1) > kMaxLinkChars) {
        LogMsg2(pListing->pszStoppedMsg, L"Link Too Long", KSP_LOG_WARNING);
        return 0;
    }
    if (!pListing->seenLinks)
        pListing->seenLinks = BldStrNewStr(L"\n");
    // Every link followed so far, each between line feeds (no link holds one).
    BldStrPtr marked(BldStrNewStr(L"\n"));
    if (!pListing->seenLinks || !marked || !BldStrCat(marked.get(), pszNextLink) || !BldStrCat(marked.get(), L"\n")) {
        LogMsg2(pListing->pszStoppedMsg, L"Out Of Memory", KSP_LOG_WARNING);
        return 0;
    }
    if (wcsstr(pListing->seenLinks->cStr, marked->cStr)) {
        LogMsg2(pListing->pszStoppedMsg, L"Repeated Link", KSP_LOG_WARNING);
        return 0;
    }
    if (!BldStrCat(pListing->seenLinks, marked->cStr + 1))
        return 0;
    pListing->cPages++;
    return 1;
}

DWORD KVCListingTake(KVC_LISTING *pListing, DWORD cItems)
{
    if (!pListing)
        return 0;
    // Logged when the listing fills up, even exactly: no further page is then read.
    if (cItems > 0 && cItems >= kMaxItems - pListing->cItems) {
        LogMsg2(pListing->pszStoppedMsg, L"Item Limit", KSP_LOG_WARNING);
        cItems = kMaxItems - pListing->cItems;
    }
    pListing->cItems += cItems;
    return cItems;
}
