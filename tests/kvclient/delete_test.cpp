#include "tests/harness/harness.h"

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

// A signed-in machine client of a core provider for the vault "kestaltest".
class Deletion : public VaultProviderTest {
protected:
    KVC *Client(DWORD doDeletePurge)
    {
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
        SetSettingDword(HKEY_LOCAL_MACHINE, L"DoDeletePurge", doDeletePurge);
        return SignedInMachineClient();
    }
    // "METHOD url" of every vault request since the last call.
    std::vector<std::string> Calls()
    {
        std::vector<std::string> calls;
        for (const SeenRequest &r : VaultRequests())
            calls.push_back(r.method + " " + r.url);
        ForgetRequests();
        return calls;
    }
};

} // namespace

// A deletion is reported done only when the name is free, or when the setting asks for no purge.
TEST_F(Deletion, NonzeroDoDeletePurgeOnlyDeletesAndAPurgeAloneStillSucceeds)
{
    KVC *kvc = Client(1);
    SeedKey(emulator, L"kestaltest", "web01");
    Calls();
    EXPECT_EQ(KVCKeyDelete(L"web01", kvc), 0);
    EXPECT_EQ(Calls(), std::vector<std::string>{"DELETE /keys/web01?api-version=7.0"});

    // Already soft-deleted: the delete's 404 and the purge's 204 free the name.
    kvc = Client(0);
    Calls();
    EXPECT_EQ(KVCLowLevelDeleteKey(kvc, L"web01"), 1);
    EXPECT_EQ(Calls(), (std::vector<std::string>{"DELETE /keys/web01?api-version=7.0",
                                                 "DELETE /deletedkeys/web01?api-version=7.0"}));

    // Gone altogether: both answers 404, and the caller hears NTE_INTERNAL_ERROR.
    EXPECT_EQ(KVCKeyDelete(L"web01", kvc), NTE_INTERNAL_ERROR);
    EXPECT_EQ(KVCKeyDelete(nullptr, kvc), NTE_INTERNAL_ERROR);
}

// Right after a delete the vault refuses the purge for a while: it is retried, but never without end.
TEST_F(Deletion, ThrottlingAndConflictsShareOneDoublingWaitThatIsBounded)
{
    KVC *kvc = Client(0);
    SeedKey(emulator, L"kestaltest", "web01");
    emulator.Call(L"PUT", L"/vaults/kestaltest", R"({"deleteWindowRequests":10})");
    ScriptAnswers(emulator, "vault", R"([{"status":429,"repeat":2}])", "DELETE", "/keys/web01");
    Calls();

    // The purge starts from the delete's 4 s: 409s at 4 and 8 s are retried, the one at 16 s is not.
    EXPECT_EQ(KVCLowLevelDeleteKey(kvc, L"web01"), 1); // the delete's own success stands
    std::vector<std::string> expected(6, "DELETE /deletedkeys/web01?api-version=7.0");
    std::fill_n(expected.begin(), 3, "DELETE /keys/web01?api-version=7.0");
    EXPECT_EQ(Calls(), expected);
    EXPECT_EQ(time.waits, (std::vector<DWORD>{1000, 2000, 4000, 8000, 16000}));
}
