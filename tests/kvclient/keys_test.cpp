#include "tests/harness/harness.h"

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

// A signed-in machine client for the vault "kestaltest", borrowed from a provider of the core.
class Keys : public VaultProviderTest {
protected:
    void SetUp() override
    {
        VaultProviderTest::SetUp();
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
        kvc = SignedInMachineClient();
    }
    std::vector<std::wstring> Take() // the names listed, released
    {
        std::vector<std::wstring> taken(names, names + count);
        for (DWORD i = 0; i < count; ++i)
            free(names[i]);
        free(names);
        return taken;
    }
    KVC *kvc = nullptr;
    WCHAR **names = nullptr;
    DWORD count = 0;
};

} // namespace

TEST_F(Keys, ListingKeepsEarlierPagesOnlyWhenALaterOneStaysThrottled)
{
    // The link names another host: only its "/keys?" tail is followed, so the token stays with the vault.
    ScriptAnswers(emulator, "vault",
                  R"([{"status":200,"body":{"value":[{"kid":"https://kestaltest.vault.azure.net/keys/first"},{},
                       {"kid":"https://kestaltest.vault.azure.net/keys/-vBAYCAwBAzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzz"}],
                       "nextLink":"https://elsewhere.example:443/keys?api-version=2016-10-01&$skiptoken=p2"}},
                      {"status":429,"repeat":6}])",
                  "GET", "/keys");
    EXPECT_EQ(KVCGetKeys(kvc, &names, &count), 0);
    EXPECT_EQ(Take(), (std::vector<std::wstring>{L"first", L"a|b"})); // an encoded name listed whole
    std::vector<SeenRequest> seen = VaultRequests();
    ASSERT_EQ(seen.size(), 7u);
    EXPECT_EQ(seen[1].host + seen[1].url, "kestaltest.vault.azure.net/keys?api-version=2016-10-01&$skiptoken=p2");
    EXPECT_EQ(time.waits, (std::vector<DWORD>{1000, 2000, 4000, 8000, 16000}));
}

// A vault listing without end must not take all memory: it stops at ten thousand items, and
// reads no page after them.
TEST_F(Keys, ListingsTakeAtMostTenThousandItems)
{
    SetSettingDword(HKEY_LOCAL_MACHINE, L"LoggingLevel", 2); // not a line per item
    KspModuleAttach();
    std::string keys;
    for (int i = 0; i <= 10000; ++i) // one item more than is taken
        keys += R"({"kid":"https://x/keys/k)" + std::to_string(i) + "\"},";
    ScriptAnswers(emulator, "vault", R"([{"status":200,"body":{"nextLink":"https://x/keys?p2","value":[)" + keys + "{}]}}]",
                  "GET", "/keys");
    EXPECT_EQ(KVCGetKeys(kvc, &names, &count), 1);
    EXPECT_EQ(Take().size(), 10000u);
    EXPECT_EQ(VaultRequests().size(), 1u);
}

// Each refused read is logged before its throttling line, and a read throttled out is no failure of its own.
TEST_F(Keys, ThrottledReadsLogEachRefusalBeforeItsWait)
{
    ScriptAnswers(emulator, "vault", R"([{"status":429,"repeat":6}])", "GET", "/keys/web");
    KVKey key;
    EXPECT_EQ(KVCGetKey(kvc, L"web", &key, 0), 0);
    std::vector<std::string> expected;
    for (int i = 0; i < 6; ++i)
        expected.insert(expected.end(), {"KVCGetKey KVCDoKVRESTCall Error Error 0x1ad 1",
                                         "KVCGetKey KVCDoKVRESTCall ActionThrottled Error 0x1ad 2"});
    EXPECT_EQ(Log("KVCGetKey KVCDoKVRESTCall"), expected);
}
