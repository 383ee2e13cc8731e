#include "tests/harness/harness.h"

#include "kvclient/kvc.h"
#include "tests/support/logfolder.h"

using namespace kestal_test;

namespace {

constexpr wchar_t kSecret[] = L"Never+Logged&Secret=4711";

class Rest : public VaultProviderTest {
protected:
    void TearDown() override
    {
        SetEnvironmentVariableW(L"IDENTITY_ENDPOINT", nullptr);
        KspSetEventLogSeam(nullptr);
        VaultProviderTest::TearDown();
    }
    // A client holding a token from the emulated sign-in (authn 2) or identity (authn 1).
    KvcOwner SignedIn(DWORD authn = 2, const wchar_t *vault = L"kestaltest", const wchar_t *secret = kSecret)
    {
        emulator.Call(L"POST", L"/apps",
                      R"({"tenant":")" + std::string(kTenant) + R"(","clientId":"app-1","secret":")" + Narrow(kSecret) +
                          "\"}");
        emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})");
        KvcOwner kvc(KVCNew(vault, authn, Widen(kTenant).c_str(), L"app-1", secret, L"", TRUE, 1, 1, 0));
        KVCAuthenticate(kvc.get(), nullptr);
        return kvc;
    }
    static int List(KVC *kvc, const wchar_t *version = nullptr)
    {
        return KVCDoKVRESTCall(kvc, 0, nullptr, 0, nullptr, L"GET", nullptr, nullptr, version);
    }
};

} // namespace

TEST_F(Rest, BuildsTheUrlAndTheFiveHeadersOfEachCall)
{
    KvcOwner kvc = SignedIn();
    struct Case {
        const wchar_t *path;
        DWORD collection;
        const wchar_t *name, *verb, *action;
        const char *body;
        const wchar_t *version;
        const char *url;
    } cases[] = {
        {nullptr, 0, nullptr, L"GET", nullptr, nullptr, nullptr, "/keys?api-version=2016-10-01"},
        {nullptr, 1, L"web-cert", L"GET", nullptr, nullptr, L"7.0", "/certificates/web-cert?api-version=7.0"},
        {nullptr, 0, L"k1/0a1b", L"POST", L"sign", R"({"alg":"RS256"})", L"7.0", "/keys/k1/0a1b/sign?api-version=7.0"},
        {nullptr, 0, L"k1", L"DELETE", L"", nullptr, nullptr, "/keys/k1?api-version=2016-10-01"},
        {L"/keys?api-version=7.0&$skiptoken=abc", 1, L"x", L"GET", L"x", nullptr, L"9.9",
         "/keys?api-version=7.0&$skiptoken=abc"},
    };
    std::string answers = R"({"status":200,"body":"{}"})";
    ScriptAnswers(emulator, "vault",
                  "[" + answers + "," + answers + "," + answers + "," + answers + "," + answers + "]");
    std::string lastId;
    for (const Case &c : cases) {
        EXPECT_EQ(KVCDoKVRESTCall(kvc.get(), 0, c.path, c.collection, c.name, c.verb, c.action, c.body, c.version), 1);
        EXPECT_STREQ(kvc->lastResponse, "{}");
        SeenRequest seen = VaultRequests().back();
        EXPECT_EQ(seen.method + " https://" + seen.host + seen.url + " " + seen.body,
                  Narrow(c.verb) + " https://kestaltest.vault.azure.net" + c.url + " " + (c.body ? c.body : ""));
        EXPECT_TRUE(seen.tls);
        std::string id = seen.Header("client-request-id");
        EXPECT_EQ(seen.SentHeaders(),
                  (std::vector<std::string>{"Content-Type: application/json; charset=utf-8", "Accept: application/json",
                                            "return-client-request-id: true",
                                            "Authorization: Bearer " + Narrow(kvc->accessToken->cStr),
                                            "client-request-id: " + id}));
        EXPECT_EQ(id.size(), 38u);
        EXPECT_NE(id, lastId);
        lastId = id;
    }
    EXPECT_EQ(Log("KVCDoKVRESTCall url").back(), "KVCDoKVRESTCall url /keys?api-version=7.0&$skiptoken=abc 10");
    EXPECT_EQ(Log("KVCDoKVRESTCall API Version"),
              std::vector<std::string>(2, "KVCDoKVRESTCall API Version 2016-10-01 10"));
    EXPECT_EQ(Log("KVCDoKVRESTCall Good - JSON").back(), "KVCDoKVRESTCall Good - JSON {} 10");
}

TEST_F(Rest, OnlyStatuses200To204Except203Succeed)
{
    KvcOwner kvc = SignedIn();
    const std::pair<int, int> cases[] = {{200, 1}, {201, 1}, {202, 1}, {203, 0}, {204, 1},
                                         {400, 0}, {404, 0}, {409, 0}, {429, 0}, {500, 0}};
    for (auto [status, result] : cases) {
        std::string body = status == 204 ? "" : "{\"s\":" + std::to_string(status) + "}";
        ScriptAnswers(emulator, "vault",
                      "[{\"status\":" + std::to_string(status) + (body.empty() ? "" : ",\"body\":" + body) + "}]");
        EXPECT_EQ(List(kvc.get(), L"7.0"), result) << status;
        EXPECT_EQ(kvc->lastStatus, static_cast<DWORD>(status));
        EXPECT_STREQ(kvc->lastResponse, body.c_str());
    }
    EXPECT_EQ(Log("KVCDoKVRESTCall Failed"), std::vector<std::string>(6, "KVCDoKVRESTCall Failed - JSON Error 0x0 10"));
    EXPECT_TRUE(time.waits.empty()); // the frame never retries
}

TEST_F(Rest, WithoutATokenNothingIsSentAndTheLastAnswerStays)
{
    KvcOwner kvc = SignedIn();
    ScriptAnswers(emulator, "vault", R"([{"status":429,"body":"busy"}])");
    EXPECT_EQ(List(kvc.get()), 0);
    BldStrFree(kvc->accessToken);
    kvc->accessToken = nullptr;
    EXPECT_EQ(List(kvc.get()), 0);
    EXPECT_EQ(List(nullptr), 0);
    EXPECT_EQ(VaultRequests().size(), 1u);
    EXPECT_EQ(kvc->lastStatus, 429u);
    EXPECT_STREQ(kvc->lastResponse, "busy");
    EXPECT_EQ(Log("KVCDoKVRESTCall Failed - kvc"),
              std::vector<std::string>(2, "KVCDoKVRESTCall Failed - kvc, kvc->tokenType or kvc->accessToken or "
                                          "kvc->tokenType->cStr or kvc->accessToken->cStr NULL Error 0x57 10"));
}

TEST_F(Rest, UnreachableVaultLeavesStatusZeroAndNoBody)
{
    KvcOwner kvc = SignedIn(2, L"notinthisworld");
    EXPECT_EQ(List(kvc.get()), 0);
    EXPECT_EQ(kvc->lastStatus, 0u);
    EXPECT_EQ(kvc->lastResponse, nullptr);
    EXPECT_EQ(time.waits, std::vector<DWORD>(9, 200));
    EXPECT_EQ(Log("KVCDoKVRESTCall Failed"), std::vector<std::string>{"KVCDoKVRESTCall Failed - JSON Error 0x2ee7 10"});
}

TEST_F(Rest, IdentityVaultListsItsKeysWithTheManagedIdentityToken)
{
    KvcOwner kvc = SignedIn(1, L"%G");
    ASSERT_STREQ(kvc->kvName->cStr, L"x0b5f2d439c1e4d7a8f362a4");
    SeedKey(emulator, L"x0b5f2d439c1e4d7a8f362a4", "identity-key");
    ASSERT_EQ(List(kvc.get(), L"7.0"), 1);
    EXPECT_EQ(kvc->lastStatus, 200u);
    EXPECT_NE(std::string(kvc->lastResponse).find("/keys/identity-key\""), std::string::npos) << kvc->lastResponse;
}

TEST_F(Rest, SecretsAndTokensNeverReachTheLog)
{
    SetSettingDword(HKEY_LOCAL_MACHINE, L"EVLoggingLevel", 10);
    KspModuleAttach();
    g_events.clear();
    KSP_EVENT_LOG_SEAM seam = {RecordEvent};
    KspSetEventLogSeam(&seam);
    SetEnvironmentVariableW(L"IDENTITY_ENDPOINT", L"http://127.0.0.1:40342/metadata/identity/oauth2/token");
    KvcOwner bySecret = SignedIn(2), byArc = SignedIn(1), wrong = SignedIn(2, L"kestaltest", L"Wrong+Secret=0815");
    EXPECT_EQ(wrong->accessToken, nullptr);
    for (KVC *kvc : {bySecret.get(), byArc.get()})
        EXPECT_EQ(List(kvc), 1);

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
          Narrow(bySecret->accessToken->cStr), Narrow(byArc->accessToken->cStr), arcKey}) {
        EXPECT_EQ(log.find(secret), std::string::npos) << secret;
        EXPECT_EQ(events.find(secret), std::string::npos) << secret;
    }
}
