#include "tests/harness/harness.h"

#include <gtest/gtest.h>
#include <wincrypt.h>

using namespace kestal_test;

namespace {

constexpr DWORD kMachine = NCRYPT_MACHINE_KEY_FLAG, kLater = NCRYPT_DO_NOT_FINALIZE_FLAG;

class Lifecycle : public VaultProviderTest {
protected:
    // What a vault lists as "keys", "certificates", "deletedKeys" or "deletedCertificates", as "a,b".
    std::string Vault(const std::wstring &vault, const char *member)
    {
        Json state = ParseJson(emulator.Call(L"GET", L"/vaults/" + vault).body);
        json_object *list = json_object_object_get(state.get(), member);
        std::string out;
        for (size_t i = 0; i < json_object_array_length(list); ++i)
            out += (i ? "," : "") + std::string(json_object_get_string(json_object_array_get_idx(list, i)));
        return out;
    }
    // The certificate the vault was last asked to merge for a key: the placeholder over its key.
    std::string Merged(const std::wstring &name) const
    {
        std::string last;
        for (const SeenRequest &r : VaultRequests())
            if (r.url.rfind("/certificates/" + Narrow(name) + "/pending/merge", 0) == 0)
                last = r.body;
        Json body = ParseJson(last);
        json_object *x5c = json_object_object_get(body.get(), "x5c");
        Bytes der = FromBase64(json_object_get_string(json_object_array_get_idx(x5c, 0)));
        return ToStr(der.data(), der.size());
    }
    // Signs a SHA-256 hash through the provider; Windows checks the signature.
    void ExpectSignatureVerifies(NCRYPT_PROV_HANDLE p, NCRYPT_KEY_HANDLE h, BCRYPT_KEY_HANDLE publicKey, bool rsa)
    {
        BCRYPT_PKCS1_PADDING_INFO padding = {L"SHA256"}, *pad = rsa ? &padding : nullptr;
        std::vector<BYTE> hash = HashOf(padding.pszAlgId, "lifecycle"), signature(600);
        DWORD cb = 0, flags = rsa ? BCRYPT_PAD_PKCS1 : 0, cbHash = static_cast<DWORD>(hash.size());
        ASSERT_EQ(Ksp().SignHash(p, h, pad, hash.data(), cbHash, signature.data(), 600, &cb, flags), 0);
        EXPECT_EQ(BCryptVerifySignature(publicKey, pad, hash.data(), cbHash, signature.data(), cb, flags), 0);
    }
};

} // namespace

TEST_F(Lifecycle, CreatedKeysReachTheVaultSignThereAndAreDeletedAndPurged)
{
    const struct { DWORD certificatesOrKeys; HKEY hive; const wchar_t *alg; } rows[] = {
        {.certificatesOrKeys = 0, .hive = HKEY_LOCAL_MACHINE, .alg = L"RSA"},
        {.certificatesOrKeys = 1, .hive = HKEY_CURRENT_USER, .alg = L"ECDSA_P256"},
    };
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = Ksp();
    for (const auto &row : rows) {
        const bool machine = row.hive == HKEY_LOCAL_MACHINE, rsa = row.alg == std::wstring(L"RSA");
        const bool certMode = !row.certificatesOrKeys;
        const std::wstring name = L"key" + std::to_wstring(&row - rows);
        SCOPED_TRACE(Narrow(name));
        UseVault(row.hive, L"kestaltest", row.certificatesOrKeys);
        NCRYPT_PROV_HANDLE p = OpenProvider();
        NCRYPT_KEY_HANDLE h = 0;
        ASSERT_EQ(ksp.CreatePersistedKey(p, &h, row.alg, name.c_str(), 0, machine ? kMachine : 0), 0);
        ASSERT_EQ(ksp.FinalizeKey(p, h, 0), 0);
        EXPECT_EQ(Vault(L"kestaltest", "keys"), Narrow(name));
        BcryptKey exported =
            ImportPublicBlob(ExportKeyBlob(ksp, p, h, rsa ? BCRYPT_RSAPUBLIC_BLOB : BCRYPT_ECCPUBLIC_BLOB));
        ASSERT_TRUE(exported);
        ExpectSignatureVerifies(p, h, exported.get(), rsa);
        if (certMode) {
            // The merged certificate carries the vault key; the placeholder never enters the store.
            const std::string der = Merged(name);
            PCCERT_CONTEXT cert = CertCreateCertificateContext(X509_ASN_ENCODING, ToBytes(der).data(), Size(der));
            ASSERT_TRUE(cert);
            BCRYPT_KEY_HANDLE fromCert = nullptr;
            ASSERT_TRUE(CryptImportPublicKeyInfoEx2(X509_ASN_ENCODING, &cert->pCertInfo->SubjectPublicKeyInfo, 0,
                                                    nullptr, &fromCert));
            ExpectSignatureVerifies(p, h, fromCert, rsa);
            BCryptDestroyKey(fromCert);
            CertFreeCertificateContext(cert);
            NCRYPT_KEY_HANDLE opened = 0; // a machine open syncs the vault's certificates into the store
            EXPECT_EQ(ksp.OpenKey(p, &opened, name.c_str(), 0, machine ? kMachine : 0), 0);
            EXPECT_EQ(ksp.FreeKey(p, opened), 0);
            EXPECT_EQ(Log("KVCPropogateCertificateFromKeyVault Certificate Added").size(), 0u);
        }
        ASSERT_EQ(ksp.DeleteKey(p, h, 0), 0);
        for (const char *member : {"keys", "certificates", "deletedKeys", "deletedCertificates"})
            EXPECT_EQ(Vault(L"kestaltest", member), "") << member;
    }
}

TEST_F(Lifecycle, RefusalsAndVaultFailuresLeaveUsableHandles)
{
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
    SeedKey(emulator, L"kestaltest", "taken");
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = Ksp();
    NCRYPT_PROV_HANDLE p = OpenProvider();
    NCRYPT_KEY_HANDLE h = 0, nameless = 0, ghost = 0;
    EXPECT_EQ(ksp.CreatePersistedKey(p, &h, L"DSA", L"k", 0, 0), NTE_NOT_SUPPORTED);
    EXPECT_EQ(ksp.CreatePersistedKey(p, &h, L"RSA", L"k", 0, 0), SEC_E_LOGON_DENIED); // no user vault set up
    EXPECT_EQ(ksp.CreatePersistedKey(p, &h, L"RSA", L"taken", 0, kMachine), NTE_EXISTS);

    ASSERT_EQ(ksp.CreatePersistedKey(p, &nameless, L"ECDH_P256", nullptr, 0, kMachine), 0);
    EXPECT_EQ(ksp.FinalizeKey(p, nameless, NCRYPT_NO_KEY_VALIDATION | NCRYPT_SILENT_FLAG), 0);
    EXPECT_EQ(ksp.FinalizeKey(p, nameless, 0), NTE_INVALID_HANDLE); // a second time
    EXPECT_EQ(VaultRequests().size(), 1u);                          // the look for "taken" only

    ASSERT_EQ(ksp.CreatePersistedKey(p, &h, L"RSA", L"taken", 0, kMachine | NCRYPT_OVERWRITE_KEY_FLAG), 0);
    ScriptAnswers(emulator, "vault", R"([{"status":500,"body":{}}])", "POST", "/keys/taken/create");
    EXPECT_EQ(ksp.FinalizeKey(p, h, 0), NTE_FAIL);
    EXPECT_EQ(ksp.FinalizeKey(p, h, 0), 0); // a failed finalize can be tried again

    ASSERT_EQ(ksp.CreatePersistedKey(p, &ghost, L"RSA", L"ghost", 0, kMachine), 0); // never in the vault
    EXPECT_EQ(ksp.DeleteKey(p, ghost, 0), NTE_INTERNAL_ERROR);
    EXPECT_EQ(ksp.FreeKey(p, ghost), 0);
    EXPECT_EQ(ksp.DeleteKey(p, h, NCRYPT_SILENT_FLAG), 0);
}

// certreq -accept binds the issued certificate to the key; freeing the key publishes it to the vault once.
TEST_F(Lifecycle, FreeKeyUploadsTheBoundStoreCertificateOnce)
{
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest", 0);
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = Ksp();
    NCRYPT_PROV_HANDLE p = OpenProvider();
    NCRYPT_KEY_HANDLE h = 0;
    ASSERT_EQ(ksp.CreatePersistedKey(p, &h, L"RSA", L"pub", 0, kMachine), 0);
    ASSERT_EQ(ksp.FinalizeKey(p, h, 0), 0);

    // The certificate a CA would issue for the key: the placeholder's key under another subject.
    const std::string placeholder = Merged(L"pub");
    PCCERT_CONTEXT base = CertCreateCertificateContext(X509_ASN_ENCODING, ToBytes(placeholder).data(),
                                                       Size(placeholder));
    ASSERT_TRUE(base);
    BYTE subject[128], tbs[4096], der[4096];
    DWORD cbSubject = sizeof(subject), cbTbs = sizeof(tbs), cbDer = sizeof(der);
    CertStrToNameW(X509_ASN_ENCODING, L"CN=issued.example", CERT_X500_NAME_STR, nullptr, subject, &cbSubject, nullptr);
    CERT_INFO info = *base->pCertInfo;
    info.Subject = {cbSubject, subject};
    ASSERT_TRUE(CryptEncodeObjectEx(X509_ASN_ENCODING, X509_CERT_TO_BE_SIGNED, &info, 0, nullptr, tbs, &cbTbs));
    CERT_SIGNED_CONTENT_INFO signedInfo = {{cbTbs, tbs}, info.SignatureAlgorithm, {8, tbs, 0}};
    ASSERT_TRUE(CryptEncodeObjectEx(X509_ASN_ENCODING, X509_CERT, &signedInfo, 0, nullptr, der, &cbDer));
    CertFreeCertificateContext(base);
    const std::wstring thumbprint = Widen(Hex(HashOf(BCRYPT_SHA1_ALGORITHM, ToStr(der, cbDer))));
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"My");
    PCCERT_CONTEXT added = nullptr;
    CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der, cbDer, CERT_STORE_ADD_REPLACE_EXISTING, &added);
    CRYPT_KEY_PROV_INFO bound = {const_cast<LPWSTR>(L"pub"), const_cast<LPWSTR>(KSP_PROVIDER_NAME), 0, kMachine};
    CertSetCertificateContextProperty(added, CERT_KEY_PROV_INFO_PROP_ID, 0, &bound);
    CertFreeCertificateContext(added);
    CertCloseStore(store, 0);

    EXPECT_EQ(ksp.SetKeyProperty(p, h, NCRYPT_CERTIFICATE_PROPERTY, der, cbDer, 0), 0);
    EXPECT_EQ(ksp.FreeKey(p, h), 0);
    // The placeholder's merge, then the store certificate's.
    EXPECT_EQ(VaultCalls("POST /certificates/pub/pending/merge").size(), 2u);
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"CertSync"), thumbprint + L",");
    ASSERT_EQ(ksp.OpenKey(p, &h, L"pub", 0, kMachine), 0);
    size_t afterOpen = VaultRequests().size();
    EXPECT_EQ(ksp.SetKeyProperty(p, h, NCRYPT_CERTIFICATE_PROPERTY, der, cbDer, 0), 0);
    EXPECT_EQ(ksp.FreeKey(p, h), 0);
    EXPECT_EQ(VaultRequests().size(), afterOpen) << "a recorded thumbprint needs no vault call";
    const std::wstring stored = L"Software\\Microsoft\\SystemCertificates\\My\\Certificates\\" + thumbprint;
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, stored.c_str());
}

TEST_F(Lifecycle, ImportTakesOnlyRsaPrivateKeysAndFinalizeSendsThemToTheVault)
{
    UseVault(HKEY_CURRENT_USER, L"kestaltest");
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = Ksp();
    NCRYPT_PROV_HANDLE p = OpenProvider();
    BYTE rsa[64] = {'R', 'S', 'A', '2'}, ecc[64] = {'E', 'C', 'S', '2'}; // private magics, empty keys
    NCRYPT_KEY_HANDLE h = 0;
    auto import = [&](const wchar_t *type, BYTE *data, DWORD flags) {
        return ksp.ImportKey(p, 0, type, nullptr, &h, data, 64, flags);
    };
    EXPECT_EQ(import(BCRYPT_RSAPRIVATE_BLOB, rsa, kLater | kMachine), NTE_NOT_SUPPORTED);
    EXPECT_EQ(import(BCRYPT_PRIVATE_KEY_BLOB, ecc, kLater), NTE_NOT_SUPPORTED);
    EXPECT_EQ(import(BCRYPT_RSAFULLPRIVATE_BLOB, rsa, kLater), NTE_BAD_DATA); // magic of the other form
    // A key name must be non-empty and end inside its buffer: nothing is read past cbBuffer.
    wchar_t empty[] = L"", unterminated[] = {L'k', L'e', L'y'};
    for (auto [name, cb] : {std::pair<wchar_t *, ULONG>{empty, 2}, {unterminated, sizeof(unterminated)}}) {
        NCryptBuffer buffer = {cb, NCRYPTBUFFER_PKCS_KEY_NAME, name};
        NCryptBufferDesc parameters = {NCRYPTBUFFER_VERSION, 1, &buffer};
        EXPECT_EQ(ksp.ImportKey(p, 0, BCRYPT_RSAPRIVATE_BLOB, &parameters, &h, rsa, 64, kLater), NTE_INVALID_PARAMETER);
    }
    EXPECT_EQ(VaultRequests().size(), 0u);

    BCRYPT_ALG_HANDLE alg = nullptr;
    ASSERT_EQ(BCryptOpenAlgorithmProvider(&alg, BCRYPT_RSA_ALGORITHM, nullptr, 0), 0);
    auto blobOf = [](BCRYPT_KEY_HANDLE key, const wchar_t *type) {
        ULONG cb = 0;
        BCryptExportKey(key, nullptr, type, nullptr, 0, &cb, 0);
        std::vector<BYTE> blob(cb);
        BCryptExportKey(key, nullptr, type, blob.data(), cb, &cb, 0);
        return blob;
    };
    const wchar_t *types[] = {BCRYPT_RSAPRIVATE_BLOB, BCRYPT_RSAFULLPRIVATE_BLOB, BCRYPT_PRIVATE_KEY_BLOB};
    for (const wchar_t *const &type : types) {
        SCOPED_TRACE(Narrow(type));
        BCRYPT_KEY_HANDLE original = nullptr;
        ASSERT_EQ(BCryptGenerateKeyPair(alg, &original, 2048, 0), 0);
        ASSERT_EQ(BCryptFinalizeKeyPair(original, 0), 0);
        std::vector<BYTE> blob = blobOf(original, &type == &types[1] ? type : BCRYPT_RSAPRIVATE_BLOB);
        std::vector<BYTE> modulus = blobOf(original, BCRYPT_RSAPUBLIC_BLOB);
        modulus.erase(modulus.begin(), modulus.end() - 256);
        std::wstring name = L"imported" + std::to_wstring(&type - types);
        NCryptBuffer buffer = {static_cast<ULONG>((name.size() + 1) * 2), NCRYPTBUFFER_PKCS_KEY_NAME, name.data()};
        NCryptBufferDesc parameters = {NCRYPTBUFFER_VERSION, 1, &buffer};
        ASSERT_EQ(ksp.ImportKey(p, 0, type, &parameters, &h, blob.data(), static_cast<DWORD>(blob.size()), kLater), 0);

        ASSERT_EQ(ksp.FinalizeKey(p, h, 0), 0);
        const SeenRequest put = VaultRequests().back();
        EXPECT_EQ(put.method + " " + put.url, "PUT /keys/" + Narrow(name) + "?api-version=7.0");
        Json body = ParseJson(put.body);
        json_object *jwk = json_object_object_get(body.get(), "key");
        EXPECT_EQ(JsonString(json_object_object_get(body.get(), "tags"), "KeyName"), Narrow(name));
        EXPECT_EQ(FromBase64(JsonString(jwk, "n")), modulus);
        EXPECT_EQ(JsonString(jwk, "qi").find_first_of("+/="), std::string::npos); // base64url, unpadded
        ExpectSignatureVerifies(p, h, original, true);
        EXPECT_EQ(ksp.FreeKey(p, h), 0);
        BCryptDestroyKey(original);
    }
    BCryptCloseAlgorithmProvider(alg, 0);
    EXPECT_EQ(Vault(L"kestaltest", "keys"), "imported0,imported1,imported2");
}
