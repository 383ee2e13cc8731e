// What the provider puts on the wire: kept connections, and one token per process.
#include "tests/harness/harness.h"

using namespace kestal_test;

namespace {

class Wire : public VaultProviderTest {
protected:
    // Opens the key on a provider of its own and signs with it: the status of the first failure.
    SECURITY_STATUS OpenAndSign(NCRYPT_PROV_HANDLE p, DWORD flags, int signs)
    {
        NCRYPT_KEY_HANDLE key = 0;
        SECURITY_STATUS status = Ksp().OpenKey(p, &key, L"p256", 0, flags);
        BYTE hash[32] = {7}, signature[64];
        for (int i = 0; status == 0 && i < signs; ++i) {
            DWORD cb = 0;
            status = Ksp().SignHash(p, key, nullptr, hash, 32, signature, 64, &cb, 0);
        }
        if (key)
            Ksp().FreeKey(p, key);
        return status;
    }
};

} // namespace

TEST_F(Wire, KeptConnectionsCarryManySignsAndSurviveAServerThatDropsThem)
{
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
    SetSettingDword(HKEY_LOCAL_MACHINE, L"ReuseConnections", 1);
    SeedKey(emulator, L"kestaltest", "p256", R"("kty":"EC","crv":"P-256")");
    NCRYPT_PROV_HANDLE p = OpenProvider();
    EXPECT_EQ(OpenAndSign(p, NCRYPT_MACHINE_KEY_FLAG, 6), 0);
    size_t newConnections = 0;
    for (const SeenRequest &r : VaultRequests())
        newConnections += r.newConnection;
    EXPECT_EQ(VaultRequests().size(), 7u);
    EXPECT_EQ(newConnections, 1u); // the key's GET opened it; every signature followed on it

    // A server that drops idle connections costs a new connection, never a failed call.
    emulator.Call(L"PUT", L"/settings", R"({"closeConnections":true})");
    EXPECT_EQ(OpenAndSign(p, NCRYPT_MACHINE_KEY_FLAG, 4), 0);
}

TEST_F(Wire, ProviderHandlesOfOneProcessShareOneToken)
{
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
    SeedKey(emulator, L"kestaltest", "p256", R"("kty":"EC","crv":"P-256")");
    for (int handle = 0; handle < 3; ++handle) // a program that opens the provider per operation
        EXPECT_EQ(OpenAndSign(OpenProvider(), NCRYPT_MACHINE_KEY_FLAG, 2), 0) << handle;
    EXPECT_EQ(SeenRequests(emulator, L"login").size(), 1u);
}
