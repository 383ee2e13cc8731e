#include "tests/harness/harness.h"

#include <gtest/gtest.h>
#include <wincrypt.h>

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

std::string Str(const BYTE *pb, DWORD cb) { return ToStr(pb, cb); }
std::string Base64(const std::string &der) { return ToBase64(ToBytes(der)); }
// "subject|signature algorithm" of a DER certificate. (That its key is the vault key's is the
// provider's lifecycle test: the vault's signatures verify with it.)
std::string Describe(const std::string &der)
{
    PCCERT_CONTEXT cert = CertCreateCertificateContext(
        X509_ASN_ENCODING, reinterpret_cast<const BYTE *>(der.data()), static_cast<DWORD>(der.size()));
    if (!cert)
        return "not a certificate";
    WCHAR subject[128];
    CertNameToStrW(X509_ASN_ENCODING, &cert->pCertInfo->Subject, CERT_X500_NAME_STR, subject, 128);
    std::string out = Narrow(subject) + "|" + cert->pCertInfo->SignatureAlgorithm.pszObjId;
    CertFreeCertificateContext(cert);
    return out;
}

// A provider of the core on the vault "kestaltest": machine keys plain, user keys certificate-backed.
class Create : public VaultProviderTest {
protected:
    void SetUp() override
    {
        VaultProviderTest::SetUp();
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest", 1);
        UseVault(HKEY_CURRENT_USER, L"kestaltest", 0);
        KSP_PROVIDER *provider = KspProviderFromHandle(OpenProvider(Via::Core));
        plain = provider->kvcMachine;
        cert = provider->kvcUser;
        ASSERT_EQ(KVCAuthenticate(plain, nullptr), 1);
        ASSERT_EQ(KVCAuthenticate(cert, nullptr), 1);
    }
    void TearDown() override
    {
        KVCFreeKVKey(&key);
        VaultProviderTest::TearDown();
    }
    void Premium() { emulator.Call(L"PUT", L"/vaults/kestaltest", R"({"tier":"premium"})"); }
    void Script(const std::string &path, const std::string &response, const std::string &bodyContains = "")
    {
        ScriptAnswers(emulator, "vault", "[" + response + "]", "POST", path, bodyContains);
    }
    void Fresh()
    {
        emulator.Call(L"DELETE", L"/script");
        ForgetRequests();
        time.waits.clear();
        KVCFreeKVKey(&key);
        key = {};
    }
    std::vector<std::string> Calls(std::string_view prefix = "") const { return VaultCalls(prefix); }
    std::string VaultCer(const wchar_t *name) const
    {
        DATA_BLOB blob = {};
        std::string der = KVCGetCert(cert, name, &blob) ? Str(blob.pbData, blob.cbData) : "";
        free(blob.pbData);
        return der;
    }
    std::string KeyPublicKey() const
    {
        return key.isEC ? Str(key.x, key.x_siz) + Str(key.y, key.y_siz) : Str(key.n, key.n_siz) + Str(key.e, key.e_siz);
    }
    KVC *plain = nullptr, *cert = nullptr;
    KVKey key = {};
};

} // namespace

TEST_F(Create, PlainBodiesFollowTheAlgorithmName)
{
    Premium();
    const struct { const wchar_t *alg; DWORD bits; std::string members, algId; } rows[] = {
        {L"RSA", 3072, R"("kty":"RSA-HSM","key_size":"3072")", "RSA"},
        {L"ECDSA_P256", 256, R"("kty":"EC-HSM","crv":"P-256")", "ECDSA_P256"},
        {L"ECDSA_P521", 521, R"("kty":"EC-HSM","crv":"P-521")", "ECDSA_P521"},
        {L"ecdsa_p256", 2048, R"("kty":"RSA-HSM","key_size":"2048")", "RSA"}, // names are compared as given
    };
    for (const auto &row : rows) {
        Fresh();
        const std::string name = "k" + std::to_string(&row - rows);
        ASSERT_EQ(KVCLowLevelCreateKey(plain, Widen(name).c_str(), Widen(name).c_str(), row.alg, row.bits, 0, &key), 1);
        EXPECT_EQ(Narrow(key.AlgID), row.algId);
        std::vector<SeenRequest> seen = VaultRequests();
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].url, "/keys/" + name + "/create?api-version=7.0");
        EXPECT_EQ(seen[0].body, "{" + row.members + R"(,"tags": {"AlgID":")" + Narrow(row.alg) + R"(","KeyName":")" +
                                    name + "\"}}");
    }
}

TEST_F(Create, PlainRefusalsAndThrottlingShareOneWaitCounter)
{
    // onlyIf: the script answers only bodies that contain this.
    const struct { std::string script, onlyIf; int result; size_t posts; std::vector<DWORD> waits = {};
        std::string algId = ""; } rows[] = {
        {.script = "", .result = 1, .posts = 2, .algId = "RSA"}, // the standard tier refuses "-HSM" with 403
        {.script = R"({"status":400,"body":{"error":{}}})", .result = 0, .posts = 1},
        {.script = R"({"status":429,"repeat":6})", .result = 0, .posts = 5, .waits = {1000, 2000, 4000, 8000, 16000}},
        {.script = R"({"status":429})", .result = 1, .posts = 3, .waits = {1000},
         .algId = "RSA"}, // 429, 403, then the software key
        {.script = R"({"status":403,"body":{}})", .onlyIf = R"(\"kty\":\"RSA\")", .result = 0, .posts = 2},
    };
    for (const auto &row : rows) {
        Fresh();
        const std::wstring name = L"o" + std::to_wstring(&row - rows);
        if (!row.script.empty())
            Script("/keys/" + Narrow(name) + "/create", row.script, row.onlyIf);
        EXPECT_EQ(KVCLowLevelCreateKey(plain, name.c_str(), name.c_str(), L"RSA", 2048, 0, &key), row.result)
            << row.script;
        EXPECT_EQ(Calls("POST").size(), row.posts) << row.script;
        EXPECT_EQ(time.waits, row.waits) << row.script;
        EXPECT_EQ(Narrow(key.AlgID), row.algId) << row.script;
    }
}

TEST_F(Create, CertificateKeysGetAPlaceholderOverTheVaultKeyAndAGivenCertificateKeepsIt)
{
    const struct { const wchar_t *name, *alg; DWORD exportable; std::string keyProps; } rows[] = {
        {L"edge", L"ECDSA_P384", 0, R"("exportable":false,"kty":"EC-HSM","crv":"P-384")"},
        {L"web", L"RSA", 1, R"("exportable":true,"kty":"RSA-HSM","key_size":2048)"},
    };
    std::string der;
    for (const auto &row : rows) {
        Fresh();
        const std::string name = Narrow(row.name), action = "POST /certificates/" + name;
        ASSERT_EQ(KVCLowLevelCreateKeyCertificate(cert, row.name, row.name, row.alg, 2048, &key, row.exportable,
                                                  nullptr, 0),
                  1);
        // A standard vault: the HSM request is refused, the software one made.
        const std::string create = action + "/create?api-version=7.0";
        EXPECT_EQ(Calls(), (std::vector<std::string>{create, create, action + "/pending/merge?api-version=7.0",
                                                     "GET /keys/" + name + "?api-version=2016-10-01"}));
        std::vector<SeenRequest> seen = VaultRequests();
        const std::string body =
            R"({"attributes":{"enabled":true},"policy":{"key_props":{)" + row.keyProps +
            R"(,"reuse_key":false},"secret_props":{"contentType":"application/x-pkcs12"},"x509_props":{"subject":)"
            R"("CN=CertificateDummySubject","ekus":["1.3.6.1.5.5.7.3.1","1.3.6.1.5.5.7.3.2"],"key_usage":)"
            R"(["digitalSignature"],"validity_months":600},"issuer":{"name":"Unknown"}},"tags":{"KSPManaged":"KSP",)"
            R"("AlgID":")" + Narrow(row.alg) + R"(","KeyName":")" + name + "\"}}";
        EXPECT_EQ(seen[0].body, body);
        EXPECT_EQ(seen[1].body, body.substr(0, body.find("-HSM")) + body.substr(body.find("-HSM") + 4));
        EXPECT_EQ(Narrow(key.AlgID), Narrow(row.alg));
        // The vault's certificate is the placeholder merged.
        der = VaultCer(row.name);
        EXPECT_EQ(seen[2].body, R"({"x5c":[")" + Base64(der) + R"("]})");
        EXPECT_EQ(Describe(der), "CN=Dummy Certificate Name|1.2.840.113549.1.1.11");
        EXPECT_GT(KeyPublicKey().size(), 90u);
    }

    // Merged as given, the vault's own certificate is accepted only over the key the vault keeps.
    const std::string publicKey = KeyPublicKey();
    Fresh();
    const BYTE *pbDer = reinterpret_cast<const BYTE *>(der.data());
    ASSERT_EQ(KVCLowLevelCreateKeyCertificate(cert, L"web", L"web", L"RSA", 2048, &key, 1, pbDer,
                                              static_cast<DWORD>(der.size())),
              1);
    std::vector<SeenRequest> seen = VaultRequests();
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_NE(seen[1].body.find(R"("kty":"RSA","key_size":2048,"reuse_key":true})"), std::string::npos);
    EXPECT_EQ(seen[2].body, R"({"x5c":[")" + Base64(der) + R"("]})");
    EXPECT_EQ(KeyPublicKey(), publicKey);
}

TEST_F(Create, CertificateRefusalsThrottlingAndMergeRetries)
{
    const struct { std::string action, script; int result; size_t creates, merges; std::vector<DWORD> waits = {};
    } rows[] = {
        {.action = "create", .script = R"({"status":429,"repeat":6})", .result = 0, .creates = 6, .merges = 0,
         .waits = {1000, 2000, 4000, 8000, 16000}},
        {.action = "create", .script = R"({"status":400,"body":{"error":{"message":"Invalid kty RSA-HSM here"}}})",
         .result = 1, .creates = 2, .merges = 1},
        {.action = "create", .script = R"({"status":400,"body":{"error":{"message":"Invalid policy"}}})", .result = 0,
         .creates = 1, .merges = 0},
        {.action = "create", .script = R"({"status":200,"body":{}})", .result = 0, .creates = 1, .merges = 0},
        {.action = "pending/merge", .script = R"({"status":429})", .result = 1, .creates = 2, .merges = 2,
         .waits = {1000}},
        {.action = "pending/merge", .script = R"({"status":400,"body":{}})", .result = 0, .creates = 2, .merges = 1},
    };
    for (const auto &row : rows) {
        Fresh();
        const std::wstring name = L"c" + std::to_wstring(&row - rows);
        const std::string path = "/certificates/" + Narrow(name) + "/";
        Script(path + row.action, row.script);
        EXPECT_EQ(KVCLowLevelCreateKeyCertificate(cert, name.c_str(), name.c_str(), L"RSA", 2048, &key, 1, nullptr, 0),
                  row.result)
            << row.script;
        EXPECT_EQ(Calls("POST " + path + "create").size(), row.creates) << row.script;
        EXPECT_EQ(Calls("POST " + path + "pending").size(), row.merges) << row.script;
        EXPECT_EQ(time.waits, row.waits) << row.script;
    }
}

TEST_F(Create, CreateKeyEncodesAndEscapesTheNameAndFollowsTheCertificateMode)
{
    Premium();
    EXPECT_EQ(KVCCreateKey(L"a\"b\\c", plain, L"RSA", 2048, 0, &key), ERROR_SUCCESS);
    EXPECT_EQ(KVCCreateKey(L"d\"e\\f", cert, L"ECDH_P256", 256, 0, &key), ERROR_SUCCESS);
    EXPECT_EQ(Narrow(key.clearName) + " " + Narrow(key.AlgID), "d\"e\\f ECDH_P256");
    std::vector<std::string> names; // the collection, then the name in the body's tags
    for (const SeenRequest &r : VaultRequests())
        if (r.url.find("/create?") != std::string::npos)
            names.push_back(r.url.substr(0, r.url.find('-')) +
                            JsonString(json_object_object_get(ParseJson(r.body).get(), "tags"), "KeyName"));
    EXPECT_EQ(names, (std::vector<std::string>{"/keys/a\"b\\c", "/certificates/d\"e\\f"}));

    Script("/keys/k/create", R"({"status":500,"body":{}})");
    EXPECT_EQ(KVCCreateKey(L"k", plain, L"RSA", 2048, 0, &key), NTE_INTERNAL_ERROR);
    EXPECT_EQ(KVCCreateKey(std::wstring(43, L'a').c_str(), plain, L"RSA", 2048, 0, &key), NTE_INTERNAL_ERROR);
    EXPECT_EQ(KVCCreateKey(L"k", nullptr, L"RSA", 2048, 0, &key), NTE_INTERNAL_ERROR);
    EXPECT_EQ(Calls("POST").size(), 4u); // the long name and the missing client send nothing
}
