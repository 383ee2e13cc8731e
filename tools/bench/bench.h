// The benchmark's shared pieces: plain WinHTTP exchanges (the raw client, the sign-in and the
// emulated Azure's control API), the emulator's request log, process probes and statistics.
#pragma once

#include <windows.h>
#include <winhttp.h>

#include <json-c/json.h>

#include "ksp/kspinterface.h"
#include "tests/harness/world.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// JSON, text and Base64 helpers and the emulator's request log come from the test world's client.
using kestal_test::FromBase64;
using kestal_test::Json;
using kestal_test::JsonString;
using kestal_test::Narrow;
using kestal_test::ToBase64;
using kestal_test::Widen;
using Seen = kestal_test::SeenRequest;

// ---- HTTP ------------------------------------------------------------------------------------
struct InternetClose {
    void operator()(HINTERNET h) const { WinHttpCloseHandle(h); }
};
using Internet = std::unique_ptr<void, InternetClose>;

struct HttpRequest {
    std::wstring verb = L"GET";
    std::wstring path;    // with its query
    std::wstring headers; // "Name: value\r\n" lines
    std::string body;
};

struct HttpAnswer {
    DWORD error = 0; // WinHTTP error when no answer came back
    DWORD status = 0;
    std::string body;
};

// A WinHTTP session and connection to one host, opened as the provider opens them. With
// keepAlive the connection stays open between requests; without it every request tells WinHTTP
// not to keep its connection, as the provider does when it makes a connection per call.
class HttpConnection {
public:
    HttpConnection(const std::wstring &host, INTERNET_PORT port, bool keepAlive);
    HttpAnswer Send(const HttpRequest &request) const;

private:
    Internet session_, connection_;
    bool tls_, keepAlive_;
};

// One exchange on a connection of its own.
HttpAnswer SendFresh(const std::wstring &host, INTERNET_PORT port, const HttpRequest &request);

// ---- The emulated Azure ------------------------------------------------------------------------
// A control API call (KESTAL_CONTROL_URL, set by the test world); JSON in and out.
HttpAnswer Control(const wchar_t *verb, const std::wstring &path, const std::string &json = "");
void ControlOrDie(const wchar_t *verb, const std::wstring &path, const std::string &json = "");

std::vector<Seen> Requests(const wchar_t *service = L""); // oldest first; "" for every service
void ClearRequests();
int CountRequests(const std::vector<Seen> &seen, const char *service);

// A client-credentials token for the vault from the emulated sign-in; "" on failure.
std::string SignIn(const std::string &tenant, const std::string &clientId, const std::string &secret);

// ---- Probes ------------------------------------------------------------------------------------
double NowMs(); // a monotonic clock
// CPU time of the bench's Linux process (every thread) and of the wineserver, in ms; known is
// false when /proc cannot be read through Wine's Z: drive.
struct CpuClock {
    double benchMs = 0, serverMs = 0;
    bool known = false;
};
CpuClock ReadCpu();
std::vector<BYTE> RandomBytes(DWORD cb);

struct MemorySample {
    double committedPrivateBytes = 0; // VirtualQuery: committed private regions
    double heapBusyBytes = 0;         // HeapWalk over every process heap: busy blocks
    double heapBusyBlocks = 0;
    long handles = -1; // NtQuerySystemInformation's handle table, own process; -1 unavailable
};
MemorySample SampleMemory();

struct Summary {
    size_t n = 0;
    double median = 0, p90 = 0, p99 = 0;
};
Summary Summarize(std::vector<double> values); // nearest-rank percentiles

// ---- The provider, loaded as the CNG router loads it ------------------------------------------

// Settings a copy of the provider reads when it is loaded or opened.
struct Config {
    DWORD reuseConnections = 0;
    DWORD loggingLevel = 0;
    const wchar_t *vault = L"kestaltest";
};

// A key the bench signs with: its vault name and what it takes to sign with it.
struct BenchKey {
    const char *label; // "RSA-2048", "P-256"
    const char *name;  // in the vault
    bool ec;
    const char *seed; // control API members after the name
};

struct OpenedKey {
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE *ksp = nullptr;
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    const BenchKey *benchKey = nullptr;
};

// One loaded copy of the provider DLL. A copy under a file name of its own is a module of its
// own: it reads its module settings when loaded and keeps its own process-wide state, so that
// two configurations live side by side in one process and their calls can be interleaved.
// The settings of the config are written before the load and stay until the next copy's, so
// that the handles opened next read them too. The copy and its log file go into workDir.
// Everything opened is freed with the copy.
class ProviderCopy {
public:
    ProviderCopy(const std::wstring &tag, const Config &config, const std::wstring &workDir);
    ~ProviderCopy();
    ProviderCopy(const ProviderCopy &) = delete;
    ProviderCopy &operator=(const ProviderCopy &) = delete;

    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp() const { return *table_; }
    NCRYPT_PROV_HANDLE OpenProvider();                                   // throws on failure
    OpenedKey OpenKey(NCRYPT_PROV_HANDLE provider, const BenchKey &benchKey); // throws on failure
    OpenedKey OpenProviderAndKey(const BenchKey &benchKey) { return OpenKey(OpenProvider(), benchKey); }

private:
    HMODULE module_ = nullptr;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table_ = nullptr;
    std::vector<NCRYPT_PROV_HANDLE> providers_;
    std::vector<std::pair<NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE>> keys_;
};

// The connection settings of the machine scope for the bench's app; the vault comes with a copy.
void WriteConnectionSettings(const std::string &tenant, const std::string &clientId, const std::string &secret);
void ClearSettings();

// SignHash of a SHA-256 hash (PKCS#1 v1.5 for RSA); the signature in *signature.
SECURITY_STATUS Sign(const OpenedKey &key, const std::vector<BYTE> &hash, std::vector<BYTE> *signature);

// Checks signatures with Windows' own BCrypt against the key's exported public blob.
class Verifier {
public:
    explicit Verifier(const OpenedKey &key); // throws when the key cannot be exported or imported
    ~Verifier();
    Verifier(const Verifier &) = delete;
    Verifier &operator=(const Verifier &) = delete;
    bool Check(const std::vector<BYTE> &hash, const std::vector<BYTE> &signature) const;

private:
    BCRYPT_KEY_HANDLE key_ = nullptr;
    bool ec_;
};

} // namespace bench
