// kestalksp.exe run as an administrator runs it: its exit codes and messages, the registry it
// leaves, and what the provider then does with it.
#include "tests/harness/harness.h"

#include <gtest/gtest.h>
#include <wincrypt.h>

using namespace kestal_test;

namespace {

constexpr wchar_t kOrderKey[] =
    L"SYSTEM\\CurrentControlSet\\Control\\Cryptography\\Configuration\\Local\\Default\\00010001\\KEY_STORAGE";
constexpr wchar_t kProvidersKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Cryptography\\Providers\\";
constexpr char kSecret[] = "harness-machine-secret"; // the machine app's secret (UseVault)

struct Tool {
    DWORD exitCode = 0;
    std::string out; // standard output and error together
};

// Runs kestalksp.exe from the tests' folder with input on its standard input.
Tool RunTool(const std::wstring &args, const std::string &input = "")
{
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    HANDLE inRead, inWrite, outRead, outWrite; // the tool's ends are inherited, ours are not
    CreatePipe(&inRead, &inWrite, &inherit, 0);
    CreatePipe(&outRead, &outWrite, &inherit, 0);
    SetHandleInformation(inWrite, HANDLE_FLAG_INHERIT, 0);
    SetHandleInformation(outRead, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW si = {.cb = sizeof(si), .dwFlags = STARTF_USESTDHANDLES, .hStdInput = inRead,
                       .hStdOutput = outWrite, .hStdError = outWrite};
    std::wstring command = L"\"" + ExeDir() + L"\\kestalksp.exe\" " + args;
    PROCESS_INFORMATION pi = {};
    Tool tool;
    BOOL started = CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi);
    CloseHandle(inRead);
    CloseHandle(outWrite);
    DWORD n = 0;
    WriteFile(inWrite, input.data(), static_cast<DWORD>(input.size()), &n, nullptr);
    CloseHandle(inWrite);
    char buffer[4096];
    while (ReadFile(outRead, buffer, sizeof(buffer), &n, nullptr) && n)
        for (DWORD i = 0; i < n; ++i)
            if (buffer[i] != '\r') // a console program's line ends are CR LF
                tool.out += buffer[i];
    CloseHandle(outRead);
    EXPECT_TRUE(started) << Narrow(command);
    if (started) {
        EXPECT_EQ(WaitForSingleObject(pi.hProcess, 120000), WAIT_OBJECT_0);
        GetExitCodeProcess(pi.hProcess, &tool.exitCode);
        CloseHandle(pi.hProcess);
        CloseHandle(pi.hThread);
    }
    return tool;
}

std::vector<std::wstring> ProviderOrder()
{
    wchar_t buffer[2048] = {};
    DWORD cb = sizeof(buffer) - 2 * sizeof(wchar_t);
    std::vector<std::wstring> names;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, kOrderKey, L"Providers", RRF_RT_REG_MULTI_SZ, nullptr, buffer, &cb) == 0)
        for (const wchar_t *p = buffer; *p; p += wcslen(p) + 1)
            names.emplace_back(p);
    return names;
}

std::wstring ProviderImage(const std::wstring &name)
{
    wchar_t image[MAX_PATH] = {};
    DWORD cb = sizeof(image);
    RegGetValueW(HKEY_LOCAL_MACHINE, (kProvidersKey + name + L"\\UM").c_str(), L"Image", RRF_RT_REG_SZ, nullptr, image,
                 &cb);
    return image;
}

// Every value under the settings key of both hives, as "hive name type data" text.
std::string SettingsDump()
{
    std::string dump;
    for (HKEY hive : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
        HKEY key = nullptr;
        if (RegOpenKeyExW(hive, L"Software\\Kestal\\KestalKeyVaultKSP", 0, KEY_READ, &key) != 0)
            continue;
        wchar_t name[256];
        BYTE data[16384];
        for (DWORD i = 0, cchName = 256, cb = sizeof(data), type = 0;
             RegEnumValueW(key, i, name, &cchName, nullptr, &type, data, &cb) == 0; ++i, cchName = 256, cb = sizeof(data))
            dump += Narrow(name) + " " + std::to_string(type) + " " +
                    (type == REG_SZ ? Narrow(reinterpret_cast<wchar_t *>(data)) : ToBase64({data, data + cb})) + "\n";
        RegCloseKey(key);
    }
    return dump;
}

class Admin : public VaultProviderTest {
protected:
    void TearDown() override
    {
        RunTool(L"unregister");
        VaultProviderTest::TearDown();
    }
    std::wstring Dll() const { return ExeDir() + L"\\KestalKeyVaultKSP.dll"; }
    Tool Register() { return RunTool(L"register --dll \"" + Dll() + L"\""); }
};

TEST_F(Admin, RegisterAndUnregisterKeepOtherProvidersAndTheirOrder)
{
    const std::vector<std::wstring> others = {L"Microsoft Software Key Storage Provider",
                                              L"Microsoft Smart Card Key Storage Provider"};
    std::wstring block;
    for (const std::wstring &name : others) {
        block += name + L'\0';
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, (kProvidersKey + name + L"\\UM").c_str(), L"Image", REG_SZ,
                        L"ncryptprov.dll", 30);
    }
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kOrderKey, L"Providers", REG_MULTI_SZ, (block + L'\0').data(),
                    static_cast<DWORD>((block.size() + 1) * sizeof(wchar_t)));

    std::vector<std::wstring> withOurs = others;
    withOurs.emplace_back(KSP_PROVIDER_NAME);
    for (int run = 1; run <= 2; ++run) {
        Tool registered = Register();
        EXPECT_EQ(registered.exitCode, 0u) << registered.out;
        EXPECT_NE(registered.out.find("registered\n"), std::string::npos) << registered.out;
        EXPECT_EQ(ProviderOrder(), withOurs) << "run " << run;
        EXPECT_EQ(ProviderImage(KSP_PROVIDER_NAME), Dll());
    }
    for (int run = 1; run <= 2; ++run) {
        Tool removed = RunTool(L"unregister");
        EXPECT_EQ(removed.exitCode, 0u) << removed.out;
        EXPECT_NE(removed.out.find("not registered"), std::string::npos) << removed.out;
        EXPECT_EQ(ProviderOrder(), others) << "run " << run;
        EXPECT_EQ(ProviderImage(KSP_PROVIDER_NAME), L"");
        EXPECT_EQ(ProviderImage(others[1]), L"ncryptprov.dll");
    }
    for (const std::wstring &name : others)
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, (kProvidersKey + name).c_str());
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kOrderKey, L"Providers");
}

TEST_F(Admin, EveryCommandHasHelp)
{
    for (const wchar_t *command : {L"register", L"unregister", L"config", L"set-secret", L"status", L"keys", L"test",
                                   L"sync"}) {
        Tool help = RunTool(std::wstring(command) + L" --help");
        EXPECT_EQ(help.exitCode, 0u) << Narrow(command);
        EXPECT_EQ(help.out.rfind("kestalksp " + Narrow(command), 0), 0u) << help.out;
    }
}

TEST_F(Admin, RefusedCommandLinesChangeNothing)
{
    struct Refusal {
        const wchar_t *args;
        const char *says;
    };
    const Refusal refusals[] = {
        {.args = L"regster", .says = "Unknown command \"regster\""},
        {.args = L"config set LoggingLevel ten", .says = "LoggingLevel is a REG_DWORD number from 0 to 10"},
        {.args = L"config set AuthenticationType 4", .says = "from 0 to 3"},
        {.args = L"config set KeyValt kestaltest", .says = "Did you mean \"KeyVault\"?"},
        {.args = L"config set --user LoggingLevel 1", .says = "only under HKEY_LOCAL_MACHINE"},
        {.args = L"config set ClientSecret s3cret", .says = "Run: kestalksp set-secret"},
        {.args = L"keys --probe", .says = "keys does not take --probe"},
        {.args = L"config set KeyVault other LoggingLevel ten", .says = "\"ten\" is not"}, // all or nothing
    };
    const std::string before = SettingsDump();
    for (const Refusal &refusal : refusals) {
        Tool tool = RunTool(refusal.args);
        EXPECT_EQ(tool.exitCode, 2u) << Narrow(refusal.args);
        EXPECT_NE(tool.out.find(refusal.says), std::string::npos) << tool.out;
        EXPECT_EQ(SettingsDump(), before) << Narrow(refusal.args);
    }
    EXPECT_EQ(RunTool(L"config set keyvault kestaltest ClientId app-id").exitCode, 0u);
    EXPECT_EQ(RunTool(L"config get KeyVault").out, "kestaltest\n");
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientId"), L"app-id");
}

TEST_F(Admin, SetSecretStoresWhatTheProviderSignsInWith)
{
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret", L""); // the tool brings the secret
    Tool stored = RunTool(L"set-secret", std::string(kSecret) + "\r\n");
    EXPECT_EQ(stored.exitCode, 0u) << stored.out;
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret"), L"");
    EXPECT_NE(GetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret"), L"");

    ASSERT_EQ(Register().exitCode, 0u);
    Tool keys = RunTool(L"keys"); // the DLL opens the provider and signs in
    EXPECT_EQ(keys.exitCode, 0u) << keys.out;
    std::vector<SeenRequest> logins = SeenRequests(emulator, L"login");
    ASSERT_EQ(logins.size(), 1u);
    EXPECT_NE(logins[0].body.find(std::string("client_secret=") + kSecret), std::string::npos);

    Tool shown = RunTool(L"config show");
    EXPECT_NE(shown.out.find("ClientDPAPISecret    REG_SZ     set ("), std::string::npos) << shown.out;
    std::string log;
    for (const std::string &line : Log())
        log += line + "\n";
    EXPECT_NE(log.find("Reading Machine DPAPI Secret"), std::string::npos);
    for (const std::string &text : {stored.out, keys.out, shown.out, SettingsDump(), log})
        EXPECT_EQ(text.find(kSecret), std::string::npos) << text;
}

TEST_F(Admin, SyncListsTheCertificatesItAdded)
{
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest", 0);
    ASSERT_EQ(emulator.Call(L"POST", L"/vaults/kestaltest/certificates", R"({"name":"admin-synced"})").status, 200u);
    ASSERT_EQ(Register().exitCode, 0u);
    Tool first = RunTool(L"sync");
    EXPECT_EQ(first.exitCode, 0u) << first.out;
    EXPECT_NE(first.out.find("admin-synced  (key \"admin-synced\")"), std::string::npos) << first.out;
    Tool again = RunTool(L"sync");
    EXPECT_NE(again.out.find("nothing added"), std::string::npos) << again.out;

    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"My");
    PCCERT_CONTEXT cert = CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_STR_W,
                                                     L"admin-synced", nullptr);
    ASSERT_NE(cert, nullptr);
    CertDeleteCertificateFromStore(cert);
    CertCloseStore(store, 0);
}

// A working setup and each fault an administrator meets first, through status --probe,
// keys and test: the exit code and the message that names the cause.
struct ProbeCase {
    const char *name;
    const wchar_t *secret = nullptr; // replaces the app's secret
    const wchar_t *tenant = nullptr; // replaces the tenant
    bool seedKey = false;            // "probe-key", ECDSA P-256
    bool refuseListing = false;      // the vault answers 403 to the key listing
    const wchar_t *args;
    DWORD exitCode;
    const char *says;
};

void PrintTo(const ProbeCase &c, std::ostream *os) { *os << c.name; }

class AdminProbe : public Admin, public ::testing::WithParamInterface<ProbeCase> {};

TEST_P(AdminProbe, ExitCodeAndMessageNameTheCause)
{
    const ProbeCase &c = GetParam();
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
    if (c.secret)
        SetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret", c.secret);
    if (c.tenant)
        SetSetting(HKEY_LOCAL_MACHINE, L"TenantId", c.tenant);
    if (c.seedKey)
        SeedKey(emulator, L"kestaltest", "probe-key", R"("kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"})");
    if (c.refuseListing)
        ScriptAnswers(emulator, "vault", R"([{"status":403,"repeat":2,"body":{"error":{"code":"Forbidden"}}}])", "GET",
                      "/keys");
    ASSERT_EQ(Register().exitCode, 0u);
    Tool tool = RunTool(c.args);
    EXPECT_EQ(tool.exitCode, c.exitCode) << tool.out;
    EXPECT_NE(tool.out.find(c.says), std::string::npos) << tool.out;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, AdminProbe,
    ::testing::Values(
        ProbeCase{.name = "WorkingProbe", .seedKey = true, .args = L"status --probe", .exitCode = 0,
                  .says = "Vault https://kestaltest.vault.azure.net lists 1 keys."},
        ProbeCase{.name = "WorkingKeys", .seedKey = true, .args = L"keys", .exitCode = 0,
                  .says = "ECDSA_P256   256"},
        ProbeCase{.name = "WorkingTest", .seedKey = true, .args = L"test probe-key", .exitCode = 0,
                  .says = "Verified locally with BCrypt against the exported public key"},
        ProbeCase{.name = "WrongSecretProbe", .secret = L"not-the-secret", .args = L"status --probe", .exitCode = 3,
                  .says = "Sign-in failed: the client secret is wrong (AADSTS7000215)."},
        ProbeCase{.name = "WrongSecretTest", .secret = L"not-the-secret", .seedKey = true, .args = L"test probe-key",
                  .exitCode = 3, .says = "The provider could not sign in."},
        ProbeCase{.name = "UnknownTenantProbe", .tenant = L"0badc0de-0000-4000-8000-000000000000",
                  .args = L"status --probe", .exitCode = 3, .says = "is unknown to Entra ID (AADSTS90002)."},
        ProbeCase{.name = "NoAccessProbe", .refuseListing = true, .args = L"status --probe", .exitCode = 4,
                  .says = "Key permissions: get, list, sign, verify, encrypt, decrypt, create, delete, purge"},
        ProbeCase{.name = "KeyMissingTest", .args = L"test probe-key", .exitCode = 5,
                  .says = "Key \"probe-key\" was not found in the vault"}),
    [](const ::testing::TestParamInfo<ProbeCase> &info) { return std::string(info.param.name); });

} // namespace
