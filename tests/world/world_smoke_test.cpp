// The test world itself: names, trust, the emulated services and the walls around them,
// seen from a Windows program through the same WinHTTP the provider uses.
#include "tests/harness/harness.h"

#include <gtest/gtest.h>
#include <winhttp.h>

#include <set>

using namespace kestal_test;

namespace {

constexpr char kTenant[] = "72f988bf-86f1-41af-91ab-2d7cd011db47";
constexpr char kClientId[] = "6a1f7e0e-2c8b-4f4e-9a51-0c3f7b1d2e11";
constexpr char kSecret[] = "world-smoke-secret";
constexpr wchar_t kImdsUrl[] =
    L"http://169.254.169.254/metadata/identity/oauth2/token?api-version=2018-02-01&resource=https%3A%2F%2Fvault.azure.net";
constexpr wchar_t kArcUrl[] =
    L"http://localhost:40342/metadata/identity/oauth2/token?api-version=2020-06-01&resource=https%3A%2F%2Fvault.azure.net";

class World : public ::testing::Test {
protected:
    void SetUp() override { emulator.Reset(); }

    std::string ClientSecretToken()
    {
        emulator.Call(L"POST", L"/apps",
                      std::string("{\"tenant\":\"") + kTenant + "\",\"clientId\":\"" + kClientId + "\",\"secret\":\"" +
                          kSecret + "\"}");
        HttpResult r = HttpSend({Widen(std::string("https://login.microsoftonline.com/") + kTenant + "/oauth2/token"),
                                 L"POST",
                                 {L"Content-Type: application/x-www-form-urlencoded"},
                                 std::string("grant_type=client_credentials&client_id=") + kClientId +
                                     "&client_secret=" + kSecret + "&resource=https%3A%2F%2Fvault.azure.net"});
        EXPECT_EQ(r.error, 0u);
        EXPECT_EQ(r.status, 200u) << r.body;
        Json answer = ParseJson(r.body);
        EXPECT_EQ(JsonString(answer.get(), "token_type"), "Bearer");
        EXPECT_EQ(JsonString(answer.get(), "expires_in"), "3599"); // numbers come as strings
        return JsonString(answer.get(), "access_token");
    }

    Emulator emulator;
};

std::set<std::string> KeyNamesOf(json_object *page)
{
    std::set<std::string> names;
    json_object *items = json_object_object_get(page, "value");
    for (size_t i = 0; i < json_object_array_length(items); ++i) {
        std::string kid = JsonString(json_object_array_get_idx(items, i), "kid");
        names.insert(kid.substr(kid.find_last_of('/') + 1));
    }
    return names;
}

} // namespace

TEST_F(World, TokenFromLoginListsSeededKeysAcrossTwoPages)
{
    emulator.Call(L"PUT", L"/vaults/kestaltest", R"({"pageSizes":[3]})");
    const std::set<std::string> seeded = {"alpha", "bravo", "charlie", "delta", "echo"};
    for (const auto &name : seeded)
        ASSERT_EQ(emulator.Call(L"POST", L"/vaults/kestaltest/keys", R"({"kty":"EC","name":")" + name + "\"}").status,
                  200u);
    std::string token = ClientSecretToken();
    ASSERT_FALSE(token.empty());

    std::set<std::string> listed;
    std::wstring url = L"https://kestaltest.vault.azure.net/keys?api-version=2016-10-01";
    int pages = 0;
    while (!url.empty() && pages < 5) {
        HttpResult r = HttpSend({url, L"GET", {Widen("Authorization: Bearer " + token)}});
        ASSERT_EQ(r.error, 0u);
        ASSERT_EQ(r.status, 200u) << r.body;
        Json page = ParseJson(r.body);
        for (const auto &name : KeyNamesOf(page.get()))
            listed.insert(name);
        url = Widen(JsonString(page.get(), "nextLink")); // absolute, followed as given
        ++pages;
    }
    EXPECT_EQ(pages, 2);
    EXPECT_EQ(listed, seeded);

    Json seen = emulator.Requests(L"vault");
    ASSERT_EQ(json_object_array_length(seen.get()), 2u);
    json_object *second = json_object_array_get_idx(seen.get(), 1);
    EXPECT_TRUE(json_object_get_boolean(json_object_object_get(second, "tls")));
    EXPECT_NE(JsonString(second, "url").find("$skiptoken="), std::string::npos);
}

TEST_F(World, VaultAnswersMissingTokenWithBearerChallenge)
{
    HttpResult r = HttpSend({L"https://kestaltest.vault.azure.net/keys?api-version=2016-10-01"});
    ASSERT_EQ(r.error, 0u);
    EXPECT_EQ(r.status, 401u);
    EXPECT_EQ(r.Header(L"WWW-Authenticate").rfind(L"Bearer authorization=\"https://login.windows.net/", 0), 0u)
        << Narrow(r.rawHeaders);
}

TEST_F(World, ImdsAnswersOnlyWithMetadataHeader)
{
    emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})");
    HttpResult bare = HttpSend({kImdsUrl});
    ASSERT_EQ(bare.error, 0u);
    EXPECT_EQ(bare.status, 400u);

    HttpResult r = HttpSend({kImdsUrl, L"GET", {L"Metadata: true"}});
    ASSERT_EQ(r.error, 0u);
    EXPECT_EQ(r.status, 200u) << r.body;
    std::string token = JsonString(ParseJson(r.body).get(), "access_token");
    ASSERT_FALSE(token.empty());

    // The vault takes the identity's token.
    HttpResult keys = HttpSend({L"https://kestaltest.vault.azure.net/keys?api-version=2016-10-01", L"GET",
                                {Widen("Authorization: Bearer " + token)}});
    EXPECT_EQ(keys.status, 200u) << keys.body;
}

TEST_F(World, ArcAgentChallengeRoundTrip)
{
    emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})");
    HttpResult challenge = HttpSend({kArcUrl, L"GET", {L"Metadata: true"}});
    ASSERT_EQ(challenge.error, 0u);
    ASSERT_EQ(challenge.status, 401u);
    std::wstring header = challenge.Header(L"WWW-Authenticate");
    const std::wstring prefix = L"Basic realm=";
    ASSERT_EQ(header.rfind(prefix, 0), 0u) << Narrow(header);
    std::wstring keyFile = header.substr(prefix.size());
    EXPECT_EQ(keyFile.rfind(L"C:\\ProgramData\\AzureConnectedMachineAgent\\Tokens\\", 0), 0u);

    // The agent wrote the secret where a Windows program finds it.
    HANDLE file = CreateFileW(keyFile.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE) << Narrow(keyFile);
    char secret[4097] = {};
    DWORD read = 0;
    ReadFile(file, secret, 4096, &read, nullptr);
    CloseHandle(file);
    ASSERT_GT(read, 0u);

    HttpResult wrong = HttpSend({kArcUrl, L"GET", {L"Metadata: true", L"Authorization: Basic not-the-secret"}});
    EXPECT_EQ(wrong.status, 401u);
    HttpResult r = HttpSend({kArcUrl, L"GET", {L"Metadata: true", L"Authorization: Basic " + Widen(std::string(secret, read))}});
    ASSERT_EQ(r.error, 0u);
    EXPECT_EQ(r.status, 200u) << r.body;
    EXPECT_FALSE(JsonString(ParseJson(r.body).get(), "access_token").empty());
}

TEST_F(World, ServerCertificateFromAnUntrustedCaIsRefused)
{
    HttpResult r = HttpSend({L"https://kestaltest.vault.azure.net:9443/keys?api-version=2016-10-01"});
    // Wine reports 12157 (secure channel error) where Windows reports 12175 (secure failure).
    EXPECT_TRUE(r.error == ERROR_WINHTTP_SECURE_FAILURE || r.error == ERROR_WINHTTP_SECURE_CHANNEL_ERROR) << r.error;
    EXPECT_EQ(r.status, 0u);
    EXPECT_EQ(json_object_array_length(emulator.Requests(L"vault").get()), 0u);
}

TEST_F(World, NothingOutsideTheWorldIsReachable)
{
    // An address off the machine (documentation range): no route leads there.
    HttpResult outside = HttpSend({L"http://192.0.2.1/"});
    EXPECT_EQ(outside.error, static_cast<DWORD>(ERROR_WINHTTP_CANNOT_CONNECT));
    // A real Azure name the world does not serve: it does not resolve.
    HttpResult unnamed = HttpSend({L"https://management.azure.com/"});
    EXPECT_EQ(unnamed.error, static_cast<DWORD>(ERROR_WINHTTP_NAME_NOT_RESOLVED));
}
