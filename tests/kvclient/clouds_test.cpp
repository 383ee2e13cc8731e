#include "tests/harness/harness.h"

using namespace kestal_test;

namespace {

constexpr DWORD kMachine = NCRYPT_MACHINE_KEY_FLAG;

class Clouds : public VaultProviderTest {
protected:
    // The machine scope on vault kestaltest with these settings (null: unset), signing in as a client
    // of its own: clients of one process share one identity's token.
    void Configure(DWORD authn, const wchar_t *keyVault, const wchar_t *azureCloud, const wchar_t *vaultType,
                   DWORD certificatesOrKeys = 1)
    {
        static int rows = 0;
        const std::wstring clientId = L"clouds-app-" + std::to_wstring(++rows);
        emulator.Reset();
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest", certificatesOrKeys);
        SetSetting(HKEY_LOCAL_MACHINE, L"ClientId", clientId);
        emulator.Call(L"POST", L"/apps",
                      R"({"tenant":")" + std::string(kTenant) + R"(","clientId":")" + Narrow(clientId) +
                          R"(","secret":")" + Narrow(GetSetting(HKEY_LOCAL_MACHINE, L"ClientSecret")) + "\"}");
        emulator.Call(L"PUT", L"/identity", R"({"oid":"0b5f2d43-9c1e-4d7a-8f36-2a4e6b8c0d15"})");
        SetSettingDword(HKEY_LOCAL_MACHINE, L"AuthenticationType", authn);
        SetSetting(HKEY_LOCAL_MACHINE, L"KeyVault", keyVault);
        for (auto [name, value] : {std::pair{L"AzureCloud", azureCloud}, std::pair{L"VaultType", vaultType}})
            if (value || !GetSetting(HKEY_LOCAL_MACHINE, name).empty())
                SetSetting(HKEY_LOCAL_MACHINE, name, value ? value : L"");
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
        // The token request's resource (form-encoded for sign-in, plain for the metadata service).
        const char *tokenHost = "", *resource = "", *vaultHost = "", *apiVersion = nullptr;
    } rows[] = {
        {.azureCloud = L"AzureChinaCloud", .tokenHost = "login.chinacloudapi.cn",
         .resource = "https%3A%2F%2Fvault.azure.cn", .vaultHost = "kestaltest.vault.azure.cn"},
        // A Managed HSM by URL, whose domain names the cloud and the kind over the settings.
        {.authn = 1, .keyVault = L"https://KestalTest.managedhsm.usgovcloudapi.net:443/",
         .azureCloud = L"AzureChinaCloud", .tokenHost = "169.254.169.254",
         .resource = "https://managedhsm.usgovcloudapi.net", .vaultHost = "kestaltest.managedhsm.usgovcloudapi.net",
         .apiVersion = "7.4"},
        // Settings it cannot honour: the scope has no client, and nothing is sent anywhere.
        {.azureCloud = L"AzureGermanCloud", .want = NTE_INVALID_PARAMETER},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(&row - rows));
        Configure(row.authn, row.keyVault, row.azureCloud, row.vaultType);
        SeedKey(emulator, L"kestaltest", "k1");
        EXPECT_EQ(OpenAndSign(OpenProvider(), L"k1"), row.want);

        std::vector<SeenRequest> tokens = SeenRequests(emulator, row.authn == 1 ? L"imds" : L"login");
        std::vector<SeenRequest> vault = VaultRequests();
        if (row.want != 0) {
            EXPECT_TRUE(tokens.empty());
            EXPECT_TRUE(vault.empty());
            EXPECT_TRUE(SeenRequests(emulator, L"unknown").empty());
            continue;
        }
        ASSERT_EQ(tokens.size(), 1u);
        EXPECT_EQ(tokens[0].host, row.tokenHost);
        EXPECT_NE((tokens[0].url + tokens[0].body).find(std::string("resource=") + row.resource + "&"),
                  std::string::npos);
        ASSERT_EQ(vault.size(), 2u); // the key, then its signature
        for (const SeenRequest &r : vault) {
            EXPECT_EQ(r.host, row.vaultHost) << r.url;
            EXPECT_TRUE(!row.apiVersion || r.url.ends_with(std::string("api-version=") + row.apiVersion)) << r.url;
        }
    }
}

TEST_F(Clouds, ManagedHsmMakesHsmKeysOnlyAndNeverCallsCertificates)
{
    // Certificate mode asked for: a Managed HSM has no certificates, so keys are plain keys; and a
    // refused HSM request is final there: no software key is asked for.
    Configure(2, L"kestaltest", nullptr, L"ManagedHSM", 0);
    NCRYPT_PROV_HANDLE p = OpenProvider();
    NCRYPT_KEY_HANDLE refused = 0;
    ScriptAnswers(emulator, "vault", R"([{"status":403,"body":{"error":{"code":"Forbidden"}}}])", "POST",
                  "/keys/hsm-refused/create");
    ASSERT_EQ(Ksp().CreatePersistedKey(p, &refused, L"RSA", L"hsm-refused", 0, kMachine), 0);
    EXPECT_EQ(Ksp().FinalizeKey(p, refused, 0), NTE_FAIL);
    Ksp().FreeKey(p, refused);

    std::vector<std::string> calls;
    for (const SeenRequest &r : VaultRequests()) {
        EXPECT_EQ(r.host, "kestaltest.managedhsm.azure.net") << r.url;
        calls.push_back(r.method + " " + r.url);
        if (r.method == "POST") {
            EXPECT_NE(r.body.find("-HSM\""), std::string::npos) << r.body;
        }
    }
    const std::string v = "?api-version=7.4";
    EXPECT_EQ(calls, (std::vector<std::string>{"GET /keys/hsm-refused" + v, "POST /keys/hsm-refused/create" + v}));
}
