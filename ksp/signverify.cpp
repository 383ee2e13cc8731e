// Signing and verification: both are done by the vault. These entries only turn CNG's padding,
// hash name and key type into a vault algorithm, bring the hash to the length that algorithm
// wants, and hand the work to KVCCryptoOp. An EC signature is the vault's raw r then s, which is
// CNG's layout too, so nothing is converted on the way back.
#include "ksp/ksp.h"
#include "kvclient/algorithms.h"

#include <string.h>
#include <wchar.h>

namespace {

constexpr DWORD kSignFlags = BCRYPT_PAD_PKCS1 | BCRYPT_PAD_PSS | NCRYPT_SILENT_FLAG;
constexpr DWORD kSha1Bytes = 20;
constexpr DWORD kEcScratchBytes = 64; // the longest digest an ES algorithm takes (ES512)
// With no size known, room for the largest signature the vault makes (RSA 4096) is asked for.
constexpr DWORD kUnknownSignatureBytes = 512;
// Every curve answers the P-521 size: a bound the caller can always use.
constexpr DWORD kEcSignatureBytes = 132;

// DER of a DigestInfo for SHA-1, up to the hash itself. "RSNULL" pads what it is given without
// adding a DigestInfo, so for SHA-1 (which the vault has no RS algorithm for) it is built here.
constexpr BYTE kSha1DigestInfoPrefix[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2B, 0x0E,
                                          0x03, 0x02, 0x1A, 0x05, 0x00, 0x04, 0x14};
constexpr DWORD kSha1DigestInfoBytes = sizeof(kSha1DigestInfoPrefix) + kSha1Bytes;

struct HashAlgorithm {
    DWORD dwPadding; // BCRYPT_PAD_PKCS1 or BCRYPT_PAD_PSS
    const WCHAR *pszHash;
    const WCHAR *pszVaultAlg;
};
constexpr HashAlgorithm kRsaAlgorithms[] = {
    {BCRYPT_PAD_PKCS1, L"SHA256", L"RS256"}, {BCRYPT_PAD_PKCS1, L"SHA384", L"RS384"},
    {BCRYPT_PAD_PKCS1, L"SHA512", L"RS512"}, {BCRYPT_PAD_PSS, L"SHA256", L"PS256"},
    {BCRYPT_PAD_PSS, L"SHA384", L"PS384"},   {BCRYPT_PAD_PSS, L"SHA512", L"PS512"},
};

struct EcAlgorithm {
    const WCHAR *pszVaultAlg;
    DWORD cbHash;
};

// What goes to the vault: its algorithm and the bytes to sign or check, which are the caller's
// hash, a DigestInfo around it, or the hash brought to the curve's length.
struct SignInput {
    const WCHAR *pszVaultAlg = nullptr;
    const BYTE *pbData = nullptr;
    DWORD cbData = 0;
    BYTE scratch[kEcScratchBytes] = {};
};

// The RS or PS algorithm for a hash name (any case); SHA-1 only with PKCS1 and exactly 20
// bytes, and then over a DigestInfo. False for anything else.
bool MapRsaHash(DWORD dwPadding, LPCWSTR pszHash, const BYTE *pbHash, DWORD cbHash, SignInput *pInput)
{
    if (dwPadding == BCRYPT_PAD_PKCS1 && _wcsicmp(pszHash, L"SHA1") == 0 && cbHash == kSha1Bytes) {
        memcpy(pInput->scratch, kSha1DigestInfoPrefix, sizeof(kSha1DigestInfoPrefix));
        memcpy(pInput->scratch + sizeof(kSha1DigestInfoPrefix), pbHash, kSha1Bytes);
        pInput->pszVaultAlg = L"RSNULL";
        pInput->pbData = pInput->scratch;
        pInput->cbData = kSha1DigestInfoBytes;
        return true;
    }
    for (const HashAlgorithm &alg : kRsaAlgorithms) {
        if (alg.dwPadding == dwPadding && _wcsicmp(pszHash, alg.pszHash) == 0) {
            pInput->pszVaultAlg = alg.pszVaultAlg;
            pInput->pbData = pbHash;
            pInput->cbData = cbHash;
            return true;
        }
    }
    return false;
}

// ES384 or ES512 when the key's algorithm name holds that curve's size, else ES256.
EcAlgorithm EcAlgorithmOfName(const WCHAR *pszAlgorithm)
{
    const KVC_ALGORITHM *alg = KVCAlgorithmBySizeIn(pszAlgorithm, FALSE);
    if (!alg)
        alg = KVCAlgorithmByName(L"ECDSA_P256");
    return {alg->pszEsAlgorithm, alg->cbEsHash};
}

// Brings the hash to the algorithm's length inside the scratch buffer: a short hash gets zeros
// in front, a long one keeps its rightmost bytes. (FIPS 186 would keep the leftmost; this
// provider has always signed the rightmost, and a signature must keep meaning the same hash.)
void ResizeEcHash(const WCHAR *pszResizeMsg, const WCHAR *pszKeyAlgorithm, const EcAlgorithm &alg, const BYTE *pbHash,
                  DWORD cbHash, SignInput *pInput, const WCHAR *pszResizedMsg)
{
    LogMsgNum(pszResizeMsg, pszKeyAlgorithm, static_cast<int>(cbHash), KSP_LOG_STEP);
    SecureZeroMemory(pInput->scratch, sizeof(pInput->scratch));
    if (cbHash < alg.cbHash)
        memcpy(pInput->scratch + (alg.cbHash - cbHash), pbHash, cbHash);
    else
        memcpy(pInput->scratch, pbHash + (cbHash - alg.cbHash), alg.cbHash);
    pInput->pszVaultAlg = alg.pszVaultAlg;
    pInput->pbData = pInput->scratch;
    pInput->cbData = alg.cbHash;
    LogMsg2(pszResizedMsg, alg.pszVaultAlg, KSP_LOG_STEP);
}

// The exact-name check made when an EC hash already has the curve's length.
const WCHAR *EsAlgorithmOfExactName(const WCHAR *pszAlgorithm)
{
    const KVC_ALGORITHM *alg = KVCAlgorithmByName(pszAlgorithm, TRUE);
    return alg ? alg->pszEsAlgorithm : nullptr;
}


// Holds the vault's signature to the form CNG callers rely on: an EC signature is r and s of
// the coordinate's length each, an RSA one exactly the modulus long (a shorter one is the same
// number, so it is padded with zeros in front). Anything else is no signature of this key.
// A buffer that cannot take the padded form gets NTE_FAIL and the needed length, as a buffer
// too small for the vault's answer does.
SECURITY_STATUS FitSignature(const KVKey &kvKey, PBYTE pbSignature, DWORD cbSignature, DWORD *pcbResult)
{
    const DWORD cbWanted = kvKey.isEC ? 2 * kvKey.x_siz : kvKey.n_siz;
    const DWORD cbGot = *pcbResult;
    if (cbGot == cbWanted)
        return ERROR_SUCCESS;
    if (kvKey.isEC || cbGot > cbWanted) {
        LogMsgNum(L"KestalKeyVaultKSPSignHash Bad Signature Length", L"cbSignature", static_cast<int>(cbGot),
                  KSP_LOG_FAILURE);
        return NTE_INVALID_PARAMETER;
    }
    *pcbResult = cbWanted;
    if (cbSignature < cbWanted)
        return NTE_FAIL;
    memmove(pbSignature + (cbWanted - cbGot), pbSignature, cbGot);
    memset(pbSignature, 0, cbWanted - cbGot);
    return ERROR_SUCCESS;
}

// The vault's RS or PS algorithm and input for RSA padding information, logged under the
// entry's name; NTE_NOT_SUPPORTED when the information names no hash the vault signs.
SECURITY_STATUS MapRsaPadding(const WCHAR *pszEntry, bool fSign, DWORD dwPadding, const void *pPaddingInfo,
                              const BYTE *pbHash, DWORD cbHash, SignInput *pInput)
{
    const WCHAR *pszAlgId = nullptr;
    if (dwPadding == BCRYPT_PAD_PKCS1) {
        auto *pInfo = static_cast<const BCRYPT_PKCS1_PADDING_INFO *>(pPaddingInfo);
        if (!pInfo || !pInfo->pszAlgId) {
            LogMsg2(pszEntry, L"pPaddingInfo or pszAlgId NULL", KSP_LOG_FAILURE);
            return NTE_NOT_SUPPORTED;
        }
        pszAlgId = pInfo->pszAlgId;
        if (fSign)
            LogMsg2(pszEntry, pszAlgId, KSP_LOG_STEP);
    } else {
        auto *pInfo = static_cast<const BCRYPT_PSS_PADDING_INFO *>(pPaddingInfo);
        if (!pInfo) {
            LogMsg2(pszEntry, L"pPaddingInfo NULL", KSP_LOG_FAILURE);
            return NTE_NOT_SUPPORTED;
        }
        // The vault's PS algorithms fix the salt at the hash length: cbSalt is only reported.
        if (fSign)
            LogMsgNum(pszEntry, pInfo->pszAlgId, static_cast<int>(pInfo->cbSalt), KSP_LOG_STEP);
        if (!pInfo->pszAlgId) {
            LogMsg2(pszEntry, L"phashinfo->pszAlgId == NULL", KSP_LOG_FAILURE);
            return NTE_NOT_SUPPORTED;
        }
        pszAlgId = pInfo->pszAlgId;
    }
    if (!MapRsaHash(dwPadding, pszAlgId, pbHash, cbHash, pInput)) {
        LogMsg3(pszEntry, L"Bad Hash Algorithm", pszAlgId, KSP_LOG_FAILURE);
        return NTE_NOT_SUPPORTED;
    }
    return ERROR_SUCCESS;
}

// What SignHash sends for an EC key: the hash brought to the curve's length, or as it is when
// it has that length already and the key's algorithm is one the vault signs with.
SECURITY_STATUS MapEcSignHash(const KSP_KEY *pKey, const BYTE *pbHash, DWORD cbHash, SignInput *pInput)
{
    EcAlgorithm alg = EcAlgorithmOfName(pKey->szAlgorithm);
    if (cbHash != alg.cbHash) {
        ResizeEcHash(L"KestalKeyVaultKSPSignHash Resize Hash", pKey->szAlgorithm, alg, pbHash, cbHash, pInput,
                     L"KestalKeyVaultKSPSignHash Resized the Hash");
        return ERROR_SUCCESS;
    }
    // Only a hash of the right length meets this check: a resized one has already been accepted
    // by the search for "384" and "521" alone.
    pInput->pszVaultAlg = EsAlgorithmOfExactName(pKey->szAlgorithm);
    if (!pInput->pszVaultAlg) {
        LogMsg2(L"KestalKeyVaultKSPSignHash Bad Alg", pKey->szAlgorithm, KSP_LOG_FAILURE);
        return NTE_INVALID_PARAMETER;
    }
    pInput->pbData = pbHash;
    pInput->cbData = cbHash;
    return ERROR_SUCCESS;
}

// The signature length a caller without a buffer is told, before anything is signed.
DWORD SignatureLengthOf(const KVKey &kvKey)
{
    if (!kvKey.isEC && kvKey.n_siz)
        return kvKey.n_siz;
    if (kvKey.isEC && (kvKey.x_siz == 32 || kvKey.x_siz == 48 || kvKey.x_siz == 66))
        return kEcSignatureBytes;
    return kUnknownSignatureBytes;
}

DWORD RsaPaddingOf(DWORD dwFlags) { return (dwFlags & BCRYPT_PAD_PKCS1) ? BCRYPT_PAD_PKCS1 : BCRYPT_PAD_PSS; }

KVC *ClientOfKey(const KSP_PROVIDER *provider, const KSP_KEY *pKey)
{
    return pKey->dwMachineKey ? provider->kvcMachine : provider->kvcUser;
}

} // namespace

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                            VOID *pPaddingInfo, PBYTE pbHashValue, DWORD cbHashValue,
                                                            PBYTE pbSignature, DWORD cbSignature, DWORD *pcbResult,
                                                            DWORD dwFlags)
{
    LogMsg(L"KestalKeyVaultKSPSignHash", KSP_LOG_ENTRY);
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    KSP_KEY *pKey = KspKeyFromHandle(hKey);
    if (!provider || !pKey)
        return KspFail(L"KestalKeyVaultKSPSignHash", NTE_INVALID_HANDLE);
    if (!pcbResult)
        return KspFail(L"KestalKeyVaultKSPSignHash", NTE_INVALID_PARAMETER);
    if (dwFlags & ~kSignFlags)
        return KspFail(L"KestalKeyVaultKSPSignHash", NTE_BAD_FLAGS);
    if (!pKey->fFinished)
        return KspFail(L"KestalKeyVaultKSPSignHash", NTE_BAD_KEY_STATE);
    if (!(pKey->dwKeyUsagePolicy & NCRYPT_ALLOW_SIGNING_FLAG))
        return KspFail(L"KestalKeyVaultKSPSignHash", NTE_PERM);

    const KVKey &kvKey = pKey->kvKey;
    if (!pbSignature) {
        LogMsg(L"KestalKeyVaultKSPSignHash pbSignature is NULL - return kvk.n_siz bytes", KSP_LOG_STEP);
        *pcbResult = SignatureLengthOf(kvKey);
        return ERROR_SUCCESS;
    }
    if (!pbHashValue) {
        LogMsg(L"KestalKeyVaultKSPSignHash pbHashValue is NULL", KSP_LOG_FAILURE);
        return KspFail(L"KestalKeyVaultKSPSignHash", NTE_INVALID_PARAMETER);
    }
    if (cbHashValue == 0) {
        LogMsg(L"KestalKeyVaultKSPSignHash cbHashValue is 0", KSP_LOG_FAILURE);
        return KspFail(L"KestalKeyVaultKSPSignHash", NTE_INVALID_PARAMETER);
    }
    LogMsgNum(L"KestalKeyVaultKSPSignHash", L"dwFlags ", static_cast<int>(dwFlags), KSP_LOG_STEP);
    LogMsgNum(L"KestalKeyVaultKSPSignHash", kvKey.isEC ? L"ECC cbHashValue" : L"RSA cbHashValue",
              static_cast<int>(cbHashValue), KSP_LOG_STEP);

    SignInput input;
    SECURITY_STATUS status = ERROR_SUCCESS;
    if ((dwFlags & (BCRYPT_PAD_PKCS1 | BCRYPT_PAD_PSS)) && !kvKey.isEC) {
        status = MapRsaPadding(L"KestalKeyVaultKSPSignHash", true, RsaPaddingOf(dwFlags), pPaddingInfo, pbHashValue,
                               cbHashValue, &input);
    } else if (dwFlags == 0 && kvKey.isEC) {
        status = MapEcSignHash(pKey, pbHashValue, cbHashValue, &input);
    } else {
        LogMsgNum(L"KestalKeyVaultKSPSignHash", L"Bad Flag", static_cast<int>(dwFlags), KSP_LOG_FAILURE);
        status = NTE_INVALID_PARAMETER;
    }
    if (status != ERROR_SUCCESS)
        return KspFail(L"KestalKeyVaultKSPSignHash", status);

    LogMsg(L"KestalKeyVaultKSPSignHash pbSignature is NOT NULL", KSP_LOG_STEP);
    KVC *kvc = ClientOfKey(provider, pKey);
    if (!KVCAuthenticate(kvc, nullptr)) {
        LogMsgError(L"KestalKeyVaultKSPSignHash Authenticate Failed ", static_cast<DWORD>(SEC_E_LOGON_DENIED),
                    KSP_LOG_FAILURE);
        return KspFail(L"KestalKeyVaultKSPSignHash", SEC_E_LOGON_DENIED);
    }
    LogMsg2(L"KestalKeyVaultKSPSignHash algId and Data", input.pszVaultAlg, KSP_LOG_STEP);
    *pcbResult = cbSignature;
    status = KVCCryptoOp(kvc, L"sign", kvKey.name, kvKey.version, FALSE, input.pszVaultAlg,
                                         input.pbData, input.cbData, pbSignature, pcbResult);
    if (status == ERROR_SUCCESS)
        status = FitSignature(kvKey, pbSignature, cbSignature, pcbResult);
    return status == ERROR_SUCCESS ? status : KspFail(L"KestalKeyVaultKSPSignHash", status);
}

extern "C" SECURITY_STATUS WINAPI KestalKeyVaultKSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                                                   VOID *pPaddingInfo, PBYTE pbHashValue,
                                                                   DWORD cbHashValue, PBYTE pbSignature,
                                                                   DWORD cbSignature, DWORD dwFlags)
{
    LogMsg(L"KestalKeyVaultKSPVerifySignature", KSP_LOG_ENTRY);
    KSP_PROVIDER *provider = KspProviderFromHandle(hProvider);
    KSP_KEY *pKey = KspKeyFromHandle(hKey);
    if (!provider || !pKey)
        return KspFail(L"KestalKeyVaultKSPVerifySignature", NTE_INVALID_HANDLE);
    if (!pKey->fFinished)
        return KspFail(L"KestalKeyVaultKSPVerifySignature", NTE_BAD_KEY_STATE);
    if (!pbHashValue || cbHashValue == 0)
        return KspFail(L"KestalKeyVaultKSPVerifySignature", NTE_INVALID_PARAMETER);
    if (dwFlags & ~kSignFlags)
        return KspFail(L"KestalKeyVaultKSPVerifySignature", NTE_BAD_FLAGS);
    // Anyone may check a signature: the key's usage is not consulted.

    const KVKey &kvKey = pKey->kvKey;
    SignInput input;
    if (!(dwFlags & (BCRYPT_PAD_PKCS1 | BCRYPT_PAD_PSS)) && kvKey.isEC) {
        EcAlgorithm alg = EcAlgorithmOfName(pKey->szAlgorithm);
        if (cbHashValue != alg.cbHash) {
            ResizeEcHash(L"KestalKeyVaultKSPVerifySignature Resize Hash", pKey->szAlgorithm, alg, pbHashValue,
                         cbHashValue, &input, L"KestalKeyVaultKSPVerifySignature Resized the Hash");
        } else {
            input.pszVaultAlg = alg.pszVaultAlg;
            input.pbData = pbHashValue;
            input.cbData = cbHashValue;
        }
    } else if ((dwFlags & (BCRYPT_PAD_PKCS1 | BCRYPT_PAD_PSS)) && !kvKey.isEC) {
        SECURITY_STATUS status = MapRsaPadding(L"KestalKeyVaultKSPVerifySignature", false, RsaPaddingOf(dwFlags),
                                               pPaddingInfo, pbHashValue, cbHashValue, &input);
        if (status != ERROR_SUCCESS)
            return KspFail(L"KestalKeyVaultKSPVerifySignature", status);
    } else {
        LogMsg(L"KestalKeyVaultKSPVerifySignature Non ECC but not BCRYPT_PAD_PKCS1 or BCRYPT_PAD_PSS",
               KSP_LOG_FAILURE);
        return KspFail(L"KestalKeyVaultKSPVerifySignature", NTE_NOT_SUPPORTED);
    }

    KVC *kvc = ClientOfKey(provider, pKey);
    if (!KVCAuthenticate(kvc, nullptr)) {
        LogMsgError(L"KestalKeyVaultKSPVerifySignature Authenticate Failed ",
                    static_cast<DWORD>(SEC_E_LOGON_DENIED), KSP_LOG_FAILURE);
        return KspFail(L"KestalKeyVaultKSPVerifySignature", SEC_E_LOGON_DENIED);
    }
    // The signature travels as "value" and the hash as "digest"; the verdict is the vault's.
    DWORD cbData = input.cbData;
    SECURITY_STATUS status = KVCCryptoOp(kvc, L"verify", kvKey.name, kvKey.version, TRUE, input.pszVaultAlg,
                                         pbSignature, cbSignature, const_cast<BYTE *>(input.pbData), &cbData);
    return status < 0 ? KspFail(L"KestalKeyVaultKSPVerifySignature", status) : ERROR_SUCCESS;
}
