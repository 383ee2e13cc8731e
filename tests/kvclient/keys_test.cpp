#include "tests/harness/harness.h"

#include <cstring>

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

const std::string kMyKeyEncoded = "-bBAVCAgAAZBABCAVCA" + std::string(24, 'z'); // "My Key"

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

TEST_F(Keys, ReadingOneKeyByItsClearName)
{
    SeedKey(emulator, L"kestaltest", kMyKeyEncoded, R"("kty":"EC","crv":"P-384")");
    KVKey key;
    ASSERT_EQ(KVCGetKey(kvc, L"My Key", &key, 0), 1);
    EXPECT_EQ(key.x_siz, 48u);
    KVCFreeKVKey(&key);
    EXPECT_EQ(VaultRequests().back().url, "/keys/" + kMyKeyEncoded + "?api-version=2016-10-01");

    // Missing: a caller that expects it may be gets level-10 traces only; otherwise it is a failure.
    for (DWORD suppress : {1u, 0u}) {
        memset(&key, 0x5A, sizeof(key));
        EXPECT_EQ(KVCGetKey(kvc, L"absent", &key, suppress), 0);
        EXPECT_EQ(key.kty, nullptr);
    }
    EXPECT_EQ(Log("KVCGetKey KVCDoKVRESTCall"),
              (std::vector<std::string>{"KVCGetKey KVCDoKVRESTCall SupressFailedReadError 10",
                                        "KVCGetKey KVCDoKVRESTCall SupressFailedReadError Error 0x194 10",
                                        "KVCGetKey KVCDoKVRESTCall Error 1",
                                        "KVCGetKey KVCDoKVRESTCall Failed Error 0x194 1"}));

    size_t calls = VaultRequests().size(); // a name no vault name can hold is refused before any call
    EXPECT_EQ(KVCGetKey(kvc, std::wstring(43, L'k').c_str(), &key, 1), 0);
    EXPECT_EQ(VaultRequests().size(), calls);
}
