// The test world seen from a Windows program: HTTP through WinHTTP, the emulated Azure's control
// API and request log, and the text and Base64 helpers that go with them. The tests' harness and
// the benchmark both use it; it needs neither GoogleTest nor the provider.
#pragma once

#include <windows.h>

#include <json-c/json.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

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
};

// One exchange with certificate validation on and no proxy.
HttpResult HttpSend(const HttpRequestSpec &req);

// ---- The emulated Azure's control API ------------------------------------------------
class Emulator {
public:
    Emulator(); // from KESTAL_CONTROL_URL, set by the test world
    HttpResult Call(const std::wstring &method, const std::wstring &path, const std::string &json = "") const;
    void Reset() const;

private:
    std::wstring base_;
};

// What the emulator's log says of one request.
struct SeenRequest {
    std::string service, method, url, host, body; // service: "login", "vault", "imds" or "arc"
    std::vector<std::pair<std::string, std::string>> headers; // raw order and case
    bool tls = false;
    bool newConnection = false;
    int inFlight = 0; // the service's requests open when this one arrived, itself included
    std::string Header(std::string_view name) const; // first value, any case; "" when absent
    // "Name: value" of the headers the caller added, in order: WinHTTP's own User-Agent, Host
    // and Content-Length left out.
    std::vector<std::string> SentHeaders() const;
};
// The requests one service saw (every service's for ""), oldest first.
std::vector<SeenRequest> SeenRequests(const Emulator &emulator, const std::wstring &service);
// Queues answers (a JSON array) for one service, optionally for one method and path, or bodies
// that contain a text, only.
void ScriptAnswers(const Emulator &emulator, const std::string &service, const std::string &responses,
                   const std::string &method = "", const std::string &path = "", const std::string &bodyContains = "");

// ---- Bytes -------------------------------------------------------------------------------
using Bytes = std::vector<BYTE>;
Bytes FromBase64(std::string text); // standard or URL-safe alphabet, padding optional
std::string ToBase64(const Bytes &bytes); // standard alphabet with padding
std::string ToBase64Url(const Bytes &bytes); // URL-safe alphabet, no padding

} // namespace kestal_test
