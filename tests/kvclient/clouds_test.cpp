#include "tests/harness/harness.h"

#include <regex>

using namespace kestal_test;

namespace {

constexpr DWORD kMachine = NCRYPT_MACHINE_KEY_FLAG;

// A form value as the sign-in body carries it.
std::string FormEncoded(std::string text)
{
    for (size_t i = 0; (i = text.find_first_of(":/", i)) != std::string::npos; i += 3)
        text.replace(i, 1, text[i] == ':' ? "%3A" : "%2F");
    return text;
}

class Clouds : public VaultProviderTest {
protected:
    // The machine scope on vault kestaltest, with the given extra settings (null: left unset, or
    // emptied when an earlier row set it).
    void Configure(DWORD authn, const wchar_t *keyVault, const wchar_t *azureCloud, const wchar_t *vaultType,
                   DWORD certificatesOrKeys = 1)
    {
        emulator.Reset();
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest", certificatesOrKeys);
        NewIdentity();
        emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})");
        SetSettingDword(HKEY_LOCAL_MACHINE, L"AuthenticationType", authn);
        SetSetting(HKEY_LOCAL_MACHINE, L"KeyVault", keyVault);
        for (auto [name, value] : {std::pair{L"AzureCloud", azureCloud}, std::pair{L"VaultType", vaultType}})
            if (value || !GetSetting(HKEY_LOCAL_MACHINE, name).empty())
                SetSetting(HKEY_LOCAL_MACHINE, name, value ? value : L"");
    }
    // A client id of its own for each row: clients of one process share one identity's token.
    void NewIdentity()
    {
        static int rows = 0;
        const std::wstring clientId = L"clouds-app-" + std::to_wstring(++rows);
        SetSetting(HKEY_LOCAL_MACHINE, L"ClientId", clientId);
        emulator.Call(L"POST", L"/apps",
                      R"({"tenant":")" + std::string(kTenant) + R"(","clientId":")" + Narrow(clientId) +
                          R"(","secret":")" + Narrow(GetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret")) + "\"}");
    }
    // Opens the key and signs a hash with it: the status of the first step that failed.
    SECURITY_STATUS OpenAndSign(NCRYPT_PROV_HANDLE p, const wchar_t *name)
    {
        NCRYPT_KEY_HANDLE h = 0;
        BCRYPT_PKCS1_PADDING_INFO padding = {L"SHA256"};
        BYTE hash[32] = {1}, signature[512];
        DWORD cb = 0;
        SECURITY_STATUS status = Ksp().OpenKey(p, &h, name, 0, kMachine);
        if (status != 0)
            return status;
        status = Ksp().SignHash(p, h, &padding, hash, 32, signature, 512, &cb, BCRYPT_PAD_PKCS1);
        Ksp().FreeKey(p, h);
        return status;
    }
};

} // namespace

TEST_F(Clouds, EachCloudSignsInWithItsAudienceAndCallsItsOwnVaultHost)
{
    const struct {
        DWORD authn = 2;
        const wchar_t *keyVault = L"kestaltest", *azureCloud = nullptr, *vaultType = nullptr;
        SECURITY_STATUS want = 0;
        const char *tokenHost = "", *resource = "", *vaultHost = "", *apiVersion = nullptr; // of every vault call
    } rows[] = {
        {.tokenHost = "login.microsoftonline.com", .resource = "https://vault.azure.net",
         .vaultHost = "kestaltest.vault.azure.net"},
        {.azureCloud = L"AzureChinaCloud", .tokenHost = "login.chinacloudapi.cn", .resource = "https://vault.azure.cn",
         .vaultHost = "kestaltest.vault.azure.cn"},
        {.authn = 1, .azureCloud = L"azurechinacloud", .tokenHost = "169.254.169.254",
         .resource = "https://vault.azure.cn", .vaultHost = "kestaltest.vault.azure.cn"},
        {.azureCloud = L"AzureUSGovernment", .tokenHost = "login.microsoftonline.us",
         .resource = "https://vault.usgovcloudapi.net", .vaultHost = "kestaltest.vault.usgovcloudapi.net"},
        // Managed HSM by setting, and by URL (whose domain names the cloud and kind); a URL on another
        // domain leaves them to the settings.
        {.azureCloud = L"AzureChinaCloud", .vaultType = L"ManagedHSM", .tokenHost = "login.chinacloudapi.cn",
         .resource = "https://managedhsm.azure.cn", .vaultHost = "kestaltest.managedhsm.azure.cn", .apiVersion = "7.4"},
        {.authn = 1, .keyVault = L"https://KestalTest.managedhsm.usgovcloudapi.net:443/", .azureCloud = L"AzureChinaCloud",
         .tokenHost = "169.254.169.254", .resource = "https://managedhsm.usgovcloudapi.net",
         .vaultHost = "kestaltest.managedhsm.usgovcloudapi.net", .apiVersion = "7.4"},
        {.keyVault = L"https://kestaltest.vault.azure.cn", .vaultType = L"ManagedHSM",
         .tokenHost = "login.chinacloudapi.cn", .resource = "https://vault.azure.cn",
         .vaultHost = "kestaltest.vault.azure.cn"},
        // Settings it cannot honour: the scope has no client, and nothing is sent anywhere.
        {.azureCloud = L"AzureGermanCloud", .want = NTE_INVALID_PARAMETER},
        {.vaultType = L"PremiumVault", .want = NTE_INVALID_PARAMETER},
        {.keyVault = L"https://kestaltest.vault.azure.net:8443/", .want = NTE_INVALID_PARAMETER},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(&row - rows));
        Configure(row.authn, row.keyVault, row.azureCloud, row.vaultType);
        SeedKey(emulator, L"kestaltest", "k1");
        EXPECT_EQ(OpenAndSign(OpenProvider(), L"k1"), row.want);

        std::vector<SeenRequest> tokens = SeenRequests(emulator, row.authn == 1 ? L"imds" : L"login");
        std::vector<SeenRequest> vault = VaultRequests();
        if (row.want != 0) {
            EXPECT_EQ(tokens.size() + vault.size() + SeenRequests(emulator, L"unknown").size(), 0u);
            continue;
        }
        ASSERT_EQ(tokens.size(), 1u);
        EXPECT_EQ(tokens[0].host, row.tokenHost);
        if (row.authn == 1) {
            EXPECT_EQ(tokens[0].url, std::string("/metadata/identity/oauth2/token?resource=") + row.resource +
                                         "&api-version=2018-02-01");
        } else {
            EXPECT_EQ(tokens[0].body.substr(0, tokens[0].body.find('&')), "resource=" + FormEncoded(row.resource));
        }
        ASSERT_EQ(vault.size(), 2u); // the key, then its signature
        for (const SeenRequest &r : vault) {
            EXPECT_EQ(r.host, row.vaultHost) << r.url;
            if (row.apiVersion) {
                EXPECT_EQ(r.url.substr(r.url.find("api-version=")), std::string("api-version=") + row.apiVersion);
            }
        }
    }
}

TEST_F(Clouds, ManagedHsmMakesHsmKeysOnlyAndNeverCallsCertificates)
{
    // Certificate mode asked for: a Managed HSM has no certificates, so keys are plain keys.
    Configure(2, L"kestaltest", nullptr, L"ManagedHSM", 0);
    SeedKey(emulator, L"kestaltest", "hsm-sign", R"("kty":"RSA-HSM","key_size":2048)");
    NCRYPT_PROV_HANDLE p = OpenProvider();
    OpenProvider(); // the fallback is said once per process
    EXPECT_EQ(OpenAndSign(p, L"hsm-sign"), 0);

    NCRYPT_KEY_HANDLE h = 0, refused = 0;
    ASSERT_EQ(Ksp().CreatePersistedKey(p, &h, L"ECDSA_P256", L"hsm-new", 0, kMachine), 0);
    ASSERT_EQ(Ksp().FinalizeKey(p, h, 0), 0);
    EXPECT_EQ(Ksp().DeleteKey(p, h, 0), 0);

    // A refused HSM request is final there: no software key is asked for.
    ScriptAnswers(emulator, "vault", R"([{"status":403,"body":{"error":{"code":"Forbidden"}}}])", "POST",
                  "/keys/hsm-refused/create");
    ASSERT_EQ(Ksp().CreatePersistedKey(p, &refused, L"RSA", L"hsm-refused", 0, kMachine), 0);
    EXPECT_EQ(Ksp().FinalizeKey(p, refused, 0), NTE_FAIL);
    Ksp().FreeKey(p, refused);

    std::vector<std::string> calls;
    for (const SeenRequest &r : VaultRequests()) {
        EXPECT_EQ(r.host, "kestaltest.managedhsm.azure.net") << r.url;
        calls.push_back(r.method + " " + std::regex_replace(r.url, std::regex("/[0-9a-f]{32}/"), "/{version}/"));
        if (r.method == "POST" && r.url.find("/create") != std::string::npos) {
            EXPECT_NE(r.body.find("-HSM\""), std::string::npos) << r.body;
        }
    }
    const std::string v = "?api-version=7.4";
    EXPECT_EQ(calls, (std::vector<std::string>{"GET /keys/hsm-sign" + v, "POST /keys/hsm-sign/{version}/sign" + v,
                                               "GET /keys/hsm-new" + v, "POST /keys/hsm-new/create" + v,
                                               "DELETE /keys/hsm-new" + v, "DELETE /deletedkeys/hsm-new" + v,
                                               "GET /keys/hsm-refused" + v, "POST /keys/hsm-refused/create" + v}));
    EXPECT_EQ(SeenRequests(emulator, L"login")[0].body.substr(0, 45),
              "resource=https%3A%2F%2Fmanagedhsm.azure.net&g");
    EXPECT_EQ(Log("KVCSetCloud Managed HSM"),
              (std::vector<std::string>{"KVCSetCloud Managed HSM has no certificates - keys are plain keys 2",
                                        "KVCSetCloud Managed HSM has no certificates - certificate sync skipped 2"}));
}
