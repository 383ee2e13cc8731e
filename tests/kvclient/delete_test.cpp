#include "tests/harness/harness.h"

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

// A signed-in machine client of a core provider for the vault "kestaltest".
class Deletion : public VaultProviderTest {
protected:
    KVC *Client(DWORD certificatesOrKeys = 1, DWORD doDeletePurge = 0)
    {
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest", certificatesOrKeys);
        SetSettingDword(HKEY_LOCAL_MACHINE, L"DoDeletePurge", doDeletePurge);
        return SignedInMachineClient();
    }
    void Vault(const std::string &settings) { emulator.Call(L"PUT", L"/vaults/kestaltest", settings); }
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

TEST_F(Deletion, NonzeroDoDeletePurgeOnlyDeletesAndAPurgeAloneStillSucceeds)
{
    KVC *kvc = Client(1, 1);
    SeedKey(emulator, L"kestaltest", "web01");
    Calls();
    EXPECT_EQ(KVCKeyDelete(L"web01", kvc), 0);
    EXPECT_EQ(Calls(), std::vector<std::string>{"DELETE /keys/web01?api-version=7.0"});

    // Already soft-deleted: the delete's 404 and the purge's 204 free the name.
    SetSettingDword(HKEY_LOCAL_MACHINE, L"DoDeletePurge", 0);
    kvc = SignedInMachineClient();
    Calls();
    EXPECT_EQ(KVCLowLevelDeleteKey(kvc, L"web01"), 1);
    EXPECT_EQ(Calls(), (std::vector<std::string>{"DELETE /keys/web01?api-version=7.0",
                                                 "DELETE /deletedkeys/web01?api-version=7.0"}));

    // Gone altogether: both answers 404, and the caller hears NTE_INTERNAL_ERROR.
    EXPECT_EQ(KVCKeyDelete(L"web01", kvc), NTE_INTERNAL_ERROR);
    EXPECT_EQ(Calls().size(), 2u);
    EXPECT_TRUE(time.waits.empty());
    EXPECT_EQ(KVCKeyDelete(nullptr, kvc), NTE_INTERNAL_ERROR);
}

// (A certificate-backed key is deleted and purged with its certificate: the provider's lifecycle test.)
TEST_F(Deletion, ThrottlingAndConflictsShareOneDoublingWaitAndBothAreBounded)
{
    KVC *kvc = Client();
    SeedKey(emulator, L"kestaltest", "web01");
    Vault(R"({"deleteWindowRequests":10})");
    ScriptAnswers(emulator, "vault", R"([{"status":429,"repeat":2}])", "DELETE", "/keys/web01");
    Calls();

    // The purge starts from the delete's 4 s: 409s at 4 and 8 s are retried, the one at 16 s is not.
    EXPECT_EQ(KVCLowLevelDeleteKey(kvc, L"web01"), 1); // the delete's own success stands
    std::vector<std::string> expected(6, "DELETE /deletedkeys/web01?api-version=7.0");
    std::fill_n(expected.begin(), 3, "DELETE /keys/web01?api-version=7.0");
    EXPECT_EQ(Calls(), expected);
    EXPECT_EQ(time.waits, (std::vector<DWORD>{1000, 2000, 4000, 8000, 16000}));

    // A throttling storm is retried up to waits of 64 s; the purge after it is tried once and not
    // waited for, so the whole deletion sleeps 127 s at most.
    time.waits.clear();
    ScriptAnswers(emulator, "vault", R"([{"status":429,"repeat":100}])", "DELETE");
    EXPECT_EQ(KVCLowLevelDeleteKey(kvc, L"web02"), 0);
    expected.assign(8, "DELETE /keys/web02?api-version=7.0");
    expected[7] = "DELETE /deletedkeys/web02?api-version=7.0";
    EXPECT_EQ(Calls(), expected);
    EXPECT_EQ(time.waits, (std::vector<DWORD>{1000, 2000, 4000, 8000, 16000, 32000, 64000}));
}
