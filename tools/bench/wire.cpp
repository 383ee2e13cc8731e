// Plain WinHTTP exchanges: the raw client the provider is measured against, the sign-in that
// gives it a token, and the emulated Azure's control API and request log.
#include "tools/bench/bench.h"

#include <stdexcept>

namespace bench {

namespace {

constexpr wchar_t kUserAgent[] = L"Kestal Key Vault Key Storage Provider"; // the provider's own
constexpr INTERNET_PORT kTlsPort = 443;

std::string ReadBody(HINTERNET request)
{
    std::string body;
    char chunk[8192];
    for (DWORD got = 0; WinHttpReadData(request, chunk, sizeof(chunk), &got) && got > 0;)
        body.append(chunk, got);
    return body;
}

// The control API's base, split once.
struct ControlBase {
    std::wstring host;
    INTERNET_PORT port = 0;
};

const ControlBase &Base()
{
    static const ControlBase base = [] {
        wchar_t url[256];
        DWORD n = GetEnvironmentVariableW(L"KESTAL_CONTROL_URL", url, ARRAYSIZE(url));
        URL_COMPONENTS parts = {};
        parts.dwStructSize = sizeof(parts);
        parts.dwHostNameLength = static_cast<DWORD>(-1);
        if (n == 0 || n >= ARRAYSIZE(url) || !WinHttpCrackUrl(url, 0, 0, &parts))
            throw std::runtime_error("KESTAL_CONTROL_URL is not set: run the bench inside the test world");
        return ControlBase{std::wstring(parts.lpszHostName, parts.dwHostNameLength), parts.nPort};
    }();
    return base;
}

} // namespace

std::string JsonText(json_object *obj, const char *member)
{
    json_object *value = nullptr;
    if (!obj || !json_object_object_get_ex(obj, member, &value) || !json_object_is_type(value, json_type_string))
        return "";
    return json_object_get_string(value);
}

std::wstring Widen(const std::string &text)
{
    int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring out(n > 0 ? n : 0, L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n);
    return out;
}

std::string Narrow(const std::wstring &text)
{
    int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(n > 0 ? n : 0, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr, nullptr);
    return out;
}

HttpConnection::HttpConnection(const std::wstring &host, INTERNET_PORT port, bool keepAlive)
    : session_(WinHttpOpen(kUserAgent, WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME,
                           WINHTTP_NO_PROXY_BYPASS, 0)),
      connection_(session_ ? WinHttpConnect(session_.get(), host.c_str(), port, 0) : nullptr), tls_(port == kTlsPort),
      keepAlive_(keepAlive)
{
}

HttpAnswer HttpConnection::Send(const HttpRequest &req) const
{
    HttpAnswer answer;
    Internet request(connection_ ? WinHttpOpenRequest(connection_.get(), req.verb.c_str(), req.path.c_str(), nullptr,
                                                      WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                                      tls_ ? WINHTTP_FLAG_SECURE : 0)
                                 : nullptr);
    if (!request) {
        answer.error = GetLastError();
        return answer;
    }
    if (!keepAlive_) {
        // Wine pools connections per process, beyond the session: only this keeps one fresh.
        DWORD disable = WINHTTP_DISABLE_KEEP_ALIVE;
        WinHttpSetOption(request.get(), WINHTTP_OPTION_DISABLE_FEATURE, &disable, sizeof(disable));
    }
    DWORD cb = static_cast<DWORD>(req.body.size());
    if (!WinHttpSendRequest(request.get(), req.headers.empty() ? WINHTTP_NO_ADDITIONAL_HEADERS : req.headers.c_str(),
                            req.headers.empty() ? 0 : static_cast<DWORD>(-1L),
                            cb ? const_cast<char *>(req.body.data()) : WINHTTP_NO_REQUEST_DATA, cb, cb, 0) ||
        !WinHttpReceiveResponse(request.get(), nullptr)) {
        answer.error = GetLastError();
        return answer;
    }
    answer.body = ReadBody(request.get());
    DWORD size = sizeof(answer.status);
    WinHttpQueryHeaders(request.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                        WINHTTP_HEADER_NAME_BY_INDEX, &answer.status, &size, WINHTTP_NO_HEADER_INDEX);
    return answer;
}

HttpAnswer SendFresh(const std::wstring &host, INTERNET_PORT port, const HttpRequest &request)
{
    return HttpConnection(host, port, false).Send(request);
}

HttpAnswer Control(const wchar_t *verb, const std::wstring &path, const std::string &json)
{
    HttpRequest request{verb, path, json.empty() ? L"" : L"Content-Type: application/json\r\n", json};
    return HttpConnection(Base().host, Base().port, false).Send(request);
}

void ControlOrDie(const wchar_t *verb, const std::wstring &path, const std::string &json)
{
    HttpAnswer answer = Control(verb, path, json);
    if (answer.status < 200 || answer.status > 299)
        throw std::runtime_error("the emulator refused " + Narrow(verb) + " " + Narrow(path) + ": " + answer.body);
}

std::vector<Seen> Requests(const wchar_t *service)
{
    HttpAnswer answer = Control(L"GET", service ? std::wstring(L"/requests?service=") + service : L"/requests");
    Json log(json_tokener_parse(answer.body.c_str()));
    if (!log || !json_object_is_type(log.get(), json_type_array))
        throw std::runtime_error("the emulator's request log cannot be read");
    std::vector<Seen> seen;
    for (size_t i = 0; i < json_object_array_length(log.get()); ++i) {
        json_object *entry = json_object_array_get_idx(log.get(), i);
        Seen s{JsonText(entry, "service"), JsonText(entry, "method"), JsonText(entry, "url"), JsonText(entry, "body")};
        json_object *headers = json_object_object_get(entry, "headers");
        for (size_t h = 0; h < json_object_array_length(headers); ++h) {
            json_object *pair = json_object_array_get_idx(headers, h);
            s.headers.emplace_back(json_object_get_string(json_object_array_get_idx(pair, 0)),
                                   json_object_get_string(json_object_array_get_idx(pair, 1)));
        }
        s.newConnection = json_object_get_boolean(json_object_object_get(entry, "newConnection"));
        s.inFlight = json_object_get_int(json_object_object_get(entry, "inFlight"));
        seen.push_back(std::move(s));
    }
    return seen;
}

void ClearRequests() { ControlOrDie(L"DELETE", L"/requests"); }

int CountRequests(const std::vector<Seen> &seen, const char *service)
{
    int n = 0;
    for (const Seen &s : seen)
        n += s.service == service;
    return n;
}

std::string SignIn(const std::string &tenant, const std::string &clientId, const std::string &secret)
{
    // The identifiers and the bench's own secret need no form escaping.
    HttpRequest request{L"POST", Widen("/" + tenant + "/oauth2/token"),
                        L"Content-Type: application/x-www-form-urlencoded\r\n",
                        "grant_type=client_credentials&client_id=" + clientId + "&client_secret=" + secret +
                            "&resource=https%3A%2F%2Fvault.azure.net"};
    HttpAnswer answer = SendFresh(L"login.microsoftonline.com", kTlsPort, request);
    Json doc(json_tokener_parse(answer.body.c_str()));
    return answer.status == 200 ? JsonText(doc.get(), "access_token") : "";
}

} // namespace bench
