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
    static KvcOwner NewClient(DWORD authn, const wchar_t *secret = L"right", const wchar_t *vault = L"kestaltest",
                              const wchar_t *clientId = L"app-1")
    {
        return KvcOwner(KVCNew(vault, authn, Widen(kTenant).c_str(), clientId, secret, L"", TRUE, 1, 1, 0));
    }
    size_t Count(const wchar_t *service) const { return SeenRequests(emulator, service).size(); }
};

} // namespace

TEST_F(Auth, ClientSecretRequestIsExactPercentEncodedAndItsTokenServesItsLifetimeLessAMinute)
{
    AddApp("a+b&c=d");
    KvcOwner kvc = NewClient(2, L"a+b&c=d");
    ASSERT_EQ(KVCAuthenticate(kvc.get(), nullptr), 1);
    time.now += 3599 - 60 - 1; // the emulated service's tokens live 3599 s
    EXPECT_EQ(KVCAuthenticate(kvc.get(), nullptr), 1);
    EXPECT_EQ(Count(L"login"), 1u);
    time.now += 1;
    EXPECT_EQ(KVCAuthenticate(kvc.get(), nullptr), 1);

    std::vector<SeenRequest> seen = SeenRequests(emulator, L"login");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].method + " " + seen[0].url, "POST /" + std::string(kTenant) + "/oauth2/token");
    EXPECT_TRUE(seen[0].tls);
    EXPECT_EQ(seen[0].body, "resource=https%3A%2F%2Fvault.azure.net&grant_type=client_credentials&client_id=app-1"
                            "&client_secret=a%2Bb%26c%3Dd");
    std::string id = seen[0].Header("client-request-id");
    EXPECT_EQ(seen[0].SentHeaders(),
              (std::vector<std::string>{"Content-Type: application/x-www-form-urlencoded", "Accept: application/json",
                                        "return-client-request-id: true", "client-request-id: " + id}));
    EXPECT_TRUE(std::regex_match(id, std::regex("\\{[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}\\}"))) << id;
    EXPECT_NE(id, seen[1].Header("client-request-id"));

    const std::tuple<const char *, const wchar_t *, const char *> cases[] = {
        {"50% off ~_.-", L"50% off ~_.-", "50%25%20off%20~_.-"},
        {"\xC3\xBC\xF0\x9F\x94\x91", L"\u00FC\U0001F511", "%C3%BC%F0%9F%94%91"}};
    int n = 1;
    for (const auto &[secret, wideSecret, encoded] : cases) {
        AddApp(secret, "app-" + std::to_string(++n));
        std::wstring clientId = L"app-" + std::to_wstring(n);
        EXPECT_EQ(KVCAuthenticate(NewClient(2, wideSecret, L"kv", clientId.c_str()).get(), nullptr), 1);
        std::string body = SeenRequests(emulator, L"login").back().body;
        EXPECT_EQ(body.substr(body.find("&client_secret=") + 15), encoded);
    }
}

TEST_F(Auth, WrongSecretFallsBackToTheMetadataServiceOnlyWithAuthn3)
{
    AddApp("right");
    // Counted over the rows; a failed sign-in keeps nothing, so the second attempt asks again.
    const struct { DWORD authn; size_t logins, imds; } failing[] = {{2, 2, 0}, {1, 2, 2}, {0, 2, 4}, {4, 2, 4}}; // 0 is 1, 4 neither
    for (const auto &[authn, logins, imds] : failing) {
        KvcOwner kvc = NewClient(authn, L"wrong");
        EXPECT_EQ(KVCAuthenticate(kvc.get(), nullptr), 0) << authn;
        EXPECT_EQ(KVCAuthenticate(kvc.get(), nullptr), 0) << authn;
        EXPECT_EQ(Count(L"login"), logins) << authn;
        EXPECT_EQ(Count(L"imds"), imds) << authn;
    }
    SetIdentity();
    ASSERT_EQ(KVCAuthenticate(NewClient(3, L"wrong").get(), nullptr), 1);
    EXPECT_EQ(Count(L"login"), 3u);
    std::vector<SeenRequest> seen = SeenRequests(emulator, L"imds");
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen[4].method + " " + seen[4].host + seen[4].url, "GET 169.254.169.254" + kTokenPath + "2018-02-01");
    EXPECT_FALSE(seen[4].tls);
    EXPECT_EQ(seen[4].SentHeaders(), std::vector<std::string>{"Metadata: True"});
}

TEST_F(Auth, ArcChallengeIsAnsweredWithTheKeyFileAndTheLifetimeCountsFromTheFirstRequest)
{
    SetIdentity();
    SetEnvironmentVariableW(L"IDENTITY_ENDPOINT", kArcEndpoint);
    KvcOwner kvc = NewClient(1);
    ASSERT_EQ(KVCAuthenticate(kvc.get(), nullptr), 1); // the agent accepts only the secret in its key file
    EXPECT_EQ(time.waits, std::vector<DWORD>{1000});
    std::vector<SeenRequest> seen = SeenRequests(emulator, L"arc");
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].url, kTokenPath + "2020-06-01");
    EXPECT_EQ(seen[1].url, seen[0].url);
    std::string basic = seen[1].Header("Authorization");
    EXPECT_TRUE(std::regex_match(basic, std::regex("Basic [0-9a-f]{64}"))) << basic;
    EXPECT_EQ(seen[0].SentHeaders(), std::vector<std::string>{"Metadata: True"});
    EXPECT_EQ(seen[1].SentHeaders(), (std::vector<std::string>{"Metadata: True", "Authorization: " + basic}));

    time.now += 3599 - 60 - 2; // the wait took the other second
    EXPECT_EQ(KVCAuthenticate(kvc.get(), nullptr), 1);
    EXPECT_EQ(Count(L"arc"), 2u);
    time.now += 1;
    EXPECT_EQ(KVCAuthenticate(kvc.get(), nullptr), 1);
    EXPECT_EQ(Count(L"arc"), 4u);
}

TEST_F(Auth, ArcChallengeWithoutAUsableRealmOrReadableKeyFileFails)
{
    SetEnvironmentVariableW(L"IDENTITY_ENDPOINT", kArcEndpoint);
    std::string answers;
    for (int i = 0; i < 241; i++)
        answers += R"({"status":401,"headers":{"WWW-Authenticate":"Basic"}},)";
    ScriptAnswers(emulator, "arc",
                  "[" + answers + R"({"status":401,"headers":{"WWW-Authenticate":)" +
                      R"("Basic realm=C:\\ProgramData\\AzureConnectedMachineAgent\\Tokens\\no.key"}}])");
    EXPECT_EQ(KVCAuthenticate(NewClient(1).get(), nullptr), 0);
    EXPECT_EQ(Count(L"arc"), 241u);
    EXPECT_EQ(time.waits, std::vector<DWORD>(240, 1000));

    EXPECT_EQ(KVCAuthenticate(NewClient(1).get(), nullptr), 0); // a realm naming a file that does not exist
    EXPECT_EQ(Count(L"arc"), 242u);
    EXPECT_EQ(time.waits.size(), 240u);
    EXPECT_EQ(Log("KVCAuthenticate MSIAuthenticate failure - Could not open secret file "
                  "C:\\ProgramData\\AzureConnectedMachineAgent\\Tokens\\no.key 1")
                  .size(),
              1u);

    // Raw headers end every line in CR LF, so a realm without one is only seen here.
    const std::pair<const wchar_t *, const char *> cases[] = {
        {L"HTTP/1.1 401\r\nWWW-Authenticate: Basic realm=C:\\a.key\r\n\r\n", "C:\\a.key"},
        {L"HTTP/1.1 401\r\nWWW-Authenticate: Basic realm=C:\\a.key", "<none>"}};
    for (const auto &[headers, path] : cases) {
        WCHAR *found = KVCArcRealmPath(headers);
        EXPECT_EQ(found ? Narrow(found) : "<none>", path);
        free(found);
    }
}
