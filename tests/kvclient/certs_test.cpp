#include "tests/harness/harness.h"

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

constexpr char kList[] = "GET /certificates?api-version=2016-10-01";

// One listing's two tables, released as a caller releases them.
struct Listing {
    WCHAR **names = nullptr, **thumbprints = nullptr;
    DWORD count = 0;
    ~Listing()
    {
        EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, names));
        EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, thumbprints));
    }
    std::vector<std::string> Entries() const
    {
        std::vector<std::string> out;
        for (DWORD i = 0; i < count; i++) {
            EXPECT_EQ(names[i], reinterpret_cast<WCHAR *>(names + count) + 128 * i); // slots behind the pointers
            out.push_back(Narrow(names[i]) + "=" + Narrow(thumbprints[i]));
        }
        return out;
    }
};

std::string Item(const std::string &name, const std::string &x5t)
{
    return R"({"id":"https://kestaltest.vault.azure.net/certificates/)" + name + R"(","x5t":")" + x5t + "\"}";
}
std::string Page(const std::string &items, const std::string &next = "null")
{
    return R"({"status":200,"body":{"value":[)" + items + R"(],"nextLink":)" + next + "}}";
}

// A signed-in machine client in certificate mode for the vault "kestaltest".
class Certs : public VaultProviderTest {
protected:
    void SetUp() override
    {
        VaultProviderTest::SetUp();
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest", 0);
        kvc = SignedInMachineClient();
    }
    void Script(const std::string &responses)
    {
        ScriptAnswers(emulator, "vault", "[" + responses + "]", "GET", "/certificates");
    }
    BOOL List(Listing *l) { return KVCGetCerts(kvc, &l->names, &l->thumbprints, &l->count); }
    std::vector<std::string> Calls() const
    {
        std::vector<std::string> seen;
        for (const SeenRequest &r : VaultRequests())
            seen.push_back(r.method + " " + r.url + (r.host == "kestaltest.vault.azure.net" ? "" : " @" + r.host));
        return seen;
    }
    KVC *kvc = nullptr;
};

} // namespace

TEST_F(Certs, ListingFollowsNextLinkTailsLeavesOutUnusableItemsAndFailsOnPersistingThrottle)
{
    // A link to another host is followed only as its tail, on the client's own vault.
    const std::string encoded = "-bBAVCAgAAZBABCAVCA" + std::string(24, 'z'), undecodable(50, 'a'); // "My Key"
    Script(Page(Item("alpha", "x5tA") + "," + Item("beta", "x5tB"),
                R"("https://elsewhere.example:8443/certificates?api-version=2016-10-01&$skiptoken=p2")") + "," +
           Page(Item(encoded, "x5tC") + "," + Item(undecodable, "x5tD") + R"(,{"id":"no-slash","x5t":"x"},)" +
                    R"({"id":"https://v/certificates/e"},{"id":7,"x5t":"x"},)" + Item("gamma", "x5tE")));
    Listing l;
    EXPECT_TRUE(List(&l));
    EXPECT_EQ(l.Entries(), (std::vector<std::string>{"alpha=x5tA", "beta=x5tB", "My Key=x5tC", "gamma=x5tE"}));
    EXPECT_EQ(Calls(), (std::vector<std::string>{kList, std::string(kList) + "&$skiptoken=p2"}));

    // A throttle that persists ends the listing as a failure, with the earlier pages only.
    ForgetRequests();
    Script(Page(Item("alpha", "x5tA"), R"("https://x/certificates?$skiptoken=p2")") +
           R"(,{"status":429,"repeat":5})");
    Listing throttled;
    EXPECT_FALSE(List(&throttled));
    EXPECT_EQ(throttled.Entries(), std::vector<std::string>{"alpha=x5tA"});
    EXPECT_EQ(Calls().size(), 6u);
}
