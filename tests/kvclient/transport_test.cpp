#include "tests/harness/harness.h"

#include <winhttp.h>

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

struct ResponseFree {
    void operator()(KVC_WEB_RESPONSE *r) const { KVCFreeWebResponse(r); }
};
using Response = std::unique_ptr<KVC_WEB_RESPONSE, ResponseFree>;

constexpr wchar_t kVault[] = L"kestaltest.vault.azure.net";

Response Call(WORD port, const wchar_t *host, const wchar_t *path = L"/keys", const wchar_t *verb = L"GET",
              const wchar_t *headers = nullptr, const char *body = nullptr)
{
    return Response(KVCDoWebCall(nullptr, port, host, path, verb, headers, body));
}

// Lower-cased, as header names are compared without regard to case.
std::string Headers(const Response &r)
{
    std::string text = r->headers ? Narrow(r->headers->cStr) : "<absent>";
    for (char &c : text)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

using Transport = VaultProviderTest;

} // namespace

TEST_F(Transport, SendsHeadersAndBodyOnAFreshConnectionAndHandsBackTheWholeAnswer)
{
    std::string big(100000, 'b');
    ScriptAnswers(emulator, "vault",
                  R"([{"status":201,"headers":{"X-Answer":"yes"},"body":"{\"a\":1}"},{"drop":true},{"status":200},)"
                  R"({"status":200,"body":")" + big + "\"}]");
    Response r = Call(443, kVault, L"/keys/k/sign?api-version=7.0", L"POST", L"X-One: 1\r\nX-Two: 2\r\n", "{}");
    EXPECT_EQ(r->status, 201u);
    EXPECT_STREQ(r->body, R"({"a":1})");
    EXPECT_EQ(Headers(r).rfind("http/1.1 201 created\r\n", 0), 0u) << Headers(r);
    EXPECT_NE(Headers(r).find("\r\nx-answer: yes\r\n"), std::string::npos) << Headers(r);
    Response empty = Call(443, kVault); // a dropped connection first, retried after 200 ms
    EXPECT_EQ(empty->status, 200u);
    EXPECT_STREQ(empty->body, ""); // present, not null
    EXPECT_EQ(Call(443, kVault)->body, big); // read over many chunks
    EXPECT_EQ(time.waits, std::vector<DWORD>{200});

    std::vector<SeenRequest> seen = VaultRequests();
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].method + " " + seen[0].url + " " + seen[0].body, "POST /keys/k/sign?api-version=7.0 {}");
    EXPECT_EQ(seen[0].Header("User-Agent"), "Kestal Key Vault Key Storage Provider");
    EXPECT_EQ(seen[0].SentHeaders(), (std::vector<std::string>{"X-One: 1", "X-Two: 2"}));
    EXPECT_TRUE(seen[3].tls && seen[3].newConnection);

    Response challenge = Call(443, kVault, L"/keys?api-version=7.0"); // no token
    EXPECT_EQ(challenge->status, 401u);
    EXPECT_NE(Headers(challenge).find("\r\nwww-authenticate: bearer authorization=\"https://login.windows.net/"),
              std::string::npos)
        << Headers(challenge);
}

TEST_F(Transport, RefusedConnectionsWaitTwentySecondsAndTlsFailures200Ms)
{
    Response r = Call(47999, L"127.0.0.1"); // nothing listens there
    EXPECT_EQ(r->status, 0u);
    EXPECT_EQ(r->lastError, static_cast<DWORD>(ERROR_WINHTTP_CANNOT_CONNECT));
    EXPECT_EQ(r->body, nullptr);
    // Three attempts: a fourth would start past the call's 60 s.
    EXPECT_EQ(time.waits, (std::vector<DWORD>{20000, 200, 20000, 200}));

    time.waits.clear();
    r = Call(443, L"tls-name-mismatch.kestal.test"); // the emulator, under a name its certificate lacks
    EXPECT_EQ(r->status, 0u);
    // Wine reports a secure channel error where Windows reports a secure failure.
    EXPECT_TRUE(r->lastError == ERROR_WINHTTP_SECURE_FAILURE || r->lastError == ERROR_WINHTTP_SECURE_CHANNEL_ERROR)
        << r->lastError;
    EXPECT_EQ(time.waits, std::vector<DWORD>(9, 200));
}
