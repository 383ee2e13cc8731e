#include "tests/harness/harness.h"

#include <regex>

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

constexpr wchar_t kArcEndpoint[] = L"http://127.0.0.1:40342/metadata/identity/oauth2/token";
const std::string kTokenPath = "/metadata/identity/oauth2/token?resource=https://vault.azure.net&api-version=";

class Auth : public VaultProviderTest {
protected:
    void TearDown() override
    {
        SetEnvironmentVariableW(L"IDENTITY_ENDPOINT", nullptr);
        VaultProviderTest::TearDown();
    }
    void AddApp(const std::string &secret, const std::string &clientId = "app-1")
    {
        emulator.Call(L"POST", L"/apps",
                      R"({"tenant":")" + std::string(kTenant) + R"(","clientId":")" + clientId + R"(","secret":")" +
                          secret + "\"}");
    }
    void SetIdentity() { emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})"); }
    static KvcOwner NewClient(DWORD authn, const wchar_t *secret = L"right", const wchar_t *clientId = L"app-1")
    {
        return KvcOwner(KVCNew(L"kestaltest", authn, Widen(kTenant).c_str(), clientId, secret, L"", TRUE, 1, 1, 0));
    }
    size_t Count(const wchar_t *service) const { return SeenRequests(emulator, service).size(); }
};

} // namespace

// A secret sent unencoded would be cut at its first "&" or "+", and sign-in would fail.
TEST_F(Auth, ClientSecretRequestIsExactAndPercentEncoded)
{
    AddApp("a+b&c=d");
    AddApp("\xC3\xBC\xF0\x9F\x94\x91", "app-2");
    ASSERT_EQ(KVCAuthenticate(NewClient(2, L"a+b&c=d").get(), nullptr), 1);
    ASSERT_EQ(KVCAuthenticate(NewClient(2, L"\u00FC\U0001F511", L"app-2").get(), nullptr), 1);

    std::vector<SeenRequest> seen = SeenRequests(emulator, L"login");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].method + " " + seen[0].url, "POST /" + std::string(kTenant) + "/oauth2/token");
    EXPECT_TRUE(seen[0].tls);
    EXPECT_EQ(seen[0].body, "resource=https%3A%2F%2Fvault.azure.net&grant_type=client_credentials&client_id=app-1"
                            "&client_secret=a%2Bb%26c%3Dd");
    EXPECT_TRUE(seen[1].body.ends_with("&client_secret=%C3%BC%F0%9F%94%91")) << seen[1].body;
    EXPECT_EQ(seen[0].SentHeaders(),
              (std::vector<std::string>{"Content-Type: application/x-www-form-urlencoded", "Accept: application/json",
                                        "return-client-request-id: true",
                                        "client-request-id: " + seen[0].Header("client-request-id")}));
}

// A refused secret sends authn 3 to the metadata service, without TLS and without the secret.
TEST_F(Auth, WrongSecretFallsBackToTheMetadataServiceWithAuthn3)
{
    AddApp("right");
    SetIdentity();
    ASSERT_EQ(KVCAuthenticate(NewClient(3, L"wrong").get(), nullptr), 1);
    EXPECT_EQ(Count(L"login"), 1u);
    std::vector<SeenRequest> seen = SeenRequests(emulator, L"imds");
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].method + " " + seen[0].host + seen[0].url, "GET 169.254.169.254" + kTokenPath + "2018-02-01");
    EXPECT_FALSE(seen[0].tls);
    EXPECT_EQ(seen[0].SentHeaders(), std::vector<std::string>{"Metadata: True"});
}

// The agent accepts only the secret in its key file; one that keeps challenging without naming
// a key file is given up on, never waited for without end.
TEST_F(Auth, ArcChallengeIsAnsweredWithTheKeyFileAndEndlessChallengesAreBounded)
{
    SetIdentity();
    SetEnvironmentVariableW(L"IDENTITY_ENDPOINT", kArcEndpoint);
    ASSERT_EQ(KVCAuthenticate(NewClient(1).get(), nullptr), 1);
    EXPECT_EQ(time.waits, std::vector<DWORD>{1000});
    std::vector<SeenRequest> seen = SeenRequests(emulator, L"arc");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].url, kTokenPath + "2020-06-01");
    EXPECT_EQ(seen[1].url, seen[0].url);
    std::string basic = seen[1].Header("Authorization");
    EXPECT_TRUE(std::regex_match(basic, std::regex("Basic [0-9a-f]{64}"))) << basic;
    EXPECT_EQ(seen[0].SentHeaders(), std::vector<std::string>{"Metadata: True"});
    EXPECT_EQ(seen[1].SentHeaders(), (std::vector<std::string>{"Metadata: True", "Authorization: " + basic}));

    ScriptAnswers(emulator, "arc", R"([{"status":401,"headers":{"WWW-Authenticate":"Basic"},"repeat":250}])");
    EXPECT_EQ(KVCAuthenticate(NewClient(1, L"right", L"app-2").get(), nullptr), 0); // another identity: no shared token
    EXPECT_EQ(Count(L"arc"), 243u); // the two above, then 241 challenges 1 s apart
    EXPECT_EQ(time.waits, std::vector<DWORD>(241, 1000));
}
