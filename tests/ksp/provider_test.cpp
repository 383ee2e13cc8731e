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

TEST_F(Provider, OpensOnDefaultsWithNoSettingsOrSettingsOfTheWrongType)
{
    for (bool wrongTypes : {false, true}) {
        SCOPED_TRACE(wrongTypes ? "wrong types" : "no settings");
        emulator.Reset();
        SetIdentity();
        SetSettingDword(HKEY_LOCAL_MACHINE, L"FromKVLastSyncTime", 0); // the last sync long ago
        if (wrongTypes) {
            SetSettingDword(HKEY_LOCAL_MACHINE, L"KeyVault", 7);
            SetSetting(HKEY_LOCAL_MACHINE, L"AuthenticationType", L"2");
            SetSettingDword(HKEY_LOCAL_MACHINE, L"TenantId", 1);
            SetSetting(HKEY_LOCAL_MACHINE, L"CertificatesOrKeys", L"1");
            SetSetting(HKEY_CURRENT_USER, L"KeyVault", std::wstring(512, L'v')); // 1026 bytes with terminator
            SetSetting(HKEY_CURRENT_USER, L"ClientId", std::wstring(511, L'c'));  // exactly 1024 bytes: fits
        }
        NCRYPT_PROV_HANDLE p = OpenProvider();
        // Managed identity, and the vault named after the identity, in both scopes.
        EXPECT_EQ(ListHost(p, NCRYPT_MACHINE_KEY_FLAG), kIdentityVault);
        EXPECT_EQ(ListHost(p, 0), kIdentityVault);
        EXPECT_EQ(Seen(L"login"), 0u);
        // One token per identity: both scopes share it unless the user scope names another client.
        EXPECT_EQ(Seen(L"imds"), wrongTypes ? 2u : 1u);
        // Certificate mode: a machine open syncs the vault's certificates first.
        ForgetRequests();
        NCRYPT_KEY_HANDLE h = 0;
        EXPECT_EQ(Ksp().OpenKey(p, &h, L"absent", 0, NCRYPT_MACHINE_KEY_FLAG), NTE_NOT_FOUND);
        EXPECT_EQ(VaultCalls("GET /certificates?").size(), 1u);
    }
    EXPECT_EQ(Log("KVCNew ClientID and Client Cert " + std::string(511, 'c') + "  8").size(), 1u);
    EXPECT_EQ(Log("KestalKeyVaultKSPOpenProvider Read Key Vault Names 8").size(), 2u);
    EXPECT_EQ(Log("GetKeyStorageInterface Kestal Key Vault Key Storage Provider 4").size(), 1u);
    for (const std::string &line : Log())
        EXPECT_EQ(line.find("DPAPI"), std::string::npos) << line;
}

TEST_F(Provider, EachScopeReadsItsOwnHive)
{
    UseVault(HKEY_LOCAL_MACHINE, L"Kestal.Test"); // client secret, plain keys
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientCertID", L"cert-m");
    SetSettingDword(HKEY_LOCAL_MACHINE, L"ExportableOption", 3);
    SetSetting(HKEY_CURRENT_USER, L"KeyVault", L"kestaltest2");
    SetIdentity();
    NCRYPT_PROV_HANDLE p = OpenProvider();
    EXPECT_EQ(ListHost(p, NCRYPT_MACHINE_KEY_FLAG), "kestaltest.vault.azure.net"); // without dots, lower case
    std::vector<SeenRequest> logins = SeenRequests(emulator, L"login");
    ASSERT_EQ(logins.size(), 1u);
    EXPECT_NE(logins[0].body.find("&client_id=5d0c8a3e-1f2b-4c6d-9e8f-0a1b2c3d4e01&"), std::string::npos);
    EXPECT_EQ(Log("KVCNew ClientID and Client Cert 5d0c8a3e-1f2b-4c6d-9e8f-0a1b2c3d4e01 cert-m 8").size(), 1u);
    // Nothing of the machine scope leaks into the user client: its own vault, managed identity.
    EXPECT_EQ(ListHost(p, 0), "kestaltest2.vault.azure.net");
    EXPECT_EQ(Seen(L"login"), 1u);
    EXPECT_EQ(Seen(L"imds"), 1u);
    // Each scope's ExportableOption: 3 is refused in the machine scope; the user scope has none.
    for (DWORD scope : {DWORD{NCRYPT_MACHINE_KEY_FLAG}, DWORD{0}}) {
        NCRYPT_KEY_HANDLE h = 0;
        DWORD policy = 0;
        ASSERT_EQ(Ksp().CreatePersistedKey(p, &h, L"RSA", nullptr, 0, scope), 0);
        EXPECT_EQ(Ksp().SetKeyProperty(p, h, NCRYPT_EXPORT_POLICY_PROPERTY, reinterpret_cast<BYTE *>(&policy), 4, 0),
                  scope ? NTE_NOT_SUPPORTED : 0);
        EXPECT_EQ(Ksp().FreeKey(p, h), 0);
    }
    EXPECT_EQ(Log("SetBuildinKeyProperty bad Exportable Value ExportableOption 3 1").size(), 1u);
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
    EXPECT_GT(machineDpapi.size(), 1000u); // the whole 1024-byte buffer is protected
    EXPECT_GT(userDpapi.size(), 1000u);
    EXPECT_EQ(machineDpapi.find_first_of(L"\r\n"), std::wstring::npos);
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret"), L"");
    EXPECT_EQ(GetSetting(HKEY_CURRENT_USER, L"ClientSecret"), L"");
    // Each client signs in with its own secret, in this process and the next.
    ListHost(p, NCRYPT_MACHINE_KEY_FLAG);
    EXPECT_TRUE(LastLoginBody().ends_with("&client_secret=" + Narrow(kMachineSecret))) << LastLoginBody();
    ListHost(p, 0);
    EXPECT_TRUE(LastLoginBody().ends_with("&client_secret=" + Narrow(kUserSecret))) << LastLoginBody();
    if (second)
        return SetSetting(HKEY_LOCAL_MACHINE, L"SecondProcessRan", L"yes");

    EXPECT_EQ(Log("KVCNew ClientID and Client Cert client-1  8").size(), 2u); // one client per scope
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

TEST_F(Provider, UnreadableDpapiSecretIsLoggedAndTheProviderStillOpens)
{
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret", L"");
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret", L"AAECAwQFBgcICQoLDA0ODw==");
    NCRYPT_PROV_HANDLE p = OpenProvider();
    ListHost(p, NCRYPT_MACHINE_KEY_FLAG);
    EXPECT_TRUE(LastLoginBody().ends_with("&client_secret=")) << LastLoginBody();
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret"), L"AAECAwQFBgcICQoLDA0ODw==");
    EXPECT_EQ(Log("GetSecretFromDPAPI Failed to decrypt secret - CryptUnprotectData Error 0x").size(), 1u);
    EXPECT_EQ(Log("KestalKeyVaultKSPOpenProvider Failed to Decrypt DPAPI Secret 8").size(), 1u);
}

TEST_F(Provider, ProviderNameUpTo32766CharactersIsAccepted)
{
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = Ksp(Via::Core);
    NCRYPT_PROV_HANDLE h = 0;
    ASSERT_EQ(ksp.OpenProvider(&h, std::wstring(32766, L'n').c_str(), 0), 0);
    DWORD cb = 0;
    EXPECT_EQ(ksp.GetProviderProperty(h, L"Name", nullptr, 0, &cb, 0), 0);
    EXPECT_EQ(cb, 65534u);
    EXPECT_EQ(ksp.FreeProvider(h), 0);

    h = 0;
    EXPECT_EQ(ksp.OpenProvider(&h, std::wstring(32767, L'n').c_str(), 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(ksp.OpenProvider(&h, nullptr, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(ksp.OpenProvider(nullptr, KSP_PROVIDER_NAME, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(h, 0u);
}

TEST_F(Provider, RegistryStringWriterNeverCreatesTheKey)
{
    EXPECT_TRUE(KestalRegSetString(TRUE, L"CertSync", L"2024-01-01"));
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"CertSync"), L"2024-01-01");
    RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\Kestal\\KestalKeyVaultKSP");
    EXPECT_FALSE(KestalRegSetString(FALSE, L"CertSync", L"x"));
    HKEY key = nullptr;
    EXPECT_NE(RegOpenKeyExW(HKEY_CURRENT_USER, L"Software\\Kestal\\KestalKeyVaultKSP", 0, KEY_READ, &key), ERROR_SUCCESS);
}
