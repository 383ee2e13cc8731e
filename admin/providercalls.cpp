// `keys`, `test` and `sync`: the registered DLL driven through its function table, as the CNG
// router drives it (Windows' own router cannot be asked to load one particular provider, and
// Wine's never loads a third-party one), so what these commands show is what programs get.
#include "admin/admin.h"

#include <bcrypt.h>
#include <wincrypt.h>

#include <string.h>

#include <algorithm>

#include "ksp/ksp.h"

namespace {

using GetInterfaceFn = NTSTATUS(WINAPI *)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE **, DWORD);

// A key handle of the loaded provider, freed through its table.
struct KeyHandle {
    const KSPADM_PROVIDER *pProvider;
    NCRYPT_KEY_HANDLE h = 0;
    explicit KeyHandle(const KSPADM_PROVIDER *p) : pProvider(p) {}
    KeyHandle(const KeyHandle &) = delete;
    KeyHandle &operator=(const KeyHandle &) = delete;
    ~KeyHandle()
    {
        if (h)
            pProvider->pTable->FreeKey(pProvider->hProvider, h);
    }
};

struct BcryptAlgorithm {
    BCRYPT_ALG_HANDLE h = nullptr;
    ~BcryptAlgorithm()
    {
        if (h)
            BCryptCloseAlgorithmProvider(h, 0);
    }
};

struct BcryptKey {
    BCRYPT_KEY_HANDLE h = nullptr;
    ~BcryptKey()
    {
        if (h)
            BCryptDestroyKey(h);
    }
};

struct CertStore {
    HCERTSTORE h = nullptr;
    ~CertStore()
    {
        if (h)
            CertCloseStore(h, 0);
    }
};

// Loads the DLL the registration names and opens a provider handle; prints why not.
int OpenRegisteredProvider(KSPADM_PROVIDER *pProvider)
{
    KSPADM_REGISTRATION reg;
    ReadRegistration(&reg);
    if (!IsRegistered(&reg)) {
        Err(L"The provider is not registered with CNG: run kestalksp register\n");
        return 0;
    }
    return LoadProvider(ImagePath(reg.image).c_str(), TRUE, pProvider);
}

// Exit code and advice for a status the provider returned for the vault work of a command.
int ExplainStatus(const wchar_t *pszWhat, SECURITY_STATUS status, BOOL fMachine)
{
    const wchar_t *pszUser = fMachine ? L"" : L" --user";
    Err(L"%ls failed: %ls.\n", pszWhat, StatusText(status).c_str());
    if (status == SEC_E_LOGON_DENIED) {
        Err(L"The provider could not sign in. For the cause run: kestalksp status --probe%ls\n", pszUser);
        return KSPADM_SIGNIN;
    }
    if (status == static_cast<SECURITY_STATUS>(0x801B8002)) {
        Err(L"The vault did not list its keys. For the cause run: kestalksp status --probe%ls\n", pszUser);
        return KSPADM_VAULT;
    }
    Err(L"Today's log tells more (kestalksp status shows where it is).\n");
    return KSPADM_FAILED;
}

SECURITY_STATUS OpenKey(const KSPADM_PROVIDER *pProvider, const std::wstring &name, BOOL fMachine, KeyHandle *pKey)
{
    return pProvider->pTable->OpenKey(pProvider->hProvider, &pKey->h, name.c_str(), 0,
                                      fMachine ? NCRYPT_MACHINE_KEY_FLAG : 0);
}

DWORD KeyLength(const KSPADM_PROVIDER *pProvider, const KeyHandle *pKey)
{
    DWORD dwBits = 0;
    DWORD cb = 0;
    pProvider->pTable->GetKeyProperty(pProvider->hProvider, pKey->h, NCRYPT_LENGTH_PROPERTY,
                                      reinterpret_cast<PBYTE>(&dwBits), sizeof(dwBits), &cb, 0);
    return dwBits;
}

std::wstring KeyAlgorithm(const KSPADM_PROVIDER *pProvider, const KeyHandle *pKey)
{
    wchar_t szAlgorithm[64] = L"";
    DWORD cb = 0;
    pProvider->pTable->GetKeyProperty(pProvider->hProvider, pKey->h, NCRYPT_ALGORITHM_PROPERTY,
                                      reinterpret_cast<PBYTE>(szAlgorithm), sizeof(szAlgorithm) - sizeof(wchar_t), &cb,
                                      0);
    return szAlgorithm;
}

// The hash that fits the key: a P-384 key signs SHA-384, P-521 SHA-512, the rest SHA-256.
const wchar_t *HashFor(const std::wstring &algorithm)
{
    if (algorithm.find(L"P384") != std::wstring::npos)
        return BCRYPT_SHA384_ALGORITHM;
    if (algorithm.find(L"P521") != std::wstring::npos)
        return BCRYPT_SHA512_ALGORITHM;
    return BCRYPT_SHA256_ALGORITHM;
}

// A hash of fresh random bytes, so that no earlier signature can be replayed as this one.
BOOL FreshHash(const wchar_t *pszHash, std::vector<BYTE> *pHash)
{
    BYTE data[64];
    BcryptAlgorithm alg;
    DWORD cbHash = 0;
    DWORD cb = 0;
    if (BCryptGenRandom(nullptr, data, sizeof(data), BCRYPT_USE_SYSTEM_PREFERRED_RNG) != 0 ||
        BCryptOpenAlgorithmProvider(&alg.h, pszHash, nullptr, 0) != 0 ||
        BCryptGetProperty(alg.h, BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&cbHash), sizeof(cbHash), &cb, 0) != 0)
        return FALSE;
    pHash->resize(cbHash);
    return BCryptHash(alg.h, nullptr, 0, data, sizeof(data), pHash->data(), cbHash) == 0;
}

// The key's public blob as the provider exports it, imported into BCrypt. ECDH keys sign too
// here, so their blob is imported as ECDSA, which verifies.
NTSTATUS ImportPublicKey(const KSPADM_PROVIDER *pProvider, const KeyHandle *pKey, BOOL fRsa, BcryptAlgorithm *pAlg,
                         BcryptKey *pPublic)
{
    const wchar_t *pszBlob = fRsa ? BCRYPT_RSAPUBLIC_BLOB : BCRYPT_ECCPUBLIC_BLOB;
    DWORD cb = 0;
    SECURITY_STATUS status = pProvider->pTable->ExportKey(pProvider->hProvider, pKey->h, 0, pszBlob, nullptr, nullptr,
                                                           0, &cb, 0);
    std::vector<BYTE> blob(cb);
    if (status == 0)
        status = pProvider->pTable->ExportKey(pProvider->hProvider, pKey->h, 0, pszBlob, nullptr, blob.data(), cb, &cb, 0);
    if (status != 0 || cb < sizeof(ULONG))
        return status ? status : NTE_BAD_DATA;
    ULONG magic = 0;
    memcpy(&magic, blob.data(), sizeof(magic));
    const wchar_t *pszAlg = BCRYPT_RSA_ALGORITHM;
    static const struct {
        ULONG ecdh, ecdsa;
        const wchar_t *pszAlg;
    } kCurves[] = {
        {BCRYPT_ECDH_PUBLIC_P256_MAGIC, BCRYPT_ECDSA_PUBLIC_P256_MAGIC, BCRYPT_ECDSA_P256_ALGORITHM},
        {BCRYPT_ECDH_PUBLIC_P384_MAGIC, BCRYPT_ECDSA_PUBLIC_P384_MAGIC, BCRYPT_ECDSA_P384_ALGORITHM},
        {BCRYPT_ECDH_PUBLIC_P521_MAGIC, BCRYPT_ECDSA_PUBLIC_P521_MAGIC, BCRYPT_ECDSA_P521_ALGORITHM},
    };
    for (const auto &curve : kCurves) {
        if (magic == curve.ecdh || magic == curve.ecdsa) {
            memcpy(blob.data(), &curve.ecdsa, sizeof(curve.ecdsa));
            pszAlg = curve.pszAlg;
        }
    }
    NTSTATUS nt = BCryptOpenAlgorithmProvider(&pAlg->h, pszAlg, nullptr, 0);
    if (nt == 0)
        nt = BCryptImportKeyPair(pAlg->h, nullptr, pszBlob, &pPublic->h, blob.data(), cb, 0);
    return nt;
}

// The local machine's "My" store, read only.
HCERTSTORE OpenMachineStore()
{
    return CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE | CERT_STORE_READONLY_FLAG,
                         L"My");
}

// The SHA-1 thumbprint in upper-case hexadecimal, as signtool /sha1 takes it.
std::wstring Thumbprint(PCCERT_CONTEXT pCert)
{
    BYTE hash[20];
    DWORD cb = sizeof(hash);
    wchar_t szHex[41] = L"";
    if (CertGetCertificateContextProperty(pCert, CERT_SHA1_HASH_PROP_ID, hash, &cb) && cb == sizeof(hash))
        for (DWORD i = 0; i < cb; ++i)
            _snwprintf_s(szHex + 2 * i, 3, _TRUNCATE, L"%02X", hash[i]);
    return szHex;
}

std::vector<std::wstring> MachineStoreThumbprints()
{
    std::vector<std::wstring> thumbprints;
    CertStore store;
    store.h = OpenMachineStore();
    for (PCCERT_CONTEXT pCert = nullptr; store.h && (pCert = CertEnumCertificatesInStore(store.h, pCert)) != nullptr;)
        thumbprints.push_back(Thumbprint(pCert));
    return thumbprints;
}

// One line per certificate of the machine store not in before: thumbprint, subject, key name.
unsigned PrintAddedCertificates(const std::vector<std::wstring> &before)
{
    CertStore store;
    store.h = OpenMachineStore();
    unsigned cAdded = 0;
    for (PCCERT_CONTEXT pCert = nullptr; store.h && (pCert = CertEnumCertificatesInStore(store.h, pCert)) != nullptr;) {
        std::wstring thumbprint = Thumbprint(pCert);
        if (std::find(before.begin(), before.end(), thumbprint) != before.end())
            continue;
        wchar_t szSubject[256] = L"";
        CertGetNameStringW(pCert, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, szSubject, ARRAYSIZE(szSubject));
        std::vector<BYTE> info;
        DWORD cb = 0;
        const wchar_t *pszKey = nullptr;
        if (CertGetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &cb)) {
            info.resize(cb);
            if (CertGetCertificateContextProperty(pCert, CERT_KEY_PROV_INFO_PROP_ID, info.data(), &cb))
                pszKey = reinterpret_cast<CRYPT_KEY_PROV_INFO *>(info.data())->pwszContainerName;
        }
        Out(L"  added %ls  %ls  (key \"%ls\")\n", thumbprint.c_str(), szSubject, pszKey ? pszKey : L"");
        ++cAdded;
    }
    return cAdded;
}

// What `test` signs: a fresh hash the key's curve fits (PKCS#1 v1.5 padding for RSA), and the
// signature the vault made of it.
struct TEST_SIGNATURE {
    BOOL fRsa;
    const wchar_t *pszHash;
    BCRYPT_PKCS1_PADDING_INFO pkcs1;
    std::vector<BYTE> hash;
    std::vector<BYTE> signature;
    explicit TEST_SIGNATURE(const std::wstring &algorithm)
        : fRsa(algorithm == BCRYPT_RSA_ALGORITHM), pszHash(HashFor(algorithm)), pkcs1{pszHash}
    {
    }
    void *Padding() { return fRsa ? &pkcs1 : nullptr; }
    DWORD PaddingFlag() const { return fRsa ? BCRYPT_PAD_PKCS1 : 0; }
};

// The vault signs the hash through the provider's SignHash (size first, as CNG callers ask);
// *pulMs receives the time both calls took.
SECURITY_STATUS SignInVault(const KSPADM_PROVIDER *pProvider, const KeyHandle *pKey, TEST_SIGNATURE *pSig,
                            unsigned long *pulMs)
{
    LARGE_INTEGER start, end, frequency;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&start);
    DWORD cb = 0;
    DWORD cbHash = static_cast<DWORD>(pSig->hash.size());
    SECURITY_STATUS status = pProvider->pTable->SignHash(pProvider->hProvider, pKey->h, pSig->Padding(),
                                                         pSig->hash.data(), cbHash, nullptr, 0, &cb, pSig->PaddingFlag());
    pSig->signature.resize(cb);
    if (status == 0)
        status = pProvider->pTable->SignHash(pProvider->hProvider, pKey->h, pSig->Padding(), pSig->hash.data(), cbHash,
                                             pSig->signature.data(), cb, &cb, pSig->PaddingFlag());
    QueryPerformanceCounter(&end);
    pSig->signature.resize(cb);
    *pulMs = static_cast<unsigned long>((end.QuadPart - start.QuadPart) * 1000 / frequency.QuadPart);
    return status;
}

// Windows' own BCrypt checks the signature against the public key the provider exports.
NTSTATUS VerifyLocally(const KSPADM_PROVIDER *pProvider, const KeyHandle *pKey, TEST_SIGNATURE *pSig)
{
    BcryptAlgorithm alg;
    BcryptKey publicKey;
    NTSTATUS nt = ImportPublicKey(pProvider, pKey, pSig->fRsa, &alg, &publicKey);
    if (nt == 0)
        nt = BCryptVerifySignature(publicKey.h, pSig->Padding(), pSig->hash.data(), static_cast<ULONG>(pSig->hash.size()),
                                   pSig->signature.data(), static_cast<ULONG>(pSig->signature.size()),
                                   pSig->PaddingFlag());
    return nt;
}

// The name of the vault's first machine key; NTE_NO_MORE_ITEMS when it has none.
SECURITY_STATUS FirstKeyName(const KSPADM_PROVIDER *pProvider, std::wstring *pName)
{
    NCryptKeyName *pKeyName = nullptr;
    PVOID pState = nullptr;
    SECURITY_STATUS status =
        pProvider->pTable->EnumKeys(pProvider->hProvider, nullptr, &pKeyName, &pState, NCRYPT_MACHINE_KEY_FLAG);
    if (status == 0)
        *pName = pKeyName->pszName;
    if (pKeyName)
        pProvider->pTable->FreeBuffer(pKeyName);
    if (pState)
        pProvider->pTable->FreeBuffer(pState);
    return status;
}

} // namespace

KSPADM_PROVIDER::~KSPADM_PROVIDER()
{
    if (hProvider)
        pTable->FreeProvider(hProvider);
    if (hModule)
        FreeLibrary(hModule);
}

int LoadProvider(const wchar_t *pszPath, BOOL fOpen, KSPADM_PROVIDER *pProvider)
{
    pProvider->hModule = LoadLibraryExW(pszPath, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (!pProvider->hModule) {
        Err(L"%ls cannot be loaded (error %lu).\n", pszPath, GetLastError());
        return 0;
    }
    auto pfnGetInterface = reinterpret_cast<GetInterfaceFn>(
        reinterpret_cast<void *>(GetProcAddress(pProvider->hModule, "GetKeyStorageInterface")));
    if (!pfnGetInterface || pfnGetInterface(KSP_PROVIDER_NAME, &pProvider->pTable, 0) != 0 || !pProvider->pTable ||
        pProvider->pTable->Version.MajorVersion != 1 || pProvider->pTable->Version.MinorVersion != 0) {
        Err(L"%ls is not a key storage provider of version 1.0.\n", pszPath);
        return 0;
    }
    auto ppEntries = reinterpret_cast<void *const *>(&pProvider->pTable->OpenProvider);
    for (int slot = 0; slot < 26; ++slot) {
        if (!ppEntries[slot]) {
            Err(L"%ls has an empty function table entry (%d).\n", pszPath, slot + 1);
            return 0;
        }
    }
    if (!fOpen)
        return 1;
    SECURITY_STATUS status = pProvider->pTable->OpenProvider(&pProvider->hProvider, KSP_PROVIDER_NAME, 0);
    if (status != 0) {
        pProvider->hProvider = 0;
        Err(L"The provider did not open: %ls.\n", StatusText(status).c_str());
        return 0;
    }
    return 1;
}

int CmdKeys(const KSPADM_ARGS *pArgs)
{
    KSPADM_PROVIDER provider;
    if (!OpenRegisteredProvider(&provider))
        return KSPADM_FAILED;
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *pTable = provider.pTable;
    DWORD dwFlags = pArgs->fMachine ? NCRYPT_MACHINE_KEY_FLAG : 0;
    std::vector<std::wstring> names;
    PVOID pState = nullptr;
    SECURITY_STATUS status = 0;
    for (;;) {
        NCryptKeyName *pName = nullptr;
        status = pTable->EnumKeys(provider.hProvider, nullptr, &pName, &pState, dwFlags);
        if (status != 0)
            break;
        names.emplace_back(pName->pszName);
        pTable->FreeBuffer(pName);
    }
    if (pState)
        pTable->FreeBuffer(pState);
    if (status != NTE_NO_MORE_ITEMS)
        return ExplainStatus(L"Listing the keys", status, pArgs->fMachine);

    std::wstring vault = ReadStringSetting(pArgs->fMachine, L"KeyVault");
    Out(L"Keys of the %ls scope (KeyVault %ls):\n", ScopeName(pArgs->fMachine), vault.empty() ? L"%G" : vault.c_str());
    Out(L"  %-42ls %-12ls %ls\n", L"NAME", L"ALGORITHM", L"BITS");
    for (const std::wstring &name : names) {
        KeyHandle key(&provider);
        status = OpenKey(&provider, name, pArgs->fMachine, &key);
        if (status != 0) {
            Out(L"  %-42ls (cannot be opened: %ls)\n", name.c_str(), StatusText(status).c_str());
            continue;
        }
        Out(L"  %-42ls %-12ls %lu\n", name.c_str(), KeyAlgorithm(&provider, &key).c_str(),
            static_cast<unsigned long>(KeyLength(&provider, &key)));
    }
    Out(L"%u keys.%ls\n", static_cast<unsigned>(names.size()),
        names.empty() ? L"" : L" Next: kestalksp test <name>");
    return KSPADM_OK;
}

int CmdTest(const KSPADM_ARGS *pArgs)
{
    const std::wstring &name = pArgs->words[0];
    KSPADM_PROVIDER provider;
    if (!OpenRegisteredProvider(&provider))
        return KSPADM_FAILED;
    KeyHandle key(&provider);
    SECURITY_STATUS status = OpenKey(&provider, name, pArgs->fMachine, &key);
    if (status == NTE_NOT_FOUND || status == NTE_BAD_KEYSET) {
        Err(L"Key \"%ls\" was not found in the vault (%ls scope). The keys there: kestalksp keys%ls\n", name.c_str(),
            ScopeName(pArgs->fMachine), pArgs->fMachine ? L"" : L" --user");
        return KSPADM_NO_KEY;
    }
    if (status != 0)
        return ExplainStatus(L"Opening the key", status, pArgs->fMachine);

    std::wstring algorithm = KeyAlgorithm(&provider, &key);
    Out(L"Key \"%ls\": %ls, %lu bits (%ls scope)\n", name.c_str(), algorithm.c_str(),
        static_cast<unsigned long>(KeyLength(&provider, &key)), ScopeName(pArgs->fMachine));
    TEST_SIGNATURE sig(algorithm);
    if (!FreshHash(sig.pszHash, &sig.hash)) {
        Err(L"BCrypt could not make a %ls hash.\n", sig.pszHash);
        return KSPADM_FAILED;
    }
    unsigned long ulMs = 0;
    status = SignInVault(&provider, &key, &sig, &ulMs);
    if (status != 0)
        return ExplainStatus(L"Signing", status, pArgs->fMachine);
    Out(L"Signed a fresh %ls hash in the vault: %u-byte signature in %lu ms.\n", sig.pszHash,
        static_cast<unsigned>(sig.signature.size()), ulMs);
    NTSTATUS nt = VerifyLocally(&provider, &key, &sig);
    if (nt != 0) {
        Err(L"The signature does NOT verify against the key's exported public key (0x%08lX).\n",
            static_cast<unsigned long>(nt));
        return KSPADM_FAILED;
    }
    Out(L"Verified locally with BCrypt against the exported public key: the key signs correctly.\n");
    return KSPADM_OK;
}

int CmdSync(const KSPADM_ARGS *)
{
    if (ReadDwordSetting(TRUE, L"CertificatesOrKeys", 0) != 0) {
        Err(L"The certificate sync runs only in certificate mode, and this machine uses plain vault keys\n"
            L"(CertificatesOrKeys 1). To switch: kestalksp config set CertificatesOrKeys 0\n");
        return KSPADM_FAILED;
    }
    RegKeyOwner settings;
    LSTATUS rc = RegOpenKeyExW(HKEY_LOCAL_MACHINE, KSP_SETTINGS_KEY, 0, KEY_SET_VALUE | KSP_SETTINGS_VIEW, &settings.h);
    if (rc == ERROR_SUCCESS)
        rc = RegDeleteValueW(settings.h, L"FromKVLastSyncTime");
    if (rc == ERROR_ACCESS_DENIED) {
        Err(L"Access to HKEY_LOCAL_MACHINE was denied: run this from an elevated (Administrator) prompt.\n");
        return KSPADM_FAILED;
    }
    // A stamp left in place would pass the check below for a sync that never ran.
    if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) {
        Err(L"FromKVLastSyncTime could not be removed (error %ld), so the sync would not run.\n", static_cast<long>(rc));
        return KSPADM_FAILED;
    }
    std::vector<std::wstring> before = MachineStoreThumbprints();
    KSPADM_PROVIDER provider;
    if (!OpenRegisteredProvider(&provider))
        return KSPADM_FAILED;
    // Opening a machine key starts the sync. The vault's first key serves: a vault without
    // keys has no certificates either (each one has its key).
    std::wstring first;
    SECURITY_STATUS status = FirstKeyName(&provider, &first);
    if (status == NTE_NO_MORE_ITEMS) {
        Out(L"The vault has no keys, so it has no certificates to sync.\n");
        return KSPADM_OK;
    }
    KeyHandle key(&provider);
    if (status == 0)
        status = OpenKey(&provider, first, TRUE, &key);
    if (status != 0)
        return ExplainStatus(L"The sync", status, TRUE);
    if (ReadDwordSetting(TRUE, L"FromKVLastSyncTime", 0) == 0) {
        Err(L"The sync did not run (no FromKVLastSyncTime was recorded). Today's log tells more.\n");
        return KSPADM_FAILED;
    }
    Out(L"Certificate sync ran:\n");
    unsigned cAdded = PrintAddedCertificates(before);
    if (cAdded == 0)
        Out(L"  nothing added: every vault certificate is already recorded in CertSync, or the vault has none\n"
            L"  (if it could not be listed, today's log says why).\n");
    else
        Out(L"%u certificates added to the local machine's \"My\" store, each bound to this provider.\n", cAdded);
    return KSPADM_OK;
}
