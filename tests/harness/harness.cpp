#include "tests/harness/harness.h"

#include <wincrypt.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdlib.h>
#include <time.h>
#include <regex>
#include <stdexcept>

#include "support/log.h"

namespace kestal_test {

namespace {

constexpr wchar_t kSettingsKey[] = L"Software\\Kestal\\KestalKeyVaultKSP";

HKEY OpenSettings(HKEY hive)
{
    HKEY key = nullptr;
    if (RegCreateKeyExW(hive, kSettingsKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) != ERROR_SUCCESS)
        throw std::runtime_error("cannot open the settings key");
    return key;
}

std::string ReadText(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

FakeTime *g_fakeTime = nullptr;
void FakeSleep(DWORD ms)
{
    g_fakeTime->waits.push_back(ms);
    g_fakeTime->pendingMs += ms;
    g_fakeTime->now += g_fakeTime->pendingMs / 1000;
    g_fakeTime->pendingMs %= 1000;
}
__time64_t FakeNow() { return g_fakeTime->now; }

// Loads KestalKeyVaultKSP.dll from the test executable's folder and asks for its table, as the
// CNG router does.
NCRYPT_KEY_STORAGE_FUNCTION_TABLE *LoadProviderDll(HMODULE *module)
{
    using GetInterfaceFn = NTSTATUS(WINAPI *)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE **, DWORD);
    *module = LoadLibraryW((ExeDir() + L"\\KestalKeyVaultKSP.dll").c_str());
    if (!*module)
        throw std::runtime_error("LoadLibraryW failed with " + std::to_string(GetLastError()));
    auto getInterface = reinterpret_cast<GetInterfaceFn>(
        reinterpret_cast<void *>(GetProcAddress(*module, "GetKeyStorageInterface")));
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table = nullptr;
    if (!getInterface || getInterface(KSP_PROVIDER_NAME, &table, 0) != 0 || !table ||
        table->Version.MajorVersion != 1 || table->Version.MinorVersion != 0)
        throw std::runtime_error("the DLL gives no version 1.0 function table");
    return table;
}

} // namespace

std::wstring ExeDir()
{
    wchar_t path[MAX_PATH];
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring dir(path, n);
    return dir.substr(0, dir.find_last_of(L"\\/"));
}

void ClearSettings(HKEY hive)
{
    RegDeleteTreeW(hive, kSettingsKey);
    RegCloseKey(OpenSettings(hive));
}

void SetSetting(HKEY hive, const wchar_t *name, const std::wstring &value)
{
    RegSetKeyValueW(hive, kSettingsKey, name, REG_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * 2));
}

void SetSettingDword(HKEY hive, const wchar_t *name, DWORD value)
{
    RegSetKeyValueW(hive, kSettingsKey, name, REG_DWORD, &value, sizeof(value));
}

std::wstring GetSetting(HKEY hive, const wchar_t *name)
{
    wchar_t buffer[4096] = {};
    DWORD size = sizeof(buffer) - sizeof(wchar_t);
    DWORD type = 0;
    if (RegGetValueW(hive, kSettingsKey, name, RRF_RT_ANY, &type, buffer, &size) != ERROR_SUCCESS || type != REG_SZ)
        return L"";
    return buffer;
}

std::string ReadLogs(const std::wstring &dir)
{
    std::vector<std::filesystem::path> files;
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(dir, ignored))
        if (entry.path().filename().wstring().ends_with(L"_KestalKeyVaultKSP.log"))
            files.push_back(entry.path());
    std::sort(files.begin(), files.end()); // named by date
    std::string text;
    for (const auto &file : files)
        text += ReadText(file);
    return text;
}

FakeTime::FakeTime(__time64_t start) : now(start)
{
    g_fakeTime = this;
    KSP_TIME_SEAM seam = {FakeSleep, FakeNow};
    KspSetTimeSeam(&seam);
}

FakeTime::~FakeTime()
{
    KspSetTimeSeam(nullptr);
    g_fakeTime = nullptr;
}

Json SeedKey(const Emulator &emulator, const std::wstring &vault, const std::string &name, const std::string &members)
{
    HttpResult r =
        emulator.Call(L"POST", L"/vaults/" + vault + L"/keys", "{\"name\":\"" + name + "\"," + members + "}");
    if (r.status != 200)
        throw std::runtime_error("the emulator refused the key " + name + ": " + r.body);
    return ParseJson(r.body);
}

void SetPageSizes(const Emulator &emulator, const std::wstring &vault, const std::vector<int> &pageSizes)
{
    std::string plan;
    for (int size : pageSizes)
        plan += (plan.empty() ? "" : ",") + std::to_string(size);
    if (emulator.Call(L"PUT", L"/vaults/" + vault, "{\"pageSizes\":[" + plan + "]}").status != 200)
        throw std::runtime_error("the emulator refused the page plan");
}

Bytes ToBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

Bytes WideText(std::wstring_view text)
{
    Bytes bytes(reinterpret_cast<const BYTE *>(text.data()), reinterpret_cast<const BYTE *>(text.data() + text.size()));
    bytes.insert(bytes.end(), sizeof(wchar_t), 0);
    return bytes;
}

std::string ToStr(const BYTE *pb, size_t cb) { return std::string(reinterpret_cast<const char *>(pb), cb); }

std::string Hex(std::string_view bytes)
{
    std::string out;
    for (unsigned char c : bytes)
        out += {"0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
    return out;
}

std::vector<BYTE> HashOf(const wchar_t *bcryptAlgorithm, std::string_view data)
{
    BCRYPT_ALG_HANDLE alg = nullptr;
    if (BCryptOpenAlgorithmProvider(&alg, bcryptAlgorithm, nullptr, 0) != 0)
        throw std::runtime_error("no BCrypt hash " + Narrow(bcryptAlgorithm));
    DWORD cbHash = 0, cb = 0;
    BCryptGetProperty(alg, BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&cbHash), sizeof(cbHash), &cb, 0);
    std::vector<BYTE> hash(cbHash);
    BCryptHash(alg, nullptr, 0, reinterpret_cast<PUCHAR>(const_cast<char *>(data.data())),
               static_cast<ULONG>(data.size()), hash.data(), cbHash);
    BCryptCloseAlgorithmProvider(alg, 0);
    return hash;
}

BcryptKey ImportPublicBlob(const Bytes &blob, NTSTATUS *status)
{
    Bytes copy = blob;
    if (copy.size() >= 4 && copy[0] == 'E' && copy[1] == 'C' && copy[2] == 'K')
        copy[2] = 'S'; // ECDH ("ECK1", "ECK3", "ECK5") read as ECDSA of the same curve
    ULONG magic = 0;
    memcpy(&magic, copy.data(), copy.size() >= 4 ? 4 : 0);
    const wchar_t *algorithm = magic == BCRYPT_RSAPUBLIC_MAGIC          ? BCRYPT_RSA_ALGORITHM
                               : magic == BCRYPT_ECDSA_PUBLIC_P256_MAGIC ? BCRYPT_ECDSA_P256_ALGORITHM
                               : magic == BCRYPT_ECDSA_PUBLIC_P384_MAGIC ? BCRYPT_ECDSA_P384_ALGORITHM
                               : magic == BCRYPT_ECDSA_PUBLIC_P521_MAGIC ? BCRYPT_ECDSA_P521_ALGORITHM
                                                                         : nullptr;
    NTSTATUS rc = static_cast<NTSTATUS>(0xC000000D); // STATUS_INVALID_PARAMETER: an unknown magic
    BCRYPT_ALG_HANDLE alg = nullptr;
    BCRYPT_KEY_HANDLE key = nullptr;
    if (algorithm && (rc = BCryptOpenAlgorithmProvider(&alg, algorithm, nullptr, 0)) == 0) {
        const wchar_t *type = magic == BCRYPT_RSAPUBLIC_MAGIC ? BCRYPT_RSAPUBLIC_BLOB : BCRYPT_ECCPUBLIC_BLOB;
        rc = BCryptImportKeyPair(alg, nullptr, type, &key, copy.data(), Size(copy), 0);
        BCryptCloseAlgorithmProvider(alg, 0);
    }
    if (status)
        *status = rc;
    return BcryptKey(rc == 0 ? key : nullptr);
}

std::vector<BYTE> ExportKeyBlob(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp, NCRYPT_PROV_HANDLE provider,
                                NCRYPT_KEY_HANDLE key, const wchar_t *blobType, SECURITY_STATUS *status)
{
    DWORD cb = 0;
    SECURITY_STATUS rc = ksp.ExportKey(provider, key, 0, blobType, nullptr, nullptr, 0, &cb, 0);
    std::vector<BYTE> blob(cb);
    if (rc == 0)
        rc = ksp.ExportKey(provider, key, 0, blobType, nullptr, blob.data(), cb, &cb, 0);
    if (status)
        *status = rc;
    if (rc != 0)
        blob.clear();
    return blob;
}

void VaultProviderTest::SetUp()
{
    emulator.Reset();
    if (EnvVar(L"KESTAL_SECOND_PROCESS").empty()) {
        ClearSettings(HKEY_LOCAL_MACHINE);
        ClearSettings(HKEY_CURRENT_USER);
    }
    static int count = 0;
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    logDir = std::wstring(temp) + L"kestal-vault-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
             std::to_wstring(++count);
    std::error_code ignored; // Wine reuses process ids: the name may hold an earlier program's log
    std::filesystem::remove_all(logDir, ignored);
    CreateDirectoryW(logDir.c_str(), nullptr);
    SetSetting(HKEY_LOCAL_MACHINE, L"LogfilePath", logDir);
    SetSettingDword(HKEY_LOCAL_MACHINE, L"LoggingLevel", 10);
    KspModuleAttach(); // the core reads its logging settings as the DLL does when loaded
    g_events.clear();
    KSP_EVENT_LOG_SEAM seam = {RecordEvent};
    KspSetEventLogSeam(&seam);
}

void VaultProviderTest::TearDown()
{
    for (const auto &[freeProvider, h] : open_)
        freeProvider(h);
    open_.clear();
    if (dll_)
        FreeLibrary(dll_);
    dll_ = nullptr;
    dllTable_ = nullptr;
    static const std::regex kJwt("eyJ[A-Za-z0-9_-]+\\.[A-Za-z0-9_-]+");
    for (const std::string &line : Log())
        if (std::regex_search(line, kJwt) || line.find(kTestPin) != std::string::npos ||
            line.find("harness-machine-secret") != std::string::npos ||
            line.find("harness-user-secret") != std::string::npos)
            ADD_FAILURE() << "a secret reached the log: " << line;
    KspSetEventLogSeam(nullptr);
    SetTimeZone("");
    if (EnvVar(L"KESTAL_SECOND_PROCESS").empty()) { // the first process reads what the second left
        ClearSettings(HKEY_LOCAL_MACHINE);
        ClearSettings(HKEY_CURRENT_USER);
    }
    KspModuleAttach(); // no settings: the core's logging is off again
    KspModuleDetach();
}

void VaultProviderTest::UseVault(HKEY hive, const std::wstring &vault, DWORD certificatesOrKeys)
{
    bool machine = hive == HKEY_LOCAL_MACHINE;
    std::string clientId = machine ? "5d0c8a3e-1f2b-4c6d-9e8f-0a1b2c3d4e01" : "5d0c8a3e-1f2b-4c6d-9e8f-0a1b2c3d4e02";
    std::string secret = machine ? "harness-machine-secret" : "harness-user-secret";
    HttpResult r = emulator.Call(L"POST", L"/apps", "{\"tenant\":\"" + std::string(kTenant) + "\",\"clientId\":\"" +
                                                        clientId + "\",\"secret\":\"" + secret + "\"}");
    if (r.status != 200)
        throw std::runtime_error("the emulator refused the app: " + r.body);
    SetSetting(hive, L"KeyVault", vault);
    SetSettingDword(hive, L"AuthenticationType", 2);
    SetSetting(hive, L"TenantId", Widen(kTenant));
    SetSetting(hive, L"ClientId", Widen(clientId));
    SetSetting(hive, L"ClientSecret", Widen(secret));
    SetSettingDword(hive, L"CertificatesOrKeys", certificatesOrKeys);
}

const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &VaultProviderTest::Ksp(Via via)
{
    if (via == Via::Core) {
        NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table = nullptr;
        if (GetKeyStorageInterface(KSP_PROVIDER_NAME, &table, 0) != 0 || !table)
            throw std::runtime_error("the core has no function table");
        return *table;
    }
    if (!dllTable_)
        dllTable_ = LoadProviderDll(&dll_);
    return *dllTable_;
}

NCRYPT_PROV_HANDLE VaultProviderTest::OpenProvider(Via via)
{
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = Ksp(via);
    NCRYPT_PROV_HANDLE h = 0;
    EXPECT_EQ(ksp.OpenProvider(&h, KSP_PROVIDER_NAME, 0), 0);
    if (h)
        open_.emplace_back(ksp.FreeProvider, h);
    return h;
}

std::vector<std::string> VaultProviderTest::Log(std::string_view prefix) const
{
    // "KestalKeyVaultKSP: YYYY-MM-DD HH:MM:SS <message> <level>"
    constexpr size_t kPrefix = sizeof("KestalKeyVaultKSP: 2000-01-01 00:00:00 ") - 1;
    std::vector<std::string> messages;
    std::istringstream log(ReadLogs(logDir));
    for (std::string line; std::getline(log, line);) {
        if (line.ends_with('\r'))
            line.pop_back();
        if (line.starts_with("KestalKeyVaultKSP: ") && line.size() > kPrefix &&
            line.compare(kPrefix, prefix.size(), prefix) == 0)
            messages.push_back(line.substr(kPrefix));
    }
    return messages;
}

void VaultProviderTest::Attach(DWORD loggingLevel, DWORD eventLevel)
{
    SetSettingDword(HKEY_LOCAL_MACHINE, L"LoggingLevel", loggingLevel);
    SetSettingDword(HKEY_LOCAL_MACHINE, L"EVLoggingLevel", eventLevel);
    KspModuleAttach();
}

void VaultProviderTest::SetTimeZone(const char *tz)
{
    _putenv_s("TZ", tz);
    _tzset();
}

std::string VaultProviderTest::ReadLog(const std::wstring &utcDate) const
{
    return ReadText(logDir + L"\\" + utcDate + L"_KestalKeyVaultKSP.log");
}

std::vector<std::string> VaultProviderTest::VaultCalls(std::string_view prefix) const
{
    std::vector<std::string> calls;
    for (const SeenRequest &r : VaultRequests())
        if ((r.method + " " + r.url).rfind(prefix, 0) == 0)
            calls.push_back(r.method + " " + r.url);
    return calls;
}

KVC *VaultProviderTest::SignedInMachineClient()
{
    KVC *kvc = KspProviderFromHandle(OpenProvider(Via::Core))->kvcMachine;
    EXPECT_EQ(KVCAuthenticate(kvc, nullptr), 1);
    return kvc;
}

void VaultKeyTest::SetUp()
{
    VaultProviderTest::SetUp();
    UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
    provider = OpenProvider();
}

NCRYPT_KEY_HANDLE VaultKeyTest::SeedAndOpen(const std::string &name, const std::string &members, Json *bundle)
{
    Json seeded = SeedKey(emulator, L"kestaltest", name, members);
    if (bundle)
        *bundle = std::move(seeded);
    NCRYPT_KEY_HANDLE h = 0;
    EXPECT_EQ(Ksp().OpenKey(provider, &h, Widen(name).c_str(), 0, NCRYPT_MACHINE_KEY_FLAG), 0) << name;
    return h;
}

NCRYPT_KEY_HANDLE VaultKeyTest::CreateKey(const std::wstring &name, DWORD usage, bool finalize)
{
    NCRYPT_KEY_HANDLE h = 0;
    EXPECT_EQ(Ksp().CreatePersistedKey(provider, &h, L"RSA", name.c_str(), 0, NCRYPT_MACHINE_KEY_FLAG), 0);
    EXPECT_EQ(Ksp().SetKeyProperty(provider, h, NCRYPT_KEY_USAGE_PROPERTY, reinterpret_cast<BYTE *>(&usage), 4, 0), 0);
    if (finalize) {
        EXPECT_EQ(Ksp().FinalizeKey(provider, h, 0), 0);
    }
    return h;
}

std::vector<std::string> VaultKeyTest::CryptoRequests(const char *member) const
{
    std::vector<std::string> values;
    for (const SeenRequest &r : VaultRequests())
        if (r.method == "POST" && r.url.find("/create?") == std::string::npos)
            values.push_back(JsonString(ParseJson(r.body).get(), member));
    return values;
}

} // namespace kestal_test

