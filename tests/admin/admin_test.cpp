// kestalksp.exe as an administrator runs it: its exit codes, the registry and store it leaves, what the DLL then does.
#include "tests/harness/harness.h"

#include <wincrypt.h>

#include <fstream>

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

// Runs kestalksp.exe from the tests' folder with input on its standard input, through files.
Tool RunTool(const std::wstring &args, const std::string &input = "")
{
    const std::wstring in = ExeDir() + L"\\kestalksp-in.txt", out = ExeDir() + L"\\kestalksp-out.txt";
    std::ofstream(in.c_str(), std::ios::binary) << input;
    // cmd takes off the outer quotes and runs the rest.
    std::wstring command =
        L"\"\"" + ExeDir() + L"\\kestalksp.exe\" " + args + L" <\"" + in + L"\" >\"" + out + L"\" 2>&1\"";
    Tool tool = {.exitCode = static_cast<DWORD>(_wsystem(command.c_str()))};
    DeleteFileW(in.c_str()); // it may hold a secret
    std::ifstream output(out.c_str(), std::ios::binary);
    tool.out.assign(std::istreambuf_iterator<char>(output), {});
    return tool;
}

// Runs the tool, expecting its exit code and a piece of what it prints.
void ExpectTool(const std::wstring &args, DWORD exitCode, const char *says)
{
    Tool tool = RunTool(args);
    EXPECT_EQ(tool.exitCode, exitCode) << Narrow(args) << ": " << tool.out;
    EXPECT_NE(tool.out.find(says), std::string::npos) << tool.out;
}

// A REG_SZ or REG_MULTI_SZ value under HKEY_LOCAL_MACHINE, each string ended by '\n'; "" when absent.
std::wstring MachineValue(const std::wstring &key, const wchar_t *name)
{
    wchar_t buffer[2048] = {};
    DWORD cb = sizeof(buffer) - 2 * sizeof(wchar_t);
    std::wstring text;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, RRF_RT_REG_SZ | RRF_RT_REG_MULTI_SZ, nullptr, buffer,
                     &cb) == 0)
        for (const wchar_t *p = buffer; *p; p += wcslen(p) + 1)
            text += p + std::wstring(L"\n");
    return text;
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

// Registering twice lists the provider once, after the others; unregistering takes out only it.
TEST_F(Admin, RegisterAndUnregisterKeepOtherProvidersAndTheirOrder)
{
    const std::wstring others[] = {L"Microsoft Software Key Storage Provider",
                                   L"Microsoft Smart Card Key Storage Provider"};
    const std::wstring otherImage = kProvidersKey + others[1] + L"\\UM";
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, otherImage.c_str(), L"Image", REG_SZ, L"ncryptprov.dll", 30);
    const std::wstring block = others[0] + L'\0' + others[1] + L'\0' + L'\0';
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kOrderKey, L"Providers", REG_MULTI_SZ, block.data(),
                    static_cast<DWORD>(block.size() * sizeof(wchar_t)));

    const std::wstring order = others[0] + L"\n" + others[1] + L"\n";
    const std::wstring ours = kProvidersKey + std::wstring(KSP_PROVIDER_NAME) + L"\\UM";
    for (int run = 1; run <= 2; ++run) {
        EXPECT_EQ(Register().exitCode, 0u) << "run " << run;
        EXPECT_EQ(MachineValue(kOrderKey, L"Providers"), order + KSP_PROVIDER_NAME L"\n") << "run " << run;
        EXPECT_EQ(MachineValue(ours, L"Image"), Dll() + L"\n");
    }
    for (int run = 1; run <= 2; ++run) {
        EXPECT_EQ(RunTool(L"unregister").exitCode, 0u) << "run " << run;
        EXPECT_EQ(MachineValue(kOrderKey, L"Providers"), order) << "run " << run;
        EXPECT_EQ(MachineValue(ours, L"Image"), L"");
        EXPECT_EQ(MachineValue(otherImage, L"Image"), L"ncryptprov.dll\n");
    }
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, (kProvidersKey + others[1]).c_str());
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kOrderKey, L"Providers");
}

// A refused command line exits 2, says why and writes nothing: a plain secret least of all.
TEST_F(Admin, RefusedCommandLinesChangeNothing)
{
    const struct { const wchar_t *args; const char *says; } refusals[] = {
        {.args = L"config set ClientSecret s3cret", .says = "Run: kestalksp set-secret"},
        {.args = L"config set KeyVault other LoggingLevel ten", .says = "\"ten\" is not"}, // all or nothing
    };
    const std::string before = RunTool(L"config show").out;
    for (const auto &refusal : refusals) {
        ExpectTool(refusal.args, 2, refusal.says);
        EXPECT_EQ(RunTool(L"config show").out, before) << Narrow(refusal.args);
    }
    EXPECT_EQ(RunTool(L"config set keyvault kestaltest").exitCode, 0u);
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"KeyVault"), L"kestaltest");
}

// The secret goes from the tool's standard input, DPAPI-protected, to the sign-in body, and nowhere else.
// Scripts branch on the exit code of a failed probe, and its message names the cause.
TEST_F(Admin, SetSecretFeedsTheSignInAndProbesAndSyncReportWhatTheyFound)
{
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
    SetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret", L""); // the tool brings the secret
    Tool stored = RunTool(L"set-secret", std::string(kSecret) + "\r\n");
    EXPECT_EQ(stored.exitCode, 0u) << stored.out;
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret"), L"");
    EXPECT_EQ(GetSetting(HKEY_LOCAL_MACHINE, L"ClientDPAPISecret").find(Widen(kSecret)), std::wstring::npos);
    ASSERT_EQ(Register().exitCode, 0u);
    Tool keys = RunTool(L"keys"); // the DLL opens the provider and signs in
    EXPECT_EQ(keys.exitCode, 0u) << keys.out;
    std::vector<SeenRequest> logins = SeenRequests(emulator, L"login");
    ASSERT_EQ(logins.size(), 1u);
    EXPECT_NE(logins[0].body.find(std::string("client_secret=") + kSecret), std::string::npos);
    for (const std::string &text : {stored.out, keys.out, RunTool(L"config show").out})
        EXPECT_EQ(text.find(kSecret), std::string::npos) << text;

    ExpectTool(L"test probe-key", 5, "Key \"probe-key\" was not found in the vault");
    ScriptAnswers(emulator, "vault", R"([{"status":403,"repeat":2,"body":{"error":{"code":"Forbidden"}}}])", "GET",
                  "/keys");
    ExpectTool(L"status --probe", 4, "Key permissions: get, list, sign, verify, encrypt, decrypt, create, delete");

    SetSettingDword(HKEY_LOCAL_MACHINE, L"CertificatesOrKeys", 0);
    ASSERT_EQ(emulator.Call(L"POST", L"/vaults/kestaltest/certificates", R"({"name":"admin-synced"})").status, 200u);
    EXPECT_EQ(RunTool(L"sync").exitCode, 0u);
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"My");
    PCCERT_CONTEXT cert =
        CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_STR_W, L"admin-synced", nullptr);
    ASSERT_NE(cert, nullptr);
    CertDeleteCertificateFromStore(cert);
    CertCloseStore(store, 0);
}

} // namespace
