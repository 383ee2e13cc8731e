// Key names and key records: the reversible mapping between free CNG key names and the
// restricted vault object names, and the parsing of a vault key document into a KVKey.
#include "kvclient/kvc.h"
#include "kvclient/algorithms.h"
#include "kvclient/kvjson.h"

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

namespace {

constexpr size_t kMaxClearChars = KVC_CLEAR_NAME_CHARS - 1;        // 42
constexpr size_t kMaxCopiedChars = kMaxClearChars - 1;             // 41: a copy keeps room to spare
constexpr size_t kEncodedChars = 1 + kMaxClearChars * 3;           // 127: "-" and three digits each
constexpr size_t kMinEncodedChars = KVC_CLEAR_NAME_CHARS;          // 43: short names are filled with "z"
constexpr size_t kMaxVaultNameChars = KVC_ENCODED_NAME_CHARS - 1;  // 128
constexpr DWORD kBase = 50;
// The service knows eight key operations; an array far longer than that is no key's, and
// joining it would only cost time.
constexpr size_t kMaxKeyOps = 64;

bool IsVaultNameChar(WCHAR c)
{
    return c == L'-' || (c >= L'0' && c <= L'9') || (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
}

// Digits 0..25 are "A".."Z", 26..49 are "a".."x"; "y" and "z" are never digits.
WCHAR DigitChar(DWORD d)
{
    return static_cast<WCHAR>(d < 26 ? L'A' + d : L'a' + (d - 26));
}

// The value of one digit character, or false for a character that can never be a digit.
// Characters below "A" are not rejected: they wrap around in 16 bits, as they always did.
bool DigitValue(WCHAR c, WORD *pValue)
{
    if (c <= L'Z')
        *pValue = static_cast<WORD>(c - L'A');
    else if (c > L'x')
        return false;
    else
        *pValue = static_cast<WORD>(c - (L'a' - 26));
    return true;
}

WCHAR *WideDup(const WCHAR *psz)
{
    size_t cch = wcslen(psz) + 1;
    auto *copy = static_cast<WCHAR *>(calloc(cch, sizeof(WCHAR)));
    if (copy)
        memcpy(copy, psz, cch * sizeof(WCHAR));
    return copy;
}

// A base64url JWK member decoded into bytes (two spare zero bytes); untouched when absent.
void DecodeMember(json_object *key, const char *pszMember, BYTE **ppb, DWORD *pcb)
{
    WCHAR *pwsz = BytesStrToWStr(KVCJsonGetString(key, pszMember));
    if (!pwsz)
        return;
    DWORD cb = 0;
    BYTE *pb = nullptr;
    if (KVCKKVKSP_FromBase64(pwsz, &pb, &cb, TRUE) && pb) {
        *ppb = pb;
        *pcb = cb;
    } else {
        free(pb);
    }
    free(pwsz);
}

// The key's version: the last path segment of "kid", widened byte by byte (sign extension, as
// the vault's names are plain ASCII anyway). A version never exceeds 32 characters in Azure;
// anything over 128 is cut at 128 so that the record stays intact, and the cut is logged.
void CopyVersion(const char *pszKid, WCHAR *pszVersion)
{
    const char *slash = strrchr(pszKid, '/');
    const char *segment = slash ? slash + 1 : pszKid;
    size_t i = 0;
    for (; segment[i] && i < kMaxVaultNameChars; ++i)
        pszVersion[i] = static_cast<WCHAR>(static_cast<signed char>(segment[i]));
    pszVersion[i] = 0;
    if (segment[i])
        LogMsg(L"KVCParseJSONKey kid version truncated", KSP_LOG_WARNING);
}

// The algorithm name found for the curve, when one is; the record's name stays otherwise.
void SetCurveAlgID(KVKey *theKey, const KVC_ALGORITHM *alg)
{
    if (alg)
        wcscpy_s(theKey->AlgID, KVC_ALGID_CHARS, alg->pszName);
}

} // namespace

int KVCConvertClearKeyNameToEncoded(const WCHAR *pszClear, WCHAR *pszEncoded, DWORD *pfEncoded)
{
    if (!pszClear || !pszEncoded) {
        LogMsg(L"KVCConvertClearKeyNameToEncoded NULL", KSP_LOG_WARNING);
        return 0;
    }
    size_t cch = wcsnlen(pszClear, kMaxClearChars + 1);
    if (cch > kMaxClearChars)
        return 0;
    if (pfEncoded)
        *pfEncoded = 0;

    bool needsEncoding = pszClear[0] == L'-';
    for (size_t i = 0; i < cch && !needsEncoding; ++i)
        needsEncoding = !IsVaultNameChar(pszClear[i]);

    if (!needsEncoding) {
        // A name of 42 vault characters would be read back as 42 characters, which the decoder
        // cannot tell from a damaged encoded name: such names stay refused.
        if (cch > kMaxCopiedChars) {
            LogMsg2(L"KVCConvertClearKeyNameToEncoded Name Too Long", pszClear, KSP_LOG_FAILURE);
            return 0;
        }
        wmemcpy(pszEncoded, pszClear, cch + 1);
        return 1;
    }

    if (pfEncoded)
        *pfEncoded = 1;
    wmemset(pszEncoded, 0, KVC_ENCODED_NAME_CHARS - 1);
    pszEncoded[0] = L'-';
    wmemset(pszEncoded + 1, L'z', kMinEncodedChars - 1);
    for (size_t i = 0; i < cch; ++i) {
        DWORD c = pszClear[i];
        pszEncoded[1 + 3 * i] = DigitChar(c % kBase);
        pszEncoded[2 + 3 * i] = DigitChar((c / kBase) % kBase);
        pszEncoded[3 + 3 * i] = DigitChar(c / (kBase * kBase));
    }
    return 1;
}

int KVCConvertEncodedKeyNameToClear(const WCHAR *pszEncoded, WCHAR *pszClear, DWORD *pfEncoded)
{
    if (!pszEncoded || !pszClear) {
        LogMsg(L"KVCConvertEncodedKeyNameToClear NULL", KSP_LOG_WARNING);
        return 0;
    }
    wmemset(pszClear, 0, KVC_CLEAR_NAME_CHARS);
    size_t cch = wcsnlen(pszEncoded, kMinEncodedChars);
    bool encoded = cch >= kMinEncodedChars && pszEncoded[0] == L'-' && !wcschr(pszEncoded, L'y');
    if (!encoded) {
        // Copied names are at most 41 characters; anything longer was never made by this module.
        if (cch > kMaxCopiedChars) {
            LogMsg(L"KVCConvertEncodedKeyNameToClear Name Too Long", KSP_LOG_FAILURE);
            return 0;
        }
        wmemcpy(pszClear, pszEncoded, cch + 1);
        if (pfEncoded)
            *pfEncoded = 0;
        return 1;
    }

    if (pfEncoded)
        *pfEncoded = 1;
    const WCHAR *pos = pszEncoded + 1;
    for (size_t out = 0; out < kMaxClearChars; ++out) {
        WORD digits[3] = {0, 0, 0};
        bool ended = false; // the terminator came inside this group
        for (int j = 0; j < 3; ++j, ++pos) {
            if (*pos == 0) {
                ended = true;
                break;
            }
            if (*pos == L'z') {
                if (j == 0)
                    return 1; // filler: the name is complete
                return 0;     // filler inside a group: not one of our names
            }
            if (!DigitValue(*pos, &digits[j]))
                return 0;
        }
        DWORD value = digits[0] + kBase * digits[1] + kBase * kBase * digits[2];
        if (value == 0)
            break;
        pszClear[out] = static_cast<WCHAR>(value);
        if (ended)
            break;
    }
    return 1;
}

namespace {

// "key_ops" joined with ",", at most kMaxKeyOps of them, elements of other kinds left out; null
// when there is no such array.
WCHAR *JoinKeyOps(json_object *key)
{
    json_object *ops = KVCJsonMember(key, "key_ops", json_type_array);
    if (!ops)
        return nullptr;
    BldStr *joined = BldStrNewStr(L"");
    size_t count = json_object_array_length(ops);
    if (count > kMaxKeyOps) {
        LogMsgNum(L"KVCParseJSONKey key_ops Too Many", L"kept", static_cast<int>(kMaxKeyOps), KSP_LOG_WARNING);
        count = kMaxKeyOps;
    }
    for (size_t i = 0; joined && i < count; ++i) {
        json_object *op = json_object_array_get_idx(ops, i);
        if (!json_object_is_type(op, json_type_string))
            continue; // an element of another kind is no operation
        if (joined->length)
            BldStrCat(joined, L",");
        BldStrCatAscii(joined, json_object_get_string(op));
    }
    WCHAR *pszOps = joined ? WideDup(joined->cStr) : nullptr;
    BldStrFree(joined);
    return pszOps;
}

// Copies the members of the JSON Web Key into the record.
void ReadKeyMembers(json_object *key, KVKey *theKey)
{
    if (const char *kid = KVCJsonGetString(key, "kid"))
        CopyVersion(kid, theKey->version);
    theKey->crv = BytesStrToWStr(KVCJsonGetString(key, "crv"));
    theKey->d = BytesStrToWStr(KVCJsonGetString(key, "d"));
    theKey->dp = BytesStrToWStr(KVCJsonGetString(key, "dp"));
    theKey->dq = BytesStrToWStr(KVCJsonGetString(key, "dq"));
    DecodeMember(key, "e", &theKey->e, &theKey->e_siz);
    theKey->k = BytesStrToWStr(KVCJsonGetString(key, "k"));
    theKey->kty = BytesStrToWStr(KVCJsonGetString(key, "kty"));
    theKey->isEC = theKey->kty && (wcscmp(theKey->kty, L"EC") == 0 || wcscmp(theKey->kty, L"EC-HSM") == 0);
    DecodeMember(key, "n", &theKey->n, &theKey->n_siz);
    theKey->p = BytesStrToWStr(KVCJsonGetString(key, "p"));
    theKey->q = BytesStrToWStr(KVCJsonGetString(key, "q"));
    theKey->qi = BytesStrToWStr(KVCJsonGetString(key, "qi"));
    DecodeMember(key, "x", &theKey->x, &theKey->x_siz);
    DecodeMember(key, "y", &theKey->y, &theKey->y_siz);
    theKey->key_ops = JoinKeyOps(key);
}

// The CNG algorithm of a key whose answer carries tags. The "AlgID" tag only says ECDH or not
// (the curve comes from the key itself); a tag of 20 bytes or more cannot be an algorithm name
// and counts as absent. Without a usable tag, an EC key that can sign is for signatures, any
// other EC key for agreement.
void ChooseAlgID(json_object *tags, KVKey *theKey)
{
    const char *tag = KVCJsonGetString(tags, "AlgID");
    if (tag && strlen(tag) < KVC_ALGID_CHARS) {
        if (!MultiByteToWideChar(CP_ACP, 0, tag, -1, theKey->AlgID, KVC_ALGID_CHARS))
            theKey->AlgID[0] = 0;
        if (!theKey->isEC)
            wcscpy_s(theKey->AlgID, KVC_ALGID_CHARS, L"RSA");
        else
            SetCurveAlgID(theKey, KVCAlgorithmBySizeIn(theKey->crv, wcsstr(theKey->AlgID, L"ECDH") != nullptr));
    }
    if (theKey->AlgID[0])
        return;
    const bool canSign = theKey->key_ops && wcsstr(theKey->key_ops, L"sign");
    if (!theKey->isEC)
        wcscpy_s(theKey->AlgID, KVC_ALGID_CHARS, L"RSA");
    else if (canSign)
        SetCurveAlgID(theKey, KVCAlgorithmBySizeIn(theKey->crv, FALSE));
    else
        SetCurveAlgID(theKey, KVCAlgorithmByCurve(theKey->crv, TRUE));
}

} // namespace

int KVCParseJSONKey(const WCHAR *pszKeyName, const char *pszKeyJSON, KVKey *theKey)
{
    LogMsg(L"KVCParseJSONKey", KSP_LOG_STEP);
    if (!theKey) {
        LogMsg(L"KVCParseJSONKey theKey NULL", KSP_LOG_FAILURE);
        return 0;
    }
    if (!pszKeyName) {
        LogMsg(L"KVCParseJSONKey KeyName NULL", KSP_LOG_FAILURE);
        return 0;
    }
    if (!pszKeyJSON) {
        LogMsg(L"KVCParseJSONKey KeyJSON NULL", KSP_LOG_FAILURE);
        return 0;
    }

    memset(theKey, 0, sizeof(*theKey));
    size_t cchName = wcsnlen(pszKeyName, kMaxVaultNameChars + 1);
    if (cchName > kMaxVaultNameChars) {
        LogMsg(L"KVCParseJSONKey KeyName Too Long", KSP_LOG_FAILURE);
        return 0;
    }
    wmemcpy(theKey->name, pszKeyName, cchName + 1);
    if (!KVCConvertEncodedKeyNameToClear(theKey->name, theKey->clearName, nullptr))
        wcscpy_s(theKey->clearName, KVC_CLEAR_NAME_CHARS, L"InvalidName");

    // An answer that is not JSON is not an error here: callers look at the fields they need.
    KVCJsonDoc doc = KVCJsonParse(pszKeyJSON);
    if (json_object *key = KVCJsonMember(doc.get(), "key", json_type_object))
        ReadKeyMembers(key, theKey);
    if (json_object *tags = KVCJsonMember(doc.get(), "tags", json_type_object))
        ChooseAlgID(tags, theKey);
    theKey->valid = 1;
    return 1;
}

void KVCFreeKVKey(KVKey *theKey)
{
    if (!theKey || !theKey->valid)
        return;
    // Private members of an exportable key are secrets: wiped before release.
    for (WCHAR **ppsz : {&theKey->d, &theKey->dp, &theKey->dq, &theKey->k, &theKey->p, &theKey->q, &theKey->qi}) {
        if (*ppsz)
            SecureZeroMemory(*ppsz, wcslen(*ppsz) * sizeof(WCHAR));
        free(*ppsz);
        *ppsz = nullptr;
    }
    for (WCHAR **ppsz : {&theKey->crv, &theKey->kty, &theKey->key_ops}) {
        free(*ppsz);
        *ppsz = nullptr;
    }
    for (BYTE **ppb : {&theKey->e, &theKey->n, &theKey->x, &theKey->y}) {
        free(*ppb);
        *ppb = nullptr;
    }
}

int KVCKeyMaterialUsable(KVKey *pKey)
{
    if (!pKey || !pKey->valid)
        return 0;
    if (pKey->isEC) {
        constexpr struct {
            const WCHAR *pszCrv;
            DWORD cbCoordinate;
        } kCurves[] = {{L"P-256", 32}, {L"P-384", 48}, {L"P-521", 66}};
        for (const auto &curve : kCurves)
            if (pKey->crv && wcscmp(pKey->crv, curve.pszCrv) == 0)
                return pKey->x && pKey->y && pKey->x_siz == curve.cbCoordinate && pKey->y_siz == curve.cbCoordinate;
        return 0;
    }
    if (!pKey->kty || (wcscmp(pKey->kty, L"RSA") != 0 && wcscmp(pKey->kty, L"RSA-HSM") != 0) || !pKey->n || !pKey->e)
        return 0;
    // JWK writes no leading zero bytes; one that came anyway must not make the key a byte longer.
    DWORD cbLead = 0;
    while (cbLead < pKey->n_siz && pKey->n[cbLead] == 0)
        cbLead++;
    if (cbLead) {
        memmove(pKey->n, pKey->n + cbLead, pKey->n_siz - cbLead);
        pKey->n_siz -= cbLead;
    }
    constexpr DWORD kMinModulusBytes = 2048 / 8, kMaxModulusBytes = 4096 / 8, kMaxExponentBytes = 8;
    return pKey->n_siz >= kMinModulusBytes && pKey->n_siz <= kMaxModulusBytes && pKey->e_siz >= 1 &&
           pKey->e_siz <= kMaxExponentBytes;
}
