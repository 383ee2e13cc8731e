#include "tests/harness/harness.h"

#include <wincrypt.h>
#include <sddl.h>

using namespace kestal_test;

namespace {

constexpr DWORD kMachine = NCRYPT_MACHINE_KEY_FLAG;

std::string B64(size_t bytes, BYTE fill) { return ToBase64(std::vector<BYTE>(bytes, fill)); }

// Machine keys of vault "kestaltest": plain keys, or vault certificates after UseCertificates().
class Bounds : public VaultKeyTest {
protected:
    void UseCertificates()
    {
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest", 0);
        provider = OpenProvider();
    }
    void Answer(const std::string &method, const std::string &path, const std::string &response)
    {
        ScriptAnswers(emulator, "vault", "[" + response + "]", method, path);
    }
    // How many vault requests were "METHOD path" (query left out); the last one into *last.
    size_t Count(const std::string &call, std::string *last = nullptr) const
    {
        size_t n = 0;
        for (const SeenRequest &r : VaultRequests()) {
            std::string seen = r.method + " " + r.url.substr(0, r.url.find('?'));
            n += seen == call;
            if (last)
                *last = seen;
        }
        return n;
    }
    SECURITY_STATUS CreateAndFinalize(const std::wstring &name, NCRYPT_KEY_HANDLE *ph = nullptr)
    {
        NCRYPT_KEY_HANDLE h = 0;
        SECURITY_STATUS status = Ksp().CreatePersistedKey(provider, ph ? ph : &h, L"RSA", name.c_str(), 0, kMachine);
        return status ? status : Ksp().FinalizeKey(provider, ph ? *ph : h, 0);
    }
    SECURITY_STATUS Open(const std::wstring &name, NCRYPT_PROV_HANDLE p = 0)
    {
        NCRYPT_KEY_HANDLE h = 0;
        SECURITY_STATUS status = Ksp().OpenKey(p ? p : provider, &h, name.c_str(), 0, kMachine);
        return status ? status : Ksp().FreeKey(p ? p : provider, h);
    }
};

void SetMachineSettingsDacl(const wchar_t *sddl)
{
    PSECURITY_DESCRIPTOR sd = nullptr;
    HKEY key = nullptr;
    ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &sd, nullptr);
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Kestal\\KestalKeyVaultKSP", 0, WRITE_DAC, &key);
    EXPECT_EQ(RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, sd), 0);
    RegCloseKey(key), LocalFree(sd);
}

} // namespace

TEST_F(Bounds, SignaturesAreWholeBytesOfTheKeysLength)
{
    NCRYPT_KEY_HANDLE rsa = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    NCRYPT_KEY_HANDLE ec = SeedAndOpen("ec", R"("kty":"EC","crv":"P-256")");
    const struct { NCRYPT_KEY_HANDLE key; std::string value; DWORD cbBuffer; SECURITY_STATUS want; } rows[] = {
        {.key = rsa, .value = "", .want = NTE_INVALID_PARAMETER},
        {.key = rsa, .value = "AQIDB", .want = NTE_INVALID_PARAMETER}, // three bytes and a lone character
        {.key = ec, .value = B64(63, 0x7F), .want = NTE_INVALID_PARAMETER},
        {.key = rsa, .value = B64(257, 0x7F), .want = NTE_INVALID_PARAMETER},
        {.key = rsa, .value = B64(255, 0x7F), .cbBuffer = 255, .want = NTE_FAIL}, // no room for the padded form
        {.key = rsa, .value = B64(255, 0x7F), .cbBuffer = 300, .want = 0},
    };
    std::vector<BYTE> padded(257, 0x7F); // the modulus length, a zero in front, nothing written beyond
    padded[0] = 0, padded[256] = 0xEE;
    for (const auto &row : rows) {
        Answer("POST", "", R"({"status":200,"body":{"value":")" + row.value + "\"}}");
        BCRYPT_PKCS1_PADDING_INFO padding = {L"SHA256"};
        std::vector<BYTE> hash(32, 1), signature(300, 0xEE);
        DWORD cb = 0, flags = row.key == rsa ? BCRYPT_PAD_PKCS1 : 0;
        EXPECT_EQ(Ksp().SignHash(provider, row.key, flags ? &padding : nullptr, hash.data(), 32, signature.data(),
                                 row.cbBuffer ? row.cbBuffer : 300, &cb, flags),
                  row.want)
            << &row - rows;
        EXPECT_EQ(row.cbBuffer ? cb : 256, 256u) << &row - rows;
        EXPECT_EQ(std::vector<BYTE>(signature.begin(), signature.begin() + 257) == padded, row.want == 0);
    }
    EXPECT_EQ(Log("KestalKeyVaultKSPSignHash Bad Signature Length").size(), 2u);
}

TEST_F(Bounds, OnlyKeysTheVaultMadeWithUsableMaterialAreFinalizedOrOpened)
{
    EXPECT_EQ(Open(L""), NTE_INVALID_PARAMETER); // an empty name never reaches the vault
    EXPECT_EQ(CreateAndFinalize(L""), NTE_INVALID_PARAMETER);
    EXPECT_EQ(SeenRequests(emulator, L"login").size(), 0u);
    EXPECT_EQ(VaultRequests().size(), 0u);

    Answer("POST", "/keys/empty/create", R"({"status":200,"body":{"error":{}}})"); // a 200 holding no key
    EXPECT_EQ(CreateAndFinalize(L"empty"), NTE_FAIL);
    EXPECT_EQ(Log("KVCLowLevelCreateKey Failed Error 0xc8 1").size(), 1u);

    const std::string e = R"(,"e":"AQAB")", y = R"(","y":")" + B64(32, 1) + "\"";
    const std::string keys[] = {
        R"("kty":"RSA","n":"")" + e,
        R"("kty":"RSA","n":")" + B64(4096, 0xC5) + "\"" + e,
        R"("kty":"RSA","n":")" + B64(128, 0xC5) + "\"" + e, // 1024 bits
        R"("kty":"EC","crv":"P-256","x":")" + B64(31, 1) + y,
        R"("kty":"EC","crv":"P-256K","x":")" + B64(32, 1) + y,
    };
    for (const std::string &key : keys) {
        const std::wstring name = L"bad" + std::to_wstring(&key - keys);
        Answer("GET", "/keys/" + Narrow(name), R"({"status":200,"body":{"key":{)" + key + "}}}");
        EXPECT_EQ(Open(name), NTE_BAD_KEY) << key.substr(0, 40);
    }
    EXPECT_EQ(Log("KestalKeyVaultKSPOpenKey Unusable Key Material").size(), std::size(keys));
}

TEST_F(Bounds, CertificateCreatesThatCameToNothingLeaveNoPendingOperation)
{
    UseCertificates();
    const struct { const char *name, *path, *answer; } rows[] = {
        {"merge", "/certificates/merge/pending/merge", R"({"status":400,"body":{"error":{}}})"},
        {"csr", "/certificates/csr/create", R"({"status":202,"body":{"csr":"bm90IGEgY3Ny"}})"},
    };
    std::string last;
    for (const auto &row : rows) {
        Answer("POST", row.path, row.answer);
        EXPECT_EQ(CreateAndFinalize(Widen(row.name)), NTE_FAIL) << row.name;
        Count("", &last);
        EXPECT_EQ(last, "DELETE /certificates/" + std::string(row.name) + "/pending");
    }

    // DeleteKey frees the handle without publishing the certificate bound to the deleted key. Wine
    // writes a system store back when it is closed: it is opened afresh for each use.
    NCRYPT_KEY_HANDLE h = 0;
    ASSERT_EQ(CreateAndFinalize(L"gone", &h), 0);
    BYTE name[64];
    CERT_NAME_BLOB subject = {sizeof(name), name};
    CertStrToNameW(X509_ASN_ENCODING, L"CN=gone", CERT_X500_NAME_STR, nullptr, name, &subject.cbData, nullptr);
    PCCERT_CONTEXT cert = CertCreateSelfSignCertificate(0, &subject, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    auto myStore = [] { return CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"My"); };
    HCERTSTORE store = myStore();
    PCCERT_CONTEXT added = nullptr;
    CertAddCertificateContextToStore(store, cert, CERT_STORE_ADD_REPLACE_EXISTING, &added);
    CRYPT_KEY_PROV_INFO bound = {const_cast<LPWSTR>(L"gone"), const_cast<LPWSTR>(KSP_PROVIDER_NAME), 0, kMachine};
    CertSetCertificateContextProperty(added, CERT_KEY_PROV_INFO_PROP_ID, 0, &bound);
    CertFreeCertificateContext(added), CertCloseStore(store, 0);
    EXPECT_EQ(Ksp().SetKeyProperty(provider, h, NCRYPT_CERTIFICATE_PROPERTY, name, 1, 0), 0);
    EXPECT_EQ(Ksp().DeleteKey(provider, h, 0), 0);
    Count("", &last);
    EXPECT_EQ(last, "DELETE /deletedcertificates/gone");
    store = myStore();
    CertDeleteCertificateFromStore(CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, cert, 0));
    CertFreeCertificateContext(cert), CertCloseStore(store, 0);
}

TEST_F(Bounds, ListingsStopAtARepeatedLinkAndKeyOperationsAtSixtyFour)
{
    UseCertificates();
    SeedKey(emulator, L"kestaltest", "a");
    for (std::string collection : {"keys", "certificates"}) // a page that links to itself
        Answer("GET", "/" + collection,
               R"({"status":200,"repeat":3,"body":{"value":[)" +
                   std::string(collection == "keys" ? R"({"kid":"https://x/keys/a"})" : "") +
                   R"(],"nextLink":"https://kestaltest.vault.azure.net:443/)" + collection + R"(?$skiptoken=x"}})");
    NCryptKeyName *keyName = nullptr;
    PVOID state = nullptr;
    EXPECT_EQ(Ksp().EnumKeys(provider, nullptr, &keyName, &state, kMachine), 0);
    EXPECT_EQ(Open(L"a"), 0); // the first machine open syncs the vault's certificates
    EXPECT_EQ(Count("GET /keys"), 2u);
    EXPECT_EQ(Count("GET /certificates"), 2u);
    EXPECT_EQ(Log("KVCGetKeys Listing Stopped Repeated Link").size(), 1u);
    EXPECT_EQ(Log("KVCGetCerts Listing Stopped Repeated Link").size(), 1u);
    Ksp().FreeBuffer(keyName), Ksp().FreeBuffer(state);

    std::string ops = "\"verify\"";
    for (int i = 0; i < 99; ++i)
        ops += ",\"verify\"";
    Answer("GET", "/keys/ops", R"({"status":200,"body":{"key":{"kty":"EC","crv":"P-256","x":")" + B64(32, 1) +
                                   R"(","y":")" + B64(32, 1) + R"(","key_ops":[)" + ops + "]}}}");
    EXPECT_EQ(Open(L"ops"), 0);
    EXPECT_EQ(Log("KVCParseJSONKey key_ops Too Many kept 64 2").size(), 1u);
}

TEST_F(Bounds, CertificatesOfSixtyKilobytesAreSyncedAndFoundForPublishing)
{
    UseCertificates();
    std::string names = "\"big.example.com\"";
    for (int i = 0; i < 2300; ++i) // about 60 KB of DER
        names += ",\"host" + std::to_string(i) + ".big.example.com\"";
    Json bundle = ParseJson(emulator.Call(L"POST", L"/vaults/kestaltest/certificates",
                                          R"({"name":"big","policy":{"x509_props":{"subject":"CN=big","sans":)"
                                          R"({"dns_names":[)" + names + "]}}}}").body);
    std::vector<BYTE> der = FromBase64(JsonString(bundle.get(), "cer"));
    ASSERT_GT(der.size(), 50000u);
    NCRYPT_KEY_HANDLE h = 0;
    ASSERT_EQ(Ksp().OpenKey(provider, &h, L"big", 0, kMachine), 0); // the first machine open syncs
    BYTE sha1[20];
    DWORD cbSha1 = sizeof(sha1);
    CryptHashCertificate(0, CALG_SHA1, 0, der.data(), static_cast<DWORD>(der.size()), sha1, &cbSha1);
    const std::wstring hex = BldStrPtr(BldStrNewHexStr(sha1, cbSha1))->cStr;
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"CertSync"), hex + L",");
    EXPECT_EQ(Ksp().SetKeyProperty(provider, h, NCRYPT_CERTIFICATE_PROPERTY, sha1, 1, 0), 0);
    EXPECT_EQ(Ksp().FreeKey(provider, h), 0); // finds the store's copy; CertSync says it is the vault's
    EXPECT_EQ(Log("KestalKeyVaultKSPSetKeyProperty EvaluateCertsInStore Found Certificate Hash " + Narrow(hex)).size(),
              1u);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, (L"Software\\Microsoft\\SystemCertificates\\My\\Certificates\\" + hex).c_str());
}

TEST_F(Bounds, RequestBodiesCarryNamesInUtf8)
{
    for (int certificates : {0, 1}) {
        if (certificates)
            UseCertificates();
        emulator.Call(L"DELETE", L"/requests");
        EXPECT_EQ(CreateAndFinalize(L"caf\u00e9 \u4e2d" + std::to_wstring(certificates)), 0);
        const SeenRequest create = VaultRequests().at(1); // the first create, after the look-up
        EXPECT_NE(create.body.find("\"KeyName\":\"caf\xc3\xa9 \xe4\xb8\xad"), std::string::npos) << create.body;
    }
}

TEST_F(Bounds, SecurityDescriptorsAreTakenWhenValidWithinTheirLength)
{
    NCRYPT_KEY_HANDLE h = 0;
    ASSERT_EQ(Ksp().CreatePersistedKey(provider, &h, L"RSA", nullptr, 0, kMachine), 0);
    BYTE empty[20] = {1, 0, 0x00, 0x80};                                            // self-relative, no parts
    BYTE emptyDacl[28] = {1, 0, 0x04, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 20, 0, 0, 0, 2, 0, 8, 0};
    BYTE ownerBeyond[20] = {1, 0, 0x00, 0x80, 40};                                  // owner SID at offset 40
    const struct { BYTE *sd; DWORD cb; SECURITY_STATUS want; } rows[] = {
        {empty, 20, 0}, {emptyDacl, 28, 0}, {emptyDacl, 24, NTE_BAD_DATA}, {ownerBeyond, 20, NTE_BAD_DATA},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Ksp().SetKeyProperty(provider, h, L"Security Descr", row.sd, row.cb, DACL_SECURITY_INFORMATION),
                  row.want)
            << &row - rows;
}

TEST_F(Bounds, ASyncStampTheRegistryRefusesIsKeptInTheProcess)
{
    UseCertificates();
    SeedKey(emulator, L"kestaltest", "k");
    for (bool writable : {true, false}) { // the process remembers only what it could not write
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"Software\\Kestal\\KestalKeyVaultKSP", L"FromKVLastSyncTime");
        emulator.Call(L"DELETE", L"/requests");
        NCRYPT_PROV_HANDLE first = OpenProvider();
        if (!writable)
            SetMachineSettingsDacl(L"D:P(A;;KRWD;;;WD)"); // read and change the DACL only
        EXPECT_EQ(Open(L"k", first), 0);
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"Software\\Kestal\\KestalKeyVaultKSP", L"FromKVLastSyncTime");
        EXPECT_EQ(Open(L"k", OpenProvider()), 0);
        EXPECT_EQ(Count("GET /certificates"), writable ? 2u : 1u) << writable;
    }
    SetMachineSettingsDacl(L"D:P(A;;KA;;;WD)");
    EXPECT_EQ(Log("KVCSyncCertsFromKVToMachine Update Time Failed").size(), 1u);
}
