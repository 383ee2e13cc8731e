// Test harness: loads the provider as the CNG router does, talks HTTP through WinHTTP,
// drives the emulated Azure's control API, and reads the registry and the daily log.
#pragma once

#include <windows.h>

#include <json-c/json.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ksp/ksp.h"
#include "support/timeseam.h"

namespace kestal_test {

// ---- JSON ------------------------------------------------------------------------------
struct JsonPut {
    void operator()(json_object *p) const { json_object_put(p); }
};
using Json = std::unique_ptr<json_object, JsonPut>;

Json ParseJson(const std::string &text);
std::string JsonString(json_object *obj, const char *member); // "" when absent or not a string

// ---- Text ------------------------------------------------------------------------------
std::wstring Widen(std::string_view text);
std::string Narrow(std::wstring_view text);
std::wstring EnvVar(const wchar_t *name);
std::wstring ExeDir();

// ---- HTTP ------------------------------------------------------------------------------
struct HttpRequestSpec {
    std::wstring url;
    std::wstring method = L"GET";
    std::vector<std::wstring> headers; // "Name: value"
    std::string body;
};

struct HttpResult {
    DWORD error = 0;  // WinHTTP error of a failed exchange, 0 when an answer came back
    DWORD status = 0; // HTTP status
    std::string body;
    std::wstring rawHeaders; // CR LF separated, status line first
    std::wstring Header(std::wstring_view name) const; // first value, "" when absent
};

// One exchange with certificate validation on and no proxy.
HttpResult HttpSend(const HttpRequestSpec &req);

// ---- The emulated Azure's control API ------------------------------------------------
class Emulator {
public:
    Emulator(); // from KESTAL_CONTROL_URL, set by the test world
    HttpResult Call(const std::wstring &method, const std::wstring &path, const std::string &json = "") const;
    void Reset() const;
    // Requests seen by one service ("login", "vault", "imds", "arc"), oldest first.
    Json Requests(const std::wstring &service) const;

private:
    std::wstring base_;
};

// ---- The provider, loaded as the router loads it --------------------------------------
class KspRouter {
public:
    ~KspRouter();
    // Loads KestalKeyVaultKSP.dll from the test executable's folder, resolves
    // GetKeyStorageInterface and checks the table; null with the reason on failure.
    static std::unique_ptr<KspRouter> LoadDll(std::string *why);
    // Version 1.0 and all 26 entries set.
    static bool CheckTable(const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table, std::string *why);

    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp() const { return *table_; }

private:
    HMODULE module_ = nullptr;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table_ = nullptr;
};

// ---- Registry settings under Software\Kestal\KestalKeyVaultKSP ------------------------
void ClearSettings(HKEY hive);
void SetSetting(HKEY hive, const wchar_t *name, const std::wstring &value);
void SetSettingDword(HKEY hive, const wchar_t *name, DWORD value);
std::wstring GetSetting(HKEY hive, const wchar_t *name); // "" when absent or not REG_SZ

// ---- The daily log file -----------------------------------------------------------------
std::wstring TodaysLogPath(const std::wstring &dir); // named after today's UTC date
std::string ReadTodaysLog(const std::wstring &dir);

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

} // namespace kestal_test
