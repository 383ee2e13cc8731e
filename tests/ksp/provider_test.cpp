#include "tests/harness/harness.h"

#include <gtest/gtest.h>
#include <process.h>

using namespace kestal_test;

namespace {

constexpr wchar_t kMachineSecret[] = L"machine-Secret-4711-never-logged";
constexpr wchar_t kUserSecret[] = L"user-Secret-0815-never-logged";
constexpr char kIdentityVault[] = "x0b5f2d439c1e4d7a8f362a4.vault.azure.net"; // "%G" for the identity below

// The settings a provider read, seen in what its clients ask of the sign-in services and vaults.
class Provider : public VaultProviderTest {
protected:
    void SetIdentity() { emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})"); }
    // Lists a scope's keys through the DLL; the host of the vault request it made.
    std::string ListHost(NCRYPT_PROV_HANDLE p, DWORD flags)
    {
        NCryptKeyName *name = nullptr;
        PVOID state = nullptr;
        Ksp().EnumKeys(p, nullptr, &name, &state, flags);
        Ksp().FreeBuffer(state);
        std::vector<SeenRequest> seen = VaultRequests();
        return seen.empty() ? "(none)" : seen.back().host;
    }
    size_t Seen(const wchar_t *service) const { return SeenRequests(emulator, service).size(); }
    std::string LastLoginBody() const
    {
        std::vector<SeenRequest> seen = SeenRequests(emulator, L"login");
        return seen.empty() ? "(none)" : seen.back().body;
    }
};

} // namespace

TEST_F(Provider, SettingsOfTheWrongTypeOrTooLongAreLeftForTheDefaults)
{
    SetIdentity();
    SetSettingDword(HKEY_LOCAL_MACHINE, L"KeyVault", 7);
    SetSetting(HKEY_CURRENT_USER, L"KeyVault", std::wstring(512, L'v')); // 1026 bytes with terminator
    NCRYPT_PROV_HANDLE p = OpenProvider();
    // Managed identity, and the vault named after the identity, in both scopes.
    EXPECT_EQ(ListHost(p, NCRYPT_MACHINE_KEY_FLAG), kIdentityVault);
    EXPECT_EQ(ListHost(p, 0), kIdentityVault);
}

TEST_F(Provider, EachScopeReadsItsOwnHive)
{
    UseVault(HKEY_LOCAL_MACHINE, L"Kestal.Test"); // client secret, plain keys
    SetSetting(HKEY_CURRENT_USER, L"KeyVault", L"kestaltest2");
    SetIdentity();
    NCRYPT_PROV_HANDLE p = OpenProvider();
    EXPECT_EQ(ListHost(p, NCRYPT_MACHINE_KEY_FLAG), "kestaltest.vault.azure.net"); // without dots, lower case
    EXPECT_NE(LastLoginBody().find("&client_id=5d0c8a3e-1f2b-4c6d-9e8f-0a1b2c3d4e01&"), std::string::npos);
    // Nothing of the machine scope leaks into the user client: its own vault, managed identity.
    EXPECT_EQ(ListHost(p, 0), "kestaltest2.vault.azure.net");
    EXPECT_EQ(Seen(L"login"), 1u);
}

// Runs itself again in a new process, marked by KESTAL_SECOND_PROCESS, as the second of two opens.
TEST_F(Provider, PlainSecretsAreProtectedBlankedNeverLoggedAndReadInTheNextProcess)
{
    const bool second = !EnvVar(L"KESTAL_SECOND_PROCESS").empty();
    if (!second) {
        for (HKEY hive : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
            SetSetting(hive, L"KeyVault", L"kestaltest");
            SetSettingDword(hive, L"AuthenticationType", 2);
            SetSetting(hive, L"ClientId", L"client-1");
            SetSetting(hive, L"ClientSecret", hive == HKEY_LOCAL_MACHINE ? kMachineSecret : kUserSecret);
        }
    }
    NCRYPT_PROV_HANDLE p = OpenProvider();
    std::wstring machineDpapi = GetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret");
    std::wstring userDpapi = GetSetting(HKEY_CURRENT_USER, L"ClientDPAPISecret");
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret"), L"");
    EXPECT_EQ(GetSetting(HKEY_CURRENT_USER, L"ClientSecret"), L"");
    // Each client signs in with its own secret, in this process and the next.
    ListHost(p, NCRYPT_MACHINE_KEY_FLAG);
    EXPECT_TRUE(LastLoginBody().ends_with("&client_secret=" + Narrow(kMachineSecret))) << LastLoginBody();
    ListHost(p, 0);
    EXPECT_TRUE(LastLoginBody().ends_with("&client_secret=" + Narrow(kUserSecret))) << LastLoginBody();
    if (second)
        return SetSetting(HKEY_LOCAL_MACHINE, L"SecondProcessRan", L"yes");

    std::string log = ReadLogs(logDir);
    for (const std::wstring &secret : {std::wstring(kMachineSecret), std::wstring(kUserSecret), machineDpapi, userDpapi})
        EXPECT_EQ(log.find(Narrow(secret)), std::string::npos) << Narrow(secret);

    wchar_t exe[MAX_PATH];
    GetModuleFileNameW(nullptr, exe, MAX_PATH);
    SetEnvironmentVariableW(L"KESTAL_SECOND_PROCESS", L"1");
    intptr_t exitCode = _wspawnl(_P_WAIT, exe, exe,
                                 L"--gtest_filter=Provider.PlainSecretsAreProtectedBlankedNeverLoggedAndReadInTheNextProcess",
                                 nullptr);
    SetEnvironmentVariableW(L"KESTAL_SECOND_PROCESS", nullptr);
    EXPECT_EQ(exitCode, 0) << "the second process could not read the protected secrets";
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"SecondProcessRan"), L"yes"); // not an empty filter
}

TEST_F(Provider, UnreadableDpapiSecretSignsInWithAnEmptyOneAndIsKept)
{
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret", L"");
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret", L"AAECAwQFBgcICQoLDA0ODw==");
    NCRYPT_PROV_HANDLE p = OpenProvider();
    ListHost(p, NCRYPT_MACHINE_KEY_FLAG);
    EXPECT_TRUE(LastLoginBody().ends_with("&client_secret=")) << LastLoginBody();
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret"), L"AAECAwQFBgcICQoLDA0ODw==");
}

TEST_F(Provider, PropertiesAnswerWhatTheyHoldAndOnlyTheUseContextCanBeSet)
{
    NCRYPT_PROV_HANDLE h = OpenProvider(Via::Core);
    const std::pair<const wchar_t *, Bytes> rows[] = {{L"Impl Type", BytesOf(DWORD{NCRYPT_IMPL_HARDWARE_FLAG})},
        {L"Name", WideText(KSP_PROVIDER_NAME)}, {L"Version", BytesOf(DWORD{0x00010000})}};
    BYTE buffer[256];
    DWORD cb = 0;
    auto get = [&](const wchar_t *name, DWORD cbOutput, DWORD flags = 0) {
        return KestalKeyVaultKSPGetProviderProperty(h, name, buffer, cbOutput, &cb, flags);
    };
    for (const auto &[name, expected] : rows) {
        EXPECT_EQ(get(name, 256), 0) << Narrow(name);
        EXPECT_EQ(Bytes(buffer, buffer + cb), expected) << Narrow(name);
    }
    EXPECT_EQ(get(L"Name", 10), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(cb, sizeof(KSP_PROVIDER_NAME)); // the size needed is still told
    EXPECT_EQ(get(L"Version", 4, 1), NTE_BAD_FLAGS);
    EXPECT_EQ(KestalKeyVaultKSPGetProviderProperty(h, L"Name", buffer, 256, nullptr, 0), NTE_INVALID_PARAMETER);

    Bytes context = WideText(L"signing web traffic");
    EXPECT_EQ(KestalKeyVaultKSPSetProviderProperty(h, L"Use Context", context.data(), Size(context), NCRYPT_SILENT_FLAG),
              0);
    EXPECT_EQ(KestalKeyVaultKSPSetProviderProperty(h, L"Use Context", nullptr, 4, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(get(L"Use Context", 256), 0); // refused sets leave the value alone
    EXPECT_EQ(Bytes(buffer, buffer + cb), context);
}

TEST_F(Provider, OpenRefusesBadArgumentsAndOtherEntriesHandlesThatAreNotLiveProviders)
{
    NCRYPT_PROV_HANDLE h = 0, refused = 0;
    ASSERT_EQ(KestalKeyVaultKSPOpenProvider(&h, std::wstring(32766, L'n').c_str(), 0), 0);
    EXPECT_EQ(KestalKeyVaultKSPOpenProvider(&refused, std::wstring(32767, L'n').c_str(), 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(KestalKeyVaultKSPOpenProvider(nullptr, KSP_PROVIDER_NAME, 0), NTE_INVALID_PARAMETER);

    // A copy of a live provider's fixed part of another kind, and a freed provider.
    KSP_PROVIDER otherKind = *KspProviderFromHandle(h);
    otherKind.dwMagic = 0x7866ABCF;
    ASSERT_EQ(KestalKeyVaultKSPFreeProvider(h), 0);
    for (NCRYPT_PROV_HANDLE bad : {NCRYPT_PROV_HANDLE(0), reinterpret_cast<NCRYPT_PROV_HANDLE>(&otherKind), h}) {
        BYTE buffer[8] = {};
        DWORD cb = 0;
        EXPECT_EQ(KestalKeyVaultKSPGetProviderProperty(bad, L"Version", buffer, sizeof(buffer), &cb, 0),
                  NTE_INVALID_HANDLE);
        EXPECT_EQ(KestalKeyVaultKSPFreeProvider(bad), NTE_INVALID_HANDLE);
    }
}
