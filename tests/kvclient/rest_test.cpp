#include "tests/harness/harness.h"

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

constexpr wchar_t kSecret[] = L"Never+Logged&Secret=4711";

class Rest : public VaultProviderTest {
protected:
    void TearDown() override
    {
        SetEnvironmentVariableW(L"IDENTITY_ENDPOINT", nullptr);
        VaultProviderTest::TearDown();
    }
    // A client holding a token from the emulated sign-in (authn 2) or identity (authn 1).
    KvcOwner SignedIn(DWORD authn = 2, const wchar_t *secret = kSecret)
    {
        emulator.Call(L"POST", L"/apps",
                      R"({"tenant":")" + std::string(kTenant) + R"(","clientId":"app-1","secret":")" + Narrow(kSecret) +
                          "\"}");
        emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})");
        KvcOwner kvc(KVCNew(L"kestaltest", authn, Widen(kTenant).c_str(), L"app-1", secret, L"", TRUE, 1, 1, 0));
        KVCAuthenticate(kvc.get(), nullptr);
        return kvc;
    }
    static int List(KVC *kvc, KVC_ANSWER *answer)
    {
        return KVCDoKVRESTCall(kvc, answer, nullptr, 0, nullptr, L"GET", nullptr, nullptr, nullptr);
    }
};

} // namespace

// The token goes only in the Authorization header, and only over TLS to the vault's own host. A failed
// call must never look like a success, nor leave an earlier call's answer behind.
TEST_F(Rest, SendsTheExactRequestWithTheFiveHeadersAndOnly200To204Except203Succeed)
{
    KvcOwner kvc = SignedIn();
    ScopedAnswer answer;
    KVCDoKVRESTCall(kvc.get(), &answer, nullptr, 0, L"k1/0a1b", L"POST", L"sign", R"({"alg":"RS256"})", L"7.0");

    std::vector<SeenRequest> seen = VaultRequests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].method + " https://" + seen[0].host + seen[0].url + " " + seen[0].body,
              R"(POST https://kestaltest.vault.azure.net/keys/k1/0a1b/sign?api-version=7.0 {"alg":"RS256"})");
    EXPECT_TRUE(seen[0].tls);
    EXPECT_EQ(seen[0].Header("User-Agent"), "Kestal Key Vault Key Storage Provider");
    EXPECT_EQ(seen[0].SentHeaders(),
              (std::vector<std::string>{"Content-Type: application/json; charset=utf-8", "Accept: application/json",
                                        "return-client-request-id: true",
                                        "Authorization: Bearer " + Narrow(kvc->accessToken->cStr),
                                        "client-request-id: " + seen[0].Header("client-request-id")}));

    const std::pair<int, int> cases[] = {{200, 1}, {203, 0}, {204, 1}, {404, 0}, {429, 0}};
    for (auto [status, result] : cases) {
        std::string body = status == 204 ? "" : "{\"s\":" + std::to_string(status) + "}";
        ScriptAnswers(emulator, "vault",
                      "[{\"status\":" + std::to_string(status) + (body.empty() ? "" : ",\"body\":" + body) + "}]");
        EXPECT_EQ(List(kvc.get(), &answer), result) << status;
        EXPECT_EQ(answer.status, static_cast<DWORD>(status));
        EXPECT_STREQ(answer.body, body.c_str());
    }
    EXPECT_EQ(List(nullptr, &answer), 0);
    EXPECT_EQ(answer.status, 0u); // an answer never outlives the next call
    EXPECT_EQ(answer.body, nullptr);
}

// Neither the file nor the event log ever holds a secret, an Arc key or a token, in any form sent.
TEST_F(Rest, SecretsAndTokensNeverReachTheLog)
{
    SetSettingDword(HKEY_LOCAL_MACHINE, L"EVLoggingLevel", 10);
    KspModuleAttach(); // the event log is recorded from the start of each test
    SetEnvironmentVariableW(L"IDENTITY_ENDPOINT", L"http://127.0.0.1:40342/metadata/identity/oauth2/token");
    KvcOwner bySecret = SignedIn(2), byArc = SignedIn(1), wrong = SignedIn(2, L"Wrong+Secret=0815");
    EXPECT_EQ(wrong->accessToken, nullptr);
    ScopedAnswer answer;
    for (KVC *kvc : {bySecret.get(), byArc.get()})
        EXPECT_EQ(List(kvc, &answer), 1);

    std::string log, events;
    for (const std::string &line : Log())
        log += line + "\n";
    for (const RecordedEvent &e : g_events)
        events += Narrow(e.message) + "\n";
    ASSERT_NE(log.find("KVCDoKVRESTCall Good - JSON"), std::string::npos);
    ASSERT_NE(events.find("KVCDoKVRESTCall Good - JSON"), std::string::npos);
    std::string arcKey = SeenRequests(emulator, L"arc").back().Header("Authorization").substr(6);
    for (const std::string &secret :
         {Narrow(kSecret), std::string("Never%2BLogged"), std::string("Wrong+Secret"), std::string("Wrong%2BSecret"),
          Narrow(bySecret->accessToken->cStr), Narrow(byArc->accessToken->cStr), arcKey})
        EXPECT_EQ((log + events).find(secret), std::string::npos) << secret;
}
