#include "tests/harness/harness.h"

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

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
    void Script(const std::string &path, const std::string &response)
    {
        ScriptAnswers(emulator, "vault", "[" + response + "]", "POST", path);
    }
    void Fresh()
    {
        emulator.Call(L"DELETE", L"/script");
        ForgetRequests();
        time.waits.clear();
        KVCFreeKVKey(&key);
        key = {};
    }
    KVC *plain = nullptr, *cert = nullptr;
    KVKey key = {};
};

} // namespace

TEST_F(Create, PlainBodiesFollowTheAlgorithmName)
{
    Premium();
    const struct { const wchar_t *alg; DWORD bits; std::string members; } rows[] = {
        {L"RSA", 3072, R"("kty":"RSA-HSM","key_size":"3072")"},
        {L"ECDSA_P256", 256, R"("kty":"EC-HSM","crv":"P-256")"},
    };
    for (const auto &row : rows) {
        Fresh();
        const std::string name = "k" + std::to_string(&row - rows);
        ASSERT_EQ(KVCLowLevelCreateKey(plain, Widen(name).c_str(), Widen(name).c_str(), row.alg, row.bits, 0, &key), 1);
        std::vector<SeenRequest> seen = VaultRequests();
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].url, "/keys/" + name + "/create?api-version=7.0");
        EXPECT_EQ(seen[0].body, "{" + row.members + R"(,"tags": {"AlgID":")" + Narrow(row.alg) + R"(","KeyName":")" +
                                    name + "\"}}");
    }
}

TEST_F(Create, PlainRefusalsAndPersistingThrottleMakeNoKey)
{
    const struct { std::string script; size_t posts; std::vector<DWORD> waits = {}; } rows[] = {
        {.script = R"({"status":400,"body":{"error":{}}})", .posts = 1},
        {.script = R"({"status":429,"repeat":6})", .posts = 5, .waits = {1000, 2000, 4000, 8000, 16000}},
    };
    for (const auto &row : rows) {
        Fresh();
        const std::wstring name = L"o" + std::to_wstring(&row - rows);
        Script("/keys/" + Narrow(name) + "/create", row.script);
        EXPECT_EQ(KVCLowLevelCreateKey(plain, name.c_str(), name.c_str(), L"RSA", 2048, 0, &key), 0) << row.script;
        EXPECT_EQ(VaultCalls("POST").size(), row.posts) << row.script;
        EXPECT_EQ(time.waits, row.waits) << row.script;
        EXPECT_EQ(Narrow(key.AlgID), "") << row.script;
    }
}

// Only a refusal that names the HSM key type falls back to software; any other, or an empty answer,
// ends the create.
TEST_F(Create, CertificateKeysGetAPlaceholderMergedOverTheVaultKeyAndOtherRefusalsEndTheCreate)
{
    ASSERT_EQ(KVCLowLevelCreateKeyCertificate(cert, L"web", L"web", L"RSA", 2048, &key, 0, nullptr, 0), 1);
    // A standard vault: the HSM request is refused, the software one made.
    const std::string create = "POST /certificates/web/create?api-version=7.0";
    EXPECT_EQ(VaultCalls(), (std::vector<std::string>{create, create,
                                                      "POST /certificates/web/pending/merge?api-version=7.0",
                                                      "GET /keys/web?api-version=2016-10-01"}));
    std::vector<SeenRequest> seen = VaultRequests();
    const std::string body =
        R"({"attributes":{"enabled":true},"policy":{"key_props":{"exportable":false,"kty":"RSA-HSM","key_size":2048,)"
        R"("reuse_key":false},"secret_props":{"contentType":"application/x-pkcs12"},"x509_props":{"subject":)"
        R"("CN=CertificateDummySubject","ekus":["1.3.6.1.5.5.7.3.1","1.3.6.1.5.5.7.3.2"],"key_usage":)"
        R"(["digitalSignature"],"validity_months":600},"issuer":{"name":"Unknown"}},"tags":{"KSPManaged":"KSP",)"
        R"("AlgID":"RSA","KeyName":"web"}})";
    EXPECT_EQ(seen[0].body, body);
    EXPECT_EQ(seen[1].body, body.substr(0, body.find("-HSM")) + body.substr(body.find("-HSM") + 4));

    for (const std::string script : {R"({"status":400,"body":{"error":{"message":"Invalid policy"}}})",
                                     R"({"status":200,"body":{}})"}) {
        Fresh();
        Script("/certificates/c/create", script);
        EXPECT_EQ(KVCLowLevelCreateKeyCertificate(cert, L"c", L"c", L"RSA", 2048, &key, 1, nullptr, 0), 0) << script;
        EXPECT_EQ(VaultCalls("POST /certificates/c/create").size(), 1u) << script;
        EXPECT_EQ(VaultCalls("POST /certificates/c/pending").size(), 0u) << script;
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
    EXPECT_EQ(KVCCreateKey(L"k", nullptr, L"RSA", 2048, 0, &key), NTE_INTERNAL_ERROR);
    EXPECT_EQ(VaultCalls("POST").size(), 4u); // the missing client sends nothing
}
