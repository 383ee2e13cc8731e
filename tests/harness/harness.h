// Test harness: loads the provider as the CNG router does, seeds and scripts the emulated Azure
// (through the world client), and reads the registry and the daily log.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ksp/ksp.h"
#include "support/timeseam.h"
#include "tests/harness/world.h"

namespace kestal_test {

std::wstring ExeDir(); // the test program's folder

// A vault client record owned by a test.
struct KvcDelete {
    void operator()(KVC *kvc) const { KVCDelete(kvc); }
};
using KvcOwner = std::unique_ptr<KVC, KvcDelete>;

// ---- Registry settings under Software\Kestal\KestalKeyVaultKSP ------------------------
void ClearSettings(HKEY hive);
void SetSetting(HKEY hive, const wchar_t *name, const std::wstring &value);
void SetSettingDword(HKEY hive, const wchar_t *name, DWORD value);
std::wstring GetSetting(HKEY hive, const wchar_t *name); // "" when absent or not REG_SZ

// ---- The daily log files ----------------------------------------------------------------
// Every log file of the folder, oldest first: a test that runs across midnight UTC writes two.
std::string ReadLogs(const std::wstring &dir);

// The event log, recorded through its seam while a VaultProviderTest runs.
struct RecordedEvent {
    WORD type;
    std::wstring message;
    bool operator==(const RecordedEvent &) const = default;
};
inline std::vector<RecordedEvent> g_events;
inline void RecordEvent(WORD wType, const WCHAR *pszMessage) { g_events.push_back({wType, pszMessage}); }

// ---- Time: replaces the core's sleep and clock for the life of the object -------------
class FakeTime {
public:
    explicit FakeTime(__time64_t start = 1'700'000'000);
    ~FakeTime();
    FakeTime(const FakeTime &) = delete;
    FakeTime &operator=(const FakeTime &) = delete;

    std::vector<DWORD> waits; // every wait asked for, in milliseconds, in order
    __time64_t now;           // advances with the waits; tests may also move it
    DWORD pendingMs = 0;      // waited milliseconds not yet a whole second
};

// ---- Keys in the emulated vault ---------------------------------------------------------
// Makes a key (a new version when it exists) from the members given after its name, for
// example R"("kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"})"; answers the KeyBundle.
Json SeedKey(const Emulator &emulator, const std::wstring &vault, const std::string &name,
             const std::string &members = R"("kty":"RSA","key_size":2048)");
// Page i of the vault's listings holds pageSizes[i] keys; later pages the normal size.
void SetPageSizes(const Emulator &emulator, const std::wstring &vault, const std::vector<int> &pageSizes);

// ---- Bytes, and Windows' own cryptography to check the provider against ---------------------
template <typename T> Bytes BytesOf(const T &value) // the raw bytes of a value
{
    return Bytes(reinterpret_cast<const BYTE *>(&value), reinterpret_cast<const BYTE *>(&value + 1));
}
template <typename C> DWORD Size(const C &bytes) { return static_cast<DWORD>(bytes.size()); }
Bytes ToBytes(std::string_view text);
Bytes WideText(std::wstring_view text); // UTF-16 with its terminator, as CNG hands text over
std::string ToStr(const BYTE *pb, size_t cb);
std::string Hex(std::string_view bytes); // upper case
inline std::string Hex(const Bytes &bytes)
{
    return Hex(std::string_view(reinterpret_cast<const char *>(bytes.data()), bytes.size()));
}
std::vector<BYTE> HashOf(const wchar_t *bcryptAlgorithm, std::string_view data);

struct BcryptKeyDestroy {
    void operator()(void *h) const { BCryptDestroyKey(h); }
};
using BcryptKey = std::unique_ptr<void, BcryptKeyDestroy>;
// A BCrypt key from an RSA or ECC public blob, its algorithm chosen by the blob's magic (ECDH
// magics as ECDSA, so that signatures can be checked); null and *status on failure.
BcryptKey ImportPublicBlob(const std::vector<BYTE> &blob, NTSTATUS *status = nullptr);
// The public blob of an open key through a provider table; empty on failure (status in *status).
std::vector<BYTE> ExportKeyBlob(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp, NCRYPT_PROV_HANDLE provider,
                                NCRYPT_KEY_HANDLE key, const wchar_t *blobType, SECURITY_STATUS *status = nullptr);

// A smart-card PIN for tests to set: no log may ever hold it.
inline constexpr char kTestPin[] = "4711-Pin-Never-Logged";

// ---- A provider opened against the emulated vault -----------------------------------------
// Each test starts with the emulator reset, both settings hives empty, logging at level 10 into
// a fresh folder (for the DLL and the core alike), the core's event log recorded in g_events
// and fake time for the core. UseVault points a scope at a vault with a client secret the
// emulator knows; OpenProvider opens a provider through the loaded DLL's function table, or
// through the core linked into the test, where FakeTime sees every wait. Providers are freed,
// and the DLL unloaded, at the end of the test, and then its log is swept: no line may hold a token,
// kTestPin or a harness client secret. A test that runs itself again in a second
// process sets KESTAL_SECOND_PROCESS there: that process keeps the settings the first one left.
class VaultProviderTest : public ::testing::Test {
protected:
    enum class Via { Dll, Core };
    static constexpr char kTenant[] = "9a3c2f10-5b7e-4c1d-8e2f-6a4b0c9d7e21";

    void SetUp() override;
    void TearDown() override;
    // KeyVault, AuthenticationType 2, TenantId, ClientId, ClientSecret and CertificatesOrKeys
    // (1: plain keys, 0: certificate mode) in HKEY_LOCAL_MACHINE or HKEY_CURRENT_USER, and the
    // matching app registered in the emulator.
    void UseVault(HKEY hive, const std::wstring &vault, DWORD certificatesOrKeys = 1);
    // The table of the DLL (loaded on first use, after the settings) or of the linked core.
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &Ksp(Via via = Via::Dll);
    // 0 and the handle, or a failed expectation and 0.
    NCRYPT_PROV_HANDLE OpenProvider(Via via = Via::Dll);
    // The signed-in machine client of a core provider opened on the settings already written.
    KVC *SignedInMachineClient();
    // The messages ("text level") of every log file in the folder, oldest file first, that
    // begin with prefix.
    std::vector<std::string> Log(std::string_view prefix = "") const;
    // Rereads the logging settings, as loading the module does, with these two levels.
    void Attach(DWORD loggingLevel, DWORD eventLevel);
    static void SetTimeZone(const char *tz); // Wine's msvcrt honours TZ in _tzset
    // The raw bytes of the log named after a UTC date such as L"2023-11-14".
    std::string ReadLog(const std::wstring &utcDate) const;
    // Requests the vault service saw; as "METHOD url" those that begin with prefix.
    std::vector<SeenRequest> VaultRequests() const { return SeenRequests(emulator, L"vault"); }
    std::vector<std::string> VaultCalls(std::string_view prefix = "") const;
    void ForgetRequests() const { emulator.Call(L"DELETE", L"/requests"); }

    Emulator emulator;
    FakeTime time;
    std::wstring logDir;

private:
    HMODULE dll_ = nullptr;
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *dllTable_ = nullptr;
    std::vector<std::pair<NCryptFreeProviderFn, NCRYPT_PROV_HANDLE>> open_;
};

// A provider opened through the DLL with vault "kestaltest" for the machine scope (plain keys),
// and keys seeded there and opened by name.
class VaultKeyTest : public VaultProviderTest {
protected:
    void SetUp() override;
    // Seeds the key (members as for SeedKey), opens it with NCRYPT_MACHINE_KEY_FLAG; the emulator's
    // KeyBundle in *bundle when asked for.
    NCRYPT_KEY_HANDLE SeedAndOpen(const std::string &name, const std::string &members, Json *bundle = nullptr);
    // A machine RSA key created through the provider with this key usage, finalized (made in the
    // vault) when asked.
    NCRYPT_KEY_HANDLE CreateKey(const std::wstring &name, DWORD usage, bool finalize = true);
    // One member ("alg", "value", "digest") of every crypto request (a POST other than a creation)
    // the vault saw, oldest first.
    std::vector<std::string> CryptoRequests(const char *member = "alg") const;

    NCRYPT_PROV_HANDLE provider = 0;
};

} // namespace kestal_test
