#include "tests/harness/harness.h"

#include <winhttp.h>

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

struct ResponseFree {
    void operator()(KVC_WEB_RESPONSE *r) const { KVCFreeWebResponse(r); }
};
using Response = std::unique_ptr<KVC_WEB_RESPONSE, ResponseFree>;

Response Call(WORD port, const wchar_t *host)
{
    return Response(KVCDoWebCall(nullptr, port, host, L"/keys", L"GET", nullptr, nullptr));
}

using Transport = VaultProviderTest;

} // namespace

// Retries stay within the call's 60 s; a server without the vault's certificate is never talked to.
TEST_F(Transport, RefusedConnectionsWaitTwentySecondsAndTlsFailures200Ms)
{
    Response r = Call(47999, L"127.0.0.1"); // nothing listens there
    EXPECT_EQ(r->status, 0u);
    EXPECT_EQ(r->lastError, static_cast<DWORD>(ERROR_WINHTTP_CANNOT_CONNECT));
    EXPECT_EQ(r->body, nullptr);
    EXPECT_EQ(time.waits, (std::vector<DWORD>{20000, 200, 20000, 200}));

    time.waits.clear();
    r = Call(443, L"tls-name-mismatch.kestal.test"); // the emulator, under a name its certificate lacks
    EXPECT_EQ(r->status, 0u);
    // Wine reports a secure channel error where Windows reports a secure failure.
    EXPECT_TRUE(r->lastError == ERROR_WINHTTP_SECURE_FAILURE || r->lastError == ERROR_WINHTTP_SECURE_CHANNEL_ERROR)
        << r->lastError;
    EXPECT_EQ(time.waits, std::vector<DWORD>(9, 200));
}

// A stalled or endless answer is no answer: half a body is never handed on as the vault's reply.
TEST_F(Transport, AnswersThatCannotBeReadWholeAreNoAnswers)
{
    const KVC_TIMEOUTS quick = {.resolveMs = 10000, .connectMs = 10000, .sendMs = 20000, .receiveMs = 500,
                                .dwBudgetSeconds = 60};
    KVCSetTimeouts(&quick);
    // Wine reports a timed-out read as the socket's WSAETIMEDOUT where Windows says ERROR_WINHTTP_TIMEOUT.
    const struct { const char *answer; DWORD error, otherError; } rows[] = {
        {R"({"status":200,"brokenChunked":true,"body":"{\"value\":\"AQAB\"}"})", ERROR_WINHTTP_TIMEOUT, WSAETIMEDOUT},
        {R"({"status":200,"body":"{}","padTo":4194305})", ERROR_INSUFFICIENT_BUFFER, ERROR_INSUFFICIENT_BUFFER},
    };
    for (const auto &row : rows) {
        ScriptAnswers(emulator, "vault", std::string("[") + row.answer + "]");
        Response r = Call(443, L"kestaltest.vault.azure.net");
        EXPECT_EQ(r->status, 0u);
        EXPECT_EQ(r->body, nullptr);
        EXPECT_TRUE(r->lastError == row.error || r->lastError == row.otherError) << r->lastError;
    }
    KVCSetTimeouts(nullptr);
    EXPECT_EQ(VaultRequests().size(), std::size(rows)); // neither is asked again
}
