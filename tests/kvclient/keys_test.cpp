#include "tests/harness/harness.h"

#include <cstring>

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
    // The link names another host: only its "/keys?" tail is followed, on the client's own vault.
    ScriptAnswers(emulator, "vault",
                  R"([{"status":200,"body":{"value":[{"kid":"https://kestaltest.vault.azure.net/keys/first"},{}],
                       "nextLink":"https://elsewhere.example:443/keys?api-version=2016-10-01&$skiptoken=p2"}},
                      {"status":429,"repeat":6}])",
                  "GET", "/keys");
    EXPECT_EQ(KVCGetKeys(kvc, &names, &count), 0);
    EXPECT_EQ(Take(), std::vector<std::wstring>{L"first"});
    std::vector<SeenRequest> seen = VaultRequests();
    ASSERT_EQ(seen.size(), 7u);
    EXPECT_EQ(seen[1].host + seen[1].url, "kestaltest.vault.azure.net/keys?api-version=2016-10-01&$skiptoken=p2");
    EXPECT_EQ(time.waits, (std::vector<DWORD>{1000, 2000, 4000, 8000, 16000}));

    // Any other failing status ends the listing at once and writes nothing.
    names = reinterpret_cast<WCHAR **>(&count);
    count = 77;
    ScriptAnswers(emulator, "vault", R"([{"status":500}])", "GET", "/keys");
    EXPECT_EQ(KVCGetKeys(kvc, &names, &count), 0);
    EXPECT_EQ(names, reinterpret_cast<WCHAR **>(&count));
    EXPECT_EQ(count, 77u);
}

// (Found keys, names no vault name can hold, and the trace of a missing key the caller
// expects are the provider's OpenKey tests.)
TEST_F(Keys, AMissingKeyTheCallerDoesNotExpectIsAFailure)
{
    KVKey key;
    memset(&key, 0x5A, sizeof(key));
    EXPECT_EQ(KVCGetKey(kvc, L"absent", &key, 0), 0);
    EXPECT_EQ(key.kty, nullptr);
    EXPECT_EQ(Log("KVCGetKey KVCDoKVRESTCall"),
              (std::vector<std::string>{"KVCGetKey KVCDoKVRESTCall Error 1",
                                        "KVCGetKey KVCDoKVRESTCall Failed Error 0x194 1"}));
}
