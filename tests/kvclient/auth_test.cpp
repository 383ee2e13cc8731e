#include "tests/harness/harness.h"

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

const std::string kTokenPath = "/metadata/identity/oauth2/token?resource=https://vault.azure.net&api-version=";

class Auth : public VaultProviderTest {
protected:
    void SetUp() override
    {
        VaultProviderTest::SetUp();
        emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})");
    }
    void TearDown() override
    {
        SetEnvironmentVariableW(L"IDENTITY_ENDPOINT", nullptr);
        VaultProviderTest::TearDown();
    }
    static KvcOwner NewClient(DWORD authn, const wchar_t *secret = L"right", const wchar_t *clientId = L"app-1")
    {
        return KvcOwner(KVCNew(L"kestaltest", authn, Widen(kTenant).c_str(), clientId, secret, L"", TRUE, 1, 1, 0));
    }
};

} // namespace

// A secret sent unencoded would be cut at its first "&" or "+"; a refused one (authn 3) falls back to
// the metadata service, without TLS and without the secret.
TEST_F(Auth, ClientSecretIsPercentEncodedAndARefusedOneFallsBackToTheMetadataService)
{
    emulator.Call(L"POST", L"/apps",
                  R"({"tenant":")" + std::string(kTenant) + R"(","clientId":"app-1","secret":"a+b&c=d"})");
    ASSERT_EQ(KVCAuthenticate(NewClient(2, L"a+b&c=d").get(), nullptr), 1);
    ASSERT_EQ(KVCAuthenticate(NewClient(3, L"wrong", L"app-3").get(), nullptr), 1);

    std::vector<SeenRequest> seen = SeenRequests(emulator, L"login");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].method + " " + seen[0].url, "POST /" + std::string(kTenant) + "/oauth2/token");
    EXPECT_TRUE(seen[0].tls);
    EXPECT_EQ(seen[0].body, "resource=https%3A%2F%2Fvault.azure.net&grant_type=client_credentials&client_id=app-1"
                            "&client_secret=a%2Bb%26c%3Dd");
    EXPECT_EQ(seen[0].SentHeaders(),
              (std::vector<std::string>{"Content-Type: application/x-www-form-urlencoded", "Accept: application/json",
                                        "return-client-request-id: true",
                                        "client-request-id: " + seen[0].Header("client-request-id")}));
    seen = SeenRequests(emulator, L"imds");
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].method + " " + seen[0].host + seen[0].url, "GET 169.254.169.254" + kTokenPath + "2018-02-01");
    EXPECT_FALSE(seen[0].tls);
    EXPECT_EQ(seen[0].SentHeaders(), std::vector<std::string>{"Metadata: True"});
}

// The agent accepts only the secret in its key file; one that keeps challenging without naming
// a key file is given up on, never waited for without end.
TEST_F(Auth, ArcChallengeIsAnsweredWithTheKeyFileAndEndlessChallengesAreBounded)
{
    SetEnvironmentVariableW(L"IDENTITY_ENDPOINT", L"http://127.0.0.1:40342/metadata/identity/oauth2/token");
    ASSERT_EQ(KVCAuthenticate(NewClient(1).get(), nullptr), 1);
    EXPECT_EQ(time.waits, std::vector<DWORD>{1000});
    std::vector<SeenRequest> seen = SeenRequests(emulator, L"arc");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].url, kTokenPath + "2020-06-01");
    const std::string basic = seen[1].Header("Authorization");
    EXPECT_EQ(seen[1].SentHeaders(), (std::vector<std::string>{"Metadata: True", "Authorization: " + basic}));

    ScriptAnswers(emulator, "arc", R"([{"status":401,"headers":{"WWW-Authenticate":"Basic"},"repeat":250}])");
    EXPECT_EQ(KVCAuthenticate(NewClient(1, L"right", L"app-2").get(), nullptr), 0); // another identity: no shared token
    EXPECT_EQ(SeenRequests(emulator, L"arc").size(), 243u); // the two above, then 241 challenges 1 s apart
    EXPECT_EQ(time.waits, std::vector<DWORD>(241, 1000));
}
