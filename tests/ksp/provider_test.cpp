#include "tests/harness/harness.h"

#include <gtest/gtest.h>
#include <process.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>

#include "support/log.h"

using namespace kestal_test;

namespace {

constexpr wchar_t kMachineSecret[] = L"machine-Secret-4711-never-logged";
constexpr wchar_t kUserSecret[] = L"user-Secret-0815-never-logged";

std::wstring Text(const BldStr *s) { return s && s->cStr ? s->cStr : L"<absent>"; }

// Both hives empty, every line of the core's log going to a fresh folder.
class Provider : public ::testing::Test {
protected:
    void SetUp() override
    {
        static int count = 0;
        if (EnvVar(L"KESTAL_SECOND_PROCESS").empty()) { // the second process reads what the first left
            ClearSettings(HKEY_LOCAL_MACHINE);
            ClearSettings(HKEY_CURRENT_USER);
        }
        logDir_ = (std::filesystem::temp_directory_path() /
                   (L"kestal-provider-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count)))
                      .wstring();
        CreateDirectoryW(logDir_.c_str(), nullptr);
        SetSetting(HKEY_LOCAL_MACHINE, L"LogfilePath", logDir_);
        LogConfigure(); // the folder is read once, as at module attach
        savedLevel_ = std::exchange(g_LogLevel, 10);
    }
    void TearDown() override
    {
        for (NCRYPT_PROV_HANDLE h : open_)
            KestalKeyVaultKSPFreeProvider(h);
        g_LogLevel = savedLevel_;
    }
    KSP_PROVIDER *Open(const wchar_t *name = KSP_PROVIDER_NAME)
    {
        NCRYPT_PROV_HANDLE h = 0;
        EXPECT_EQ(KestalKeyVaultKSPOpenProvider(&h, name, 0), 0);
        if (h)
            open_.push_back(h);
        return KspProviderFromHandle(h);
    }
    std::string Log() const { return ReadTodaysLog(logDir_); }
    // A whole line of the log is this message and level, as "... Names 8".
    bool Logged(const std::string &line) const { return std::ranges::count(LogMessages(Log()), line) > 0; }

    std::wstring logDir_;
    int savedLevel_ = 0;
    std::vector<NCRYPT_PROV_HANDLE> open_;
};

} // namespace

TEST_F(Provider, OpensOnDefaultsWithNoSettingsOrSettingsOfTheWrongType)
{
    for (bool wrongTypes : {false, true}) {
        if (wrongTypes) {
            SetSettingDword(HKEY_LOCAL_MACHINE, L"KeyVault", 7);
            SetSetting(HKEY_LOCAL_MACHINE, L"AuthenticationType", L"2");
            SetSettingDword(HKEY_LOCAL_MACHINE, L"TenantId", 1);
            SetSetting(HKEY_LOCAL_MACHINE, L"DoDeletePurge", L"1");
            SetSetting(HKEY_LOCAL_MACHINE, L"CertificatesOrKeys", L"1");
            SetSetting(HKEY_CURRENT_USER, L"KeyVault", std::wstring(512, L'v')); // 1026 bytes with terminator
            SetSetting(HKEY_CURRENT_USER, L"ClientId", std::wstring(511, L'c'));  // exactly 1024 bytes: fits
        }
        KSP_PROVIDER *p = Open();
        ASSERT_NE(p, nullptr);
        EXPECT_STREQ(p->pszProviderName, KSP_PROVIDER_NAME);
        EXPECT_EQ(p->cbLength, sizeof(KSP_PROVIDER) + sizeof(KSP_PROVIDER_NAME));
        EXPECT_STREQ(p->szKeyVaultMachine, L"%G");
        EXPECT_STREQ(p->szKeyVaultUser, L"%G");
        for (KVC *kvc : {p->kvcMachine, p->kvcUser}) { // one vault per identity in both scopes
            ASSERT_NE(kvc, nullptr);
            EXPECT_EQ(Text(kvc->kvName), L"oidguid");
            EXPECT_EQ(Text(kvc->tenantId), L"");
            EXPECT_EQ(Text(kvc->clientSecret), L"");
            EXPECT_EQ(kvc->authn, 1u);
            EXPECT_EQ(kvc->fPurge, 1u);
            EXPECT_EQ(kvc->fCertMode, 1u);
        }
        EXPECT_EQ(Text(p->kvcMachine->clientId), L"");
        EXPECT_EQ(Text(p->kvcUser->clientId), wrongTypes ? std::wstring(511, L'c') : L"");
        EXPECT_EQ(p->kvcMachine->fMachine, 1u);
        EXPECT_EQ(p->kvcUser->fMachine, 0u);
    }
    EXPECT_TRUE(Logged("KestalKeyVaultKSPOpenProvider Read Key Vault Names 8"));
    EXPECT_EQ(Log().find("DPAPI"), std::string::npos);
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table = nullptr;
    ASSERT_EQ(GetKeyStorageInterface(KSP_PROVIDER_NAME, &table, 0), 0);
    EXPECT_TRUE(Logged("GetKeyStorageInterface Kestal Key Vault Key Storage Provider 4"));
}

TEST_F(Provider, EachScopeReadsItsOwnHive)
{
    SetSetting(HKEY_LOCAL_MACHINE, L"KeyVault", L"Corp.Machine-Vault");
    SetSettingDword(HKEY_LOCAL_MACHINE, L"AuthenticationType", 2);
    SetSetting(HKEY_LOCAL_MACHINE, L"TenantId", L"tenant-m");
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientId", L"client-m");
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientCertID", L"cert-m");
    SetSettingDword(HKEY_LOCAL_MACHINE, L"DoDeletePurge", 1);
    SetSettingDword(HKEY_LOCAL_MACHINE, L"CertificatesOrKeys", 1);
    SetSettingDword(HKEY_LOCAL_MACHINE, L"ExportableOption", 3);
    SetSetting(HKEY_CURRENT_USER, L"KeyVault", L"user-vault");
    KSP_PROVIDER *p = Open();
    ASSERT_NE(p, nullptr);
    KVC &m = *p->kvcMachine, &u = *p->kvcUser;
    EXPECT_STREQ(p->szKeyVaultMachine, L"Corp.Machine-Vault");
    EXPECT_EQ(Text(m.kvName), L"corpmachine-vault");
    EXPECT_EQ(Text(m.tenantId) + L"," + Text(m.clientId) + L"," + Text(m.clientCertId), L"tenant-m,client-m,cert-m");
    EXPECT_EQ(std::vector<DWORD>({m.authn, m.fPurge, m.fCertMode, m.dwExportable}), std::vector<DWORD>({2, 0, 0, 3}));
    // Nothing of the machine scope leaks into the user client.
    EXPECT_EQ(Text(u.kvName) + L"," + Text(u.tenantId) + L"," + Text(u.clientId), L"user-vault,,");
    EXPECT_EQ(u.authn, 1u);
    EXPECT_EQ(u.dwExportable, 0u);
}

// Runs itself again in a new process, marked by KESTAL_SECOND_PROCESS, as the second of two opens.
TEST_F(Provider, PlainSecretsAreProtectedBlankedNeverLoggedAndReadInTheNextProcess)
{
    const bool second = !EnvVar(L"KESTAL_SECOND_PROCESS").empty();
    if (!second) {
        SetSettingDword(HKEY_LOCAL_MACHINE, L"AuthenticationType", 2);
        SetSetting(HKEY_LOCAL_MACHINE, L"ClientId", L"client-1");
        SetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret", kMachineSecret);
        SetSetting(HKEY_CURRENT_USER, L"ClientSecret", kUserSecret);
    }
    KSP_PROVIDER *p = Open();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Text(p->kvcMachine->clientSecret), kMachineSecret);
    EXPECT_EQ(Text(p->kvcUser->clientSecret), kUserSecret);
    std::wstring machineDpapi = GetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret");
    std::wstring userDpapi = GetSetting(HKEY_CURRENT_USER, L"ClientDPAPISecret");
    EXPECT_GT(machineDpapi.size(), 1000u); // the whole 1024-byte buffer is protected
    EXPECT_GT(userDpapi.size(), 1000u);
    EXPECT_EQ(machineDpapi.find_first_of(L"\r\n"), std::wstring::npos);
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret") + GetSetting(HKEY_CURRENT_USER, L"ClientSecret"), L"");
    if (second)
        return SetSetting(HKEY_LOCAL_MACHINE, L"SecondProcessRan", L"yes");

    ASSERT_EQ(KestalKeyVaultKSPFreeProvider(reinterpret_cast<NCRYPT_PROV_HANDLE>(p)), 0);
    open_.clear();
    for (const char *line : {"KestalKeyVaultKSPOpenProvider Saving Machine DPAPI Secret 8",
                             "KestalKeyVaultKSPOpenProvider Reading Machine DPAPI Secret 8",
                             "KestalKeyVaultKSPOpenProvider Saving User DPAPI Secret 8",
                             "KestalKeyVaultKSPOpenProvider Reading User DPAPI Secret 8",
                             "KVCNew ClientID and Client Cert client-1  8", "KVCDelete 8"})
        EXPECT_TRUE(Logged(line)) << line;
    std::string log = Log();
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
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret", L"AAECAwQFBgcICQoLDA0ODw==");
    KSP_PROVIDER *p = Open();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Text(p->kvcMachine->clientSecret), L"");
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret"), L"AAECAwQFBgcICQoLDA0ODw==");
    EXPECT_NE(Log().find("GetSecretFromDPAPI Failed to decrypt secret - CryptUnprotectData Error 0x"), std::string::npos);
    EXPECT_TRUE(Logged("KestalKeyVaultKSPOpenProvider Failed to Decrypt DPAPI Secret 8"));
}

TEST_F(Provider, ProviderNameUpTo32766CharactersIsAccepted)
{
    KSP_PROVIDER *p = Open(std::wstring(32766, L'n').c_str());
    ASSERT_NE(p, nullptr);
    DWORD cb = 0;
    EXPECT_EQ(KestalKeyVaultKSPGetProviderProperty(reinterpret_cast<NCRYPT_PROV_HANDLE>(p), L"Name", nullptr, 0, &cb, 0), 0);
    EXPECT_EQ(cb, 65534u);

    NCRYPT_PROV_HANDLE h = 0;
    EXPECT_EQ(KestalKeyVaultKSPOpenProvider(&h, std::wstring(32767, L'n').c_str(), 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(KestalKeyVaultKSPOpenProvider(&h, nullptr, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(KestalKeyVaultKSPOpenProvider(nullptr, KSP_PROVIDER_NAME, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(h, 0u);
    for (const char *line :
         {"KestalKeyVaultKSPOpenProvider cbProviderName too long 1", "KestalKeyVaultKSPOpenProvider pszProviderName NULL 2",
          "KestalKeyVaultKSPOpenProvider phProvider NULL 2", "KestalKeyVaultKSPOpenProvider Error 0x80090027 1"})
        EXPECT_TRUE(Logged(line)) << line;
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
