// Tokens shared by the clients of a process. Every provider handle has two clients, and a
// program that opens the provider for each operation would otherwise sign in every time; clients
// that sign in as the same identity take the token another one already holds, for as long as it
// lives. Identities never share: the key names the sign-in kind, cloud, tenant, client, audience,
// endpoint and a SHA-256 hash of the secret (never the secret itself).
#include "kvclient/kvc.h"

#include <bcrypt.h>

#include <stdlib.h>
#include <wchar.h>

#include "support/locks.h"

namespace {

constexpr int kSlots = 16; // identities a process signs in as: two per scope and cloud at most in practice

struct SHARED_TOKEN {
    WCHAR *pszIdentity; // calloc'd, wiped when released (it holds a hash of the secret); null for a free slot
    WCHAR *pszType;     // calloc'd, wiped when released
    WCHAR *pszToken;
    __time64_t expiry;
};

SRWLOCK g_SharedTokenLock = SRWLOCK_INIT;
SHARED_TOKEN g_SharedTokens[kSlots];

void ReleaseSlot(SHARED_TOKEN *pSlot)
{
    KVCWipeFreeText(pSlot->pszIdentity);
    KVCWipeFreeText(pSlot->pszType);
    KVCWipeFreeText(pSlot->pszToken);
    *pSlot = {};
}

// The table is emptied, its tokens wiped, when the module is unloaded: the key storage router
// may unload the provider while the process goes on, and the heap would keep live tokens. No lock
// is taken: nothing runs in the module by then, and at process exit a thread ended while holding
// the lock would never release it.
struct SHARED_TOKENS_WIPER {
    ~SHARED_TOKENS_WIPER()
    {
        for (SHARED_TOKEN &slot : g_SharedTokens)
            ReleaseSlot(&slot);
    }
} g_SharedTokensWiper;

// Called with the lock held.
SHARED_TOKEN *FindSlot(const WCHAR *pszIdentity)
{
    for (SHARED_TOKEN &slot : g_SharedTokens)
        if (slot.pszIdentity && wcscmp(slot.pszIdentity, pszIdentity) == 0)
            return &slot;
    return nullptr;
}

// The slot of the identity, else a free one, else the one that expires first.
SHARED_TOKEN *SlotFor(const WCHAR *pszIdentity)
{
    if (SHARED_TOKEN *pSlot = FindSlot(pszIdentity))
        return pSlot;
    SHARED_TOKEN *pOldest = &g_SharedTokens[0];
    for (SHARED_TOKEN &slot : g_SharedTokens) {
        if (!slot.pszIdentity)
            return &slot;
        if (slot.expiry < pOldest->expiry)
            pOldest = &slot;
    }
    return pOldest;
}

} // namespace

WCHAR *KVCSecretHash(const WCHAR *pszSecret)
{
    static const WCHAR kHex[] = L"0123456789abcdef";
    BYTE hash[32] = {};
    BCRYPT_ALG_HANDLE hAlg = nullptr;
    bool fHashed = BCryptOpenAlgorithmProvider(&hAlg, BCRYPT_SHA256_ALGORITHM, nullptr, 0) >= 0;
    if (fHashed) {
        BCRYPT_HASH_HANDLE hHash = nullptr;
        const ULONG cb = static_cast<ULONG>((pszSecret ? wcslen(pszSecret) : 0) * sizeof(WCHAR));
        fHashed = BCryptCreateHash(hAlg, &hHash, nullptr, 0, nullptr, 0, 0) >= 0 &&
                  BCryptHashData(hHash, reinterpret_cast<PUCHAR>(const_cast<WCHAR *>(pszSecret ? pszSecret : L"")),
                                 cb, 0) >= 0 &&
                  BCryptFinishHash(hHash, hash, sizeof(hash), 0) >= 0;
        if (hHash)
            BCryptDestroyHash(hHash);
        BCryptCloseAlgorithmProvider(hAlg, 0);
    }
    WCHAR *pszHex = fHashed ? static_cast<WCHAR *>(calloc(2 * sizeof(hash) + 1, sizeof(WCHAR))) : nullptr;
    for (size_t i = 0; pszHex && i < sizeof(hash); ++i) {
        pszHex[2 * i] = kHex[hash[i] >> 4];
        pszHex[2 * i + 1] = kHex[hash[i] & 0x0F];
    }
    SecureZeroMemory(hash, sizeof(hash));
    return pszHex; // null: no hash, no sharing, and the caller signs in on its own
}

int KVCSharedTokenTake(const WCHAR *pszIdentity, __time64_t now, BldStr **ppType, BldStr **ppToken,
                       __time64_t *pExpiry)
{
    if (!pszIdentity || !ppType || !ppToken || !pExpiry)
        return 0;
    SrwShared lock(&g_SharedTokenLock);
    const SHARED_TOKEN *pSlot = FindSlot(pszIdentity);
    if (!pSlot || pSlot->expiry <= now)
        return 0;
    *ppType = BldStrNewStr(pSlot->pszType);
    *ppToken = BldStrNewStr(pSlot->pszToken);
    *pExpiry = pSlot->expiry;
    if (*ppType && *ppToken)
        return 1;
    BldStrFree(*ppType);
    BldStrFree(*ppToken);
    *ppType = *ppToken = nullptr;
    return 0;
}

void KVCSharedTokenKeep(const WCHAR *pszIdentity, const WCHAR *pszType, const WCHAR *pszToken, __time64_t expiry)
{
    if (!pszIdentity || !pszType || !pszToken)
        return;
    SHARED_TOKEN fresh = {KVCJoinText({pszIdentity}), KVCJoinText({pszType}), KVCJoinText({pszToken}), expiry};
    if (!fresh.pszIdentity || !fresh.pszType || !fresh.pszToken) {
        ReleaseSlot(&fresh);
        return;
    }
    SHARED_TOKEN old = {};
    {
        SrwExclusive lock(&g_SharedTokenLock);
        SHARED_TOKEN *pSlot = SlotFor(pszIdentity);
        old = *pSlot;
        *pSlot = fresh;
    }
    ReleaseSlot(&old);
}

void KVCSharedTokenForget(const WCHAR *pszIdentity, const WCHAR *pszToken)
{
    if (!pszIdentity || !pszToken)
        return;
    SHARED_TOKEN old = {};
    {
        SrwExclusive lock(&g_SharedTokenLock);
        SHARED_TOKEN *pSlot = FindSlot(pszIdentity);
        if (pSlot && wcscmp(pSlot->pszToken, pszToken) == 0) {
            old = *pSlot;
            *pSlot = {};
        }
    }
    ReleaseSlot(&old);
}
