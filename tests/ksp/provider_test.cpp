#include "tests/harness/harness.h"

#include <gtest/gtest.h>

#include <wincrypt.h>

#include <string>

#include "support/log.h"

using namespace kestal_test;

namespace {

constexpr wchar_t kMachineSecret[] = L"machine-Secret-4711-never-logged";
constexpr wchar_t kUserSecret[] = L"user-Secret-0815-never-logged";

std::wstring NewLogDir()
{
    static int count = 0;
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::wstring dir = std::wstring(temp) + L"kestal-provider-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                       std::to_wstring(++count);
    CreateDirectoryW(dir.c_str(), nullptr);
    return dir;
}

// Both hives empty, every line of the core's log going to a fresh folder.
class Provider : public ::testing::Test {
protected:
    void SetUp() override
    {
        ClearSettings(HKEY_LOCAL_MACHINE);
        ClearSettings(HKEY_CURRENT_USER);
        logDir_ = NewLogDir();
        SetSetting(HKEY_LOCAL_MACHINE, L"LogfilePath", logDir_);
        savedLevel_ = g_LogLevel;
        g_LogLevel = 10;
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

    std::wstring logDir_;
    int savedLevel_ = 0;
    std::vector<NCRYPT_PROV_HANDLE> open_;
};

// A whole logged line ends with the message and its level ("... Names 8"), whatever the line break.
bool HasLine(const std::string &log, const std::string &messageAndLevel)
{
    for (size_t at = log.find(messageAndLevel); at != std::string::npos; at = log.find(messageAndLevel, at + 1)) {
        size_t end = at + messageAndLevel.size();
        if (end < log.size() && (log[end] == '\r' || log[end] == '\n'))
            return true;
    }
    return false;
}

std::wstring Text(const BldStr *s)
{
    return s && s->cStr ? std::wstring(s->cStr) : std::wstring(L"<absent>");
}

// A DPAPI blob in base64 that this module cannot open (protected under other entropy, as
// another installation or machine would leave it).
std::wstring ForeignDpapiText()
{
    BYTE secret[16] = "foreign secret";
    BYTE otherEntropy[20] = {1, 2, 3};
    DATA_BLOB in{sizeof(secret), secret}, entropy{sizeof(otherEntropy), otherEntropy}, out{};
    EXPECT_TRUE(CryptProtectData(&in, nullptr, &entropy, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &out));
    wchar_t text[2048];
    DWORD cch = ARRAYSIZE(text);
    EXPECT_TRUE(CryptBinaryToStringW(out.pbData, out.cbData, CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF, text, &cch));
    LocalFree(out.pbData);
    return text;
}

} // namespace

TEST_F(Provider, OpensWithNoSettingsAndUsesOneVaultPerIdentityInBothScopes)
{
    KSP_PROVIDER *p = Open();
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->pszProviderName, KSP_PROVIDER_NAME);
    EXPECT_EQ(p->cbLength, sizeof(KSP_PROVIDER) + sizeof(KSP_PROVIDER_NAME));
    EXPECT_STREQ(p->szKeyVaultMachine, L"%G");
    EXPECT_STREQ(p->szKeyVaultUser, L"%G");
    ASSERT_NE(p->kvcMachine, nullptr);
    ASSERT_NE(p->kvcUser, nullptr);
    for (KVC *kvc : {p->kvcMachine, p->kvcUser}) {
        EXPECT_EQ(Text(kvc->kvName), L"oidguid");
        EXPECT_EQ(Text(kvc->clientId), L"");
        EXPECT_EQ(Text(kvc->clientSecret), L"");
        EXPECT_EQ(kvc->authn, 1u);
        EXPECT_EQ(kvc->fPurge, 1u);
        EXPECT_EQ(kvc->fCertMode, 1u);
    }
    EXPECT_EQ(p->kvcMachine->fMachine, 1u);
    EXPECT_EQ(p->kvcUser->fMachine, 0u);
    std::string log = Log();
    EXPECT_TRUE(HasLine(log, "KestalKeyVaultKSPOpenProvider Read Key Vault Names 8")) << log;
    EXPECT_EQ(log.find("DPAPI"), std::string::npos) << log;
}

TEST_F(Provider, SettingsOfTheWrongTypeOrTooLongFallBackToDefaults)
{
    SetSettingDword(HKEY_LOCAL_MACHINE, L"KeyVault", 7);
    SetSetting(HKEY_LOCAL_MACHINE, L"AuthenticationType", L"2");
    SetSettingDword(HKEY_LOCAL_MACHINE, L"TenantId", 1);
    SetSetting(HKEY_LOCAL_MACHINE, L"DoDeletePurge", L"1");
    SetSetting(HKEY_LOCAL_MACHINE, L"CertificatesOrKeys", L"1");
    SetSetting(HKEY_CURRENT_USER, L"KeyVault", std::wstring(512, L'v')); // 1026 bytes with terminator
    SetSetting(HKEY_CURRENT_USER, L"ClientId", std::wstring(511, L'c'));  // exactly 1024 bytes: fits
    KSP_PROVIDER *p = Open();
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->szKeyVaultMachine, L"%G");
    EXPECT_STREQ(p->szKeyVaultUser, L"%G");
    EXPECT_EQ(p->kvcMachine->authn, 1u);
    EXPECT_EQ(Text(p->kvcMachine->tenantId), L"");
    EXPECT_EQ(p->kvcMachine->fPurge, 1u);
    EXPECT_EQ(p->kvcMachine->fCertMode, 1u);
    EXPECT_EQ(Text(p->kvcUser->clientId), std::wstring(511, L'c'));
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
    EXPECT_STREQ(p->szKeyVaultMachine, L"Corp.Machine-Vault");
    EXPECT_EQ(Text(p->kvcMachine->kvName), L"corpmachine-vault");
    EXPECT_EQ(p->kvcMachine->authn, 2u);
    EXPECT_EQ(Text(p->kvcMachine->tenantId), L"tenant-m");
    EXPECT_EQ(Text(p->kvcMachine->clientId), L"client-m");
    EXPECT_EQ(Text(p->kvcMachine->clientCertId), L"cert-m");
    EXPECT_EQ(p->kvcMachine->fPurge, 0u);
    EXPECT_EQ(p->kvcMachine->fCertMode, 0u);
    EXPECT_EQ(p->kvcMachine->dwExportable, 3u);
    // Nothing of the machine scope leaks into the user client.
    EXPECT_EQ(Text(p->kvcUser->kvName), L"user-vault");
    EXPECT_EQ(Text(p->kvcUser->tenantId), L"");
    EXPECT_EQ(Text(p->kvcUser->clientId), L"");
    EXPECT_EQ(p->kvcUser->authn, 1u);
    EXPECT_EQ(p->kvcUser->dwExportable, 0u);
}

TEST_F(Provider, PlainSecretsAreProtectedBlankedAndNeverLogged)
{
    SetSettingDword(HKEY_LOCAL_MACHINE, L"AuthenticationType", 2);
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientId", L"client-1");
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret", kMachineSecret);
    SetSetting(HKEY_CURRENT_USER, L"ClientSecret", kUserSecret);
    KSP_PROVIDER *p = Open();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Text(p->kvcMachine->clientSecret), kMachineSecret);
    EXPECT_EQ(Text(p->kvcUser->clientSecret), kUserSecret);

    std::wstring machineDpapi = GetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret");
    std::wstring userDpapi = GetSetting(HKEY_CURRENT_USER, L"ClientDPAPISecret");
    EXPECT_GT(machineDpapi.size(), 1000u); // the whole 1024-byte buffer is protected
    EXPECT_GT(userDpapi.size(), 1000u);
    EXPECT_EQ(machineDpapi.find_first_of(L"\r\n"), std::wstring::npos);
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret"), L"");
    EXPECT_EQ(GetSetting(HKEY_CURRENT_USER, L"ClientSecret"), L"");

    ASSERT_EQ(KestalKeyVaultKSPFreeProvider(reinterpret_cast<NCRYPT_PROV_HANDLE>(p)), 0);
    open_.clear();
    std::string log = Log();
    for (const char *line : {"KestalKeyVaultKSPOpenProvider Saving Machine DPAPI Secret 8",
                             "KestalKeyVaultKSPOpenProvider Reading Machine DPAPI Secret 8",
                             "KestalKeyVaultKSPOpenProvider Saving User DPAPI Secret 8",
                             "KestalKeyVaultKSPOpenProvider Reading User DPAPI Secret 8",
                             "KVCNew ClientID and Client Cert client-1  8", "KVCDelete 8"})
        EXPECT_TRUE(HasLine(log, line)) << line;
    for (const std::wstring &secret : {std::wstring(kMachineSecret), std::wstring(kUserSecret), machineDpapi, userDpapi})
        EXPECT_EQ(log.find(Narrow(secret)), std::string::npos) << Narrow(secret);
}

// The second process: opens the provider on what the first process left.
void ReadSecretsProtectedByAnotherProcess()
{
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret"), L"");
    EXPECT_NE(GetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret"), L"");
    NCRYPT_PROV_HANDLE h = 0;
    ASSERT_EQ(KestalKeyVaultKSPOpenProvider(&h, KSP_PROVIDER_NAME, 0), 0);
    KSP_PROVIDER *p = KspProviderFromHandle(h);
    EXPECT_EQ(Text(p->kvcMachine->clientSecret), kMachineSecret);
    EXPECT_EQ(Text(p->kvcUser->clientSecret), kUserSecret);
    KestalKeyVaultKSPFreeProvider(h);
    SetSetting(HKEY_LOCAL_MACHINE, L"SecondProcessRan", L"yes");
}

// Runs itself again, in a new process, as the second of the two opens.
TEST(ProviderAcrossProcesses, SecretProtectedByOneProcessIsReadByTheNext)
{
    if (!EnvVar(L"KESTAL_SECOND_PROCESS").empty()) {
        ReadSecretsProtectedByAnotherProcess();
        return;
    }
    ClearSettings(HKEY_LOCAL_MACHINE);
    ClearSettings(HKEY_CURRENT_USER);
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret", kMachineSecret);
    SetSetting(HKEY_CURRENT_USER, L"ClientSecret", kUserSecret);
    NCRYPT_PROV_HANDLE first = 0;
    ASSERT_EQ(KestalKeyVaultKSPOpenProvider(&first, KSP_PROVIDER_NAME, 0), 0); // converts both secrets
    KestalKeyVaultKSPFreeProvider(first);

    wchar_t exe[MAX_PATH];
    GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring command = L"\"" + std::wstring(exe) +
                           L"\" --gtest_filter=ProviderAcrossProcesses.SecretProtectedByOneProcessIsReadByTheNext";
    SetEnvironmentVariableW(L"KESTAL_SECOND_PROCESS", L"1");
    STARTUPINFOW si{sizeof(si)};
    PROCESS_INFORMATION pi{};
    BOOL started = CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi);
    SetEnvironmentVariableW(L"KESTAL_SECOND_PROCESS", nullptr);
    ASSERT_TRUE(started) << GetLastError();
    WaitForSingleObject(pi.hProcess, 120000);
    DWORD exitCode = 1;
    GetExitCodeProcess(pi.hProcess, &exitCode);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    EXPECT_EQ(exitCode, 0u) << "the second process could not read the protected secrets";
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"SecondProcessRan"), L"yes"); // not an empty filter
}

TEST_F(Provider, UnreadableDpapiSecretIsLoggedAndTheProviderStillOpens)
{
    for (const std::wstring &text : {ForeignDpapiText(), std::wstring(L"AAECAwQFBgcICQoLDA0ODw==")}) {
        SetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret", text);
        KSP_PROVIDER *p = Open();
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(Text(p->kvcMachine->clientSecret), L"");
        EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret"), text);
    }
    std::string log = Log();
    EXPECT_NE(log.find("GetSecretFromDPAPI Failed to decrypt secret - CryptUnprotectData Error 0x"), std::string::npos);
    EXPECT_TRUE(HasLine(log, "KestalKeyVaultKSPOpenProvider Failed to Decrypt DPAPI Secret 8"));
}

TEST_F(Provider, ProviderNameUpTo32766CharactersIsAccepted)
{
    std::wstring longest(32766, L'n');
    KSP_PROVIDER *p = Open(longest.c_str());
    ASSERT_NE(p, nullptr);
    DWORD cb = 0;
    EXPECT_EQ(KestalKeyVaultKSPGetProviderProperty(reinterpret_cast<NCRYPT_PROV_HANDLE>(p), L"Name", nullptr, 0, &cb, 0), 0);
    EXPECT_EQ(cb, 65534u);

    std::wstring tooLong(32767, L'n');
    NCRYPT_PROV_HANDLE h = 0;
    EXPECT_EQ(KestalKeyVaultKSPOpenProvider(&h, tooLong.c_str(), 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(KestalKeyVaultKSPOpenProvider(&h, nullptr, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(KestalKeyVaultKSPOpenProvider(nullptr, KSP_PROVIDER_NAME, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(h, 0u);
    std::string log = Log();
    EXPECT_TRUE(HasLine(log, "KestalKeyVaultKSPOpenProvider cbProviderName too long 1"));
    EXPECT_TRUE(HasLine(log, "KestalKeyVaultKSPOpenProvider pszProviderName NULL 2"));
    EXPECT_TRUE(HasLine(log, "KestalKeyVaultKSPOpenProvider phProvider NULL 2"));
    EXPECT_TRUE(HasLine(log, "KestalKeyVaultKSPOpenProvider Error 0x80090027 1"));
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

TEST_F(Provider, GetKeyStorageInterfaceLogsItsNameAndTheProviderName)
{
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table = nullptr;
    ASSERT_EQ(GetKeyStorageInterface(KSP_PROVIDER_NAME, &table, 0), 0);
    EXPECT_TRUE(HasLine(Log(), "GetKeyStorageInterface Kestal Key Vault Key Storage Provider 4"));
}
