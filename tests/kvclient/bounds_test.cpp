#include "tests/harness/harness.h"

#include <winhttp.h>

#include "kvclient/kvc.h"

using namespace kestal_test;

using ClientBounds = VaultProviderTest;

TEST_F(ClientBounds, AnswersThatCannotBeReadWholeAreNoAnswers)
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
        KVC_WEB_RESPONSE *r = KVCDoWebCall(nullptr, 443, L"kestaltest.vault.azure.net", L"/keys", L"GET", nullptr, nullptr);
        EXPECT_EQ(r->status, 0u);
        EXPECT_EQ(r->body, nullptr);
        EXPECT_TRUE(r->lastError == row.error || r->lastError == row.otherError) << r->lastError;
        KVCFreeWebResponse(r);
    }
    KVCSetTimeouts(nullptr);
    EXPECT_EQ(VaultRequests().size(), std::size(rows)); // neither is asked again
    EXPECT_EQ(Log("KVCDoWebCall Answer Too Large").size(), 1u);
}

TEST_F(ClientBounds, ListingsTakeAtMostTenThousandItems)
{
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
    SetSettingDword(HKEY_LOCAL_MACHINE, L"LoggingLevel", 2); // not a line per item
    KspModuleAttach();
    KVC *kvc = SignedInMachineClient();
    std::string keys, certificates;
    for (int i = 0; i <= 10000; ++i) { // one item more than is taken
        keys += R"({"kid":"https://x/keys/k)" + std::to_string(i) + "\"},";
        certificates += R"({"id":"https://x/certificates/c)" + std::to_string(i) + R"(","x5t":"AA"},)";
    }
    ScriptAnswers(emulator, "vault", R"([{"status":200,"body":{"value":[)" + keys + "{}]}}]", "GET", "/keys");
    ScriptAnswers(emulator, "vault", R"([{"status":200,"body":{"value":[)" + certificates + "{}]}}]", "GET",
                  "/certificates");
    WCHAR **names = nullptr, **thumbprints = nullptr;
    DWORD count = 0;
    EXPECT_EQ(KVCGetKeys(kvc, &names, &count), 1);
    EXPECT_EQ(count, 10000u);
    for (DWORD i = 0; i < count; ++i)
        free(names[i]);
    free(names);
    EXPECT_TRUE(KVCGetCerts(kvc, &names, &thumbprints, &count));
    EXPECT_EQ(count, 10000u);
    HeapFree(GetProcessHeap(), 0, names), HeapFree(GetProcessHeap(), 0, thumbprints);
    EXPECT_EQ(Log("KVCGetKeys Listing Stopped Item Limit").size(), 1u);
    EXPECT_EQ(Log("KVCGetCerts Listing Stopped Item Limit").size(), 1u);
}
