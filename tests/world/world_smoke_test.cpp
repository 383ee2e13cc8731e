// The test world seen from a Windows program through the same WinHTTP the provider uses.
#include "tests/harness/harness.h"

#include <gtest/gtest.h>
#include <winhttp.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

using namespace kestal_test;

namespace {

constexpr char kTenant[] = "72f988bf-86f1-41af-91ab-2d7cd011db47";
constexpr wchar_t kKeysUrl[] = L"https://kestaltest.vault.azure.net/keys?api-version=2016-10-01";
constexpr wchar_t kImdsUrl[] =
    L"http://169.254.169.254/metadata/identity/oauth2/token?api-version=2018-02-01&resource=https%3A%2F%2Fvault.azure.net";
constexpr wchar_t kArcUrl[] =
    L"http://localhost:40342/metadata/identity/oauth2/token?api-version=2020-06-01&resource=https%3A%2F%2Fvault.azure.net";

class World : public ::testing::Test {
protected:
    void SetUp() override { emulator.Reset(); }
    Emulator emulator;
};

} // namespace

TEST_F(World, TokenFromLoginListsSeededKeysAcrossTwoPages)
{
    HttpResult challenge = HttpSend({kKeysUrl});
    EXPECT_EQ(challenge.status, 401u);
    EXPECT_EQ(challenge.Header(L"WWW-Authenticate").rfind(L"Bearer authorization=\"https://login.windows.net/", 0), 0u);

    emulator.Call(L"PUT", L"/vaults/kestaltest", R"({"pageSizes":[3]})");
    const std::set<std::string> seeded = {"alpha", "bravo", "charlie", "delta", "echo"};
    for (const auto &name : seeded)
        ASSERT_EQ(emulator.Call(L"POST", L"/vaults/kestaltest/keys", R"({"kty":"EC","name":")" + name + "\"}").status, 200u);
    emulator.Call(L"POST", L"/apps", std::string(R"({"tenant":")") + kTenant + R"(","clientId":"c1","secret":"s1"})");
    HttpResult login = HttpSend({Widen(std::string("https://login.microsoftonline.com/") + kTenant + "/oauth2/token"),
                                 L"POST",
                                 {L"Content-Type: application/x-www-form-urlencoded"},
                                 "grant_type=client_credentials&client_id=c1&client_secret=s1"
                                 "&resource=https%3A%2F%2Fvault.azure.net"});
    ASSERT_EQ(login.status, 200u) << login.error << login.body;
    Json answer = ParseJson(login.body);
    EXPECT_EQ(JsonString(answer.get(), "token_type"), "Bearer");
    EXPECT_EQ(JsonString(answer.get(), "expires_in"), "3599"); // numbers come as strings
    std::string token = JsonString(answer.get(), "access_token");
    ASSERT_FALSE(token.empty());

    std::set<std::string> listed;
    int pages = 0;
    for (std::wstring url = kKeysUrl; !url.empty() && pages < 5; ++pages) {
        HttpResult r = HttpSend({url, L"GET", {Widen("Authorization: Bearer " + token)}});
        ASSERT_EQ(r.status, 200u) << r.error << r.body;
        Json page = ParseJson(r.body);
        json_object *items = json_object_object_get(page.get(), "value");
        for (size_t i = 0; i < json_object_array_length(items); ++i) {
            std::string kid = JsonString(json_object_array_get_idx(items, i), "kid");
            listed.insert(kid.substr(kid.find_last_of('/') + 1));
        }
        url = Widen(JsonString(page.get(), "nextLink")); // absolute, followed as given
    }
    EXPECT_EQ(pages, 2);
    EXPECT_EQ(listed, seeded);
    EXPECT_TRUE(SeenRequests(emulator, L"vault").back().tls);
}

TEST_F(World, ImdsAnswersOnlyWithMetadataHeaderAndTheVaultTakesItsToken)
{
    emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})");
    HttpResult bare = HttpSend({kImdsUrl});
    EXPECT_EQ(bare.status, 400u) << bare.error;
    HttpResult r = HttpSend({kImdsUrl, L"GET", {L"Metadata: true"}});
    EXPECT_EQ(r.status, 200u) << r.error << r.body;
    std::string token = JsonString(ParseJson(r.body).get(), "access_token");
    ASSERT_FALSE(token.empty());
    EXPECT_EQ(HttpSend({kKeysUrl, L"GET", {Widen("Authorization: Bearer " + token)}}).status, 200u);
}

TEST_F(World, ArcAgentChallengeRoundTrip)
{
    emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})");
    HttpResult challenge = HttpSend({kArcUrl, L"GET", {L"Metadata: true"}});
    ASSERT_EQ(challenge.status, 401u) << challenge.error;
    std::wstring header = challenge.Header(L"WWW-Authenticate");
    ASSERT_EQ(header.rfind(L"Basic realm=", 0), 0u) << Narrow(header);
    std::wstring keyFile = header.substr(12);
    EXPECT_EQ(keyFile.rfind(L"C:\\ProgramData\\AzureConnectedMachineAgent\\Tokens\\", 0), 0u);
    std::ifstream file{std::filesystem::path(keyFile), std::ios::binary}; // where a Windows program finds it
    std::string secret(std::istreambuf_iterator<char>(file), {});
    ASSERT_FALSE(secret.empty()) << Narrow(keyFile);

    EXPECT_EQ(HttpSend({kArcUrl, L"GET", {L"Metadata: true", L"Authorization: Basic not-the-secret"}}).status, 401u);
    HttpResult r = HttpSend({kArcUrl, L"GET", {L"Metadata: true", L"Authorization: Basic " + Widen(secret)}});
    EXPECT_EQ(r.status, 200u) << r.error << r.body;
    EXPECT_FALSE(JsonString(ParseJson(r.body).get(), "access_token").empty());
}

TEST_F(World, UntrustedServerCertificatesAndAddressesOutsideTheWorldAreUnreachable)
{
    HttpResult r = HttpSend({L"https://kestaltest.vault.azure.net:9443/keys?api-version=2016-10-01"});
    // Wine reports 12157 (secure channel error) where Windows reports 12175 (secure failure).
    EXPECT_TRUE(r.error == ERROR_WINHTTP_SECURE_FAILURE || r.error == ERROR_WINHTTP_SECURE_CHANNEL_ERROR) << r.error;
    EXPECT_EQ(r.status, 0u);
    EXPECT_TRUE(SeenRequests(emulator, L"vault").empty());
    EXPECT_EQ(HttpSend({L"http://192.0.2.1/"}).error, static_cast<DWORD>(ERROR_WINHTTP_CANNOT_CONNECT));
    EXPECT_EQ(HttpSend({L"https://management.azure.com/"}).error, static_cast<DWORD>(ERROR_WINHTTP_NAME_NOT_RESOLVED));
}
