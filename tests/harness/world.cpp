#include "tests/harness/world.h"

#include <winhttp.h>
#include <wincrypt.h>

#include <stdexcept>

namespace kestal_test {

namespace {

using Internet = std::unique_ptr<void, decltype([](HINTERNET h) { WinHttpCloseHandle(h); })>;

std::string ReadBody(HINTERNET request)
{
    std::string body;
    for (;;) {
        DWORD available = 0;
        if (!WinHttpQueryDataAvailable(request, &available) || available == 0)
            return body;
        std::string chunk(available, '\0');
        DWORD read = 0;
        if (!WinHttpReadData(request, chunk.data(), available, &read) || read == 0)
            return body;
        body.append(chunk.data(), read);
    }
}

} // namespace

Json ParseJson(const std::string &text) { return Json(json_tokener_parse(text.c_str())); }

std::string JsonString(json_object *obj, const char *member)
{
    json_object *value = nullptr;
    if (!obj || !json_object_object_get_ex(obj, member, &value) || !json_object_is_type(value, json_type_string))
        return "";
    return json_object_get_string(value);
}

std::wstring Widen(std::string_view text)
{
    std::wstring out(text.size(), L'\0');
    int n = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(),
                                static_cast<int>(out.size()));
    out.resize(n > 0 ? n : 0);
    return out;
}

std::string Narrow(std::wstring_view text)
{
    int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(n > 0 ? n : 0, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), n, nullptr, nullptr);
    return out;
}

std::wstring EnvVar(const wchar_t *name)
{
    wchar_t buffer[4096];
    DWORD n = GetEnvironmentVariableW(name, buffer, ARRAYSIZE(buffer));
    return n && n < ARRAYSIZE(buffer) ? std::wstring(buffer, n) : std::wstring();
}

HttpResult HttpSend(const HttpRequestSpec &req)
{
    HttpResult result;
    URL_COMPONENTS parts{};
    parts.dwStructSize = sizeof(parts);
    parts.dwHostNameLength = parts.dwUrlPathLength = parts.dwExtraInfoLength = static_cast<DWORD>(-1);
    if (!WinHttpCrackUrl(req.url.c_str(), 0, 0, &parts)) {
        result.error = GetLastError();
        return result;
    }
    std::wstring host(parts.lpszHostName, parts.dwHostNameLength);
    std::wstring path(parts.lpszUrlPath, parts.dwUrlPathLength + parts.dwExtraInfoLength);

    Internet session(WinHttpOpen(L"Kestal test harness", WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME,
                                 WINHTTP_NO_PROXY_BYPASS, 0));
    if (!session) {
        result.error = GetLastError();
        return result;
    }
    WinHttpSetTimeouts(session.get(), 5000, 5000, 15000, 15000);
    Internet connection(WinHttpConnect(session.get(), host.c_str(), parts.nPort, 0));
    DWORD flags = parts.nScheme == INTERNET_SCHEME_HTTPS ? WINHTTP_FLAG_SECURE : 0;
    Internet request(connection ? WinHttpOpenRequest(connection.get(), req.method.c_str(), path.c_str(), nullptr,
                                                     WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, flags)
                                : nullptr);
    if (!request) {
        result.error = GetLastError();
        return result;
    }
    std::wstring headers;
    for (const auto &h : req.headers)
        headers += h + L"\r\n";
    void *body = req.body.empty() ? WINHTTP_NO_REQUEST_DATA : const_cast<char *>(req.body.data());
    DWORD length = static_cast<DWORD>(req.body.size());
    if (!WinHttpSendRequest(request.get(), headers.empty() ? WINHTTP_NO_ADDITIONAL_HEADERS : headers.c_str(),
                            static_cast<DWORD>(-1L), body, length, length, 0) ||
        !WinHttpReceiveResponse(request.get(), nullptr)) {
        result.error = GetLastError();
        return result;
    }
    DWORD size = sizeof(result.status);
    WinHttpQueryHeaders(request.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, WINHTTP_HEADER_NAME_BY_INDEX,
                        &result.status, &size, WINHTTP_NO_HEADER_INDEX);
    result.body = ReadBody(request.get());
    return result;
}

Emulator::Emulator() : base_(EnvVar(L"KESTAL_CONTROL_URL"))
{
    if (base_.empty())
        throw std::runtime_error("KESTAL_CONTROL_URL is not set: run the tests inside the test world");
}

HttpResult Emulator::Call(const std::wstring &method, const std::wstring &path, const std::string &json) const
{
    HttpRequestSpec req{base_ + path, method, {}, json};
    if (!json.empty())
        req.headers.push_back(L"Content-Type: application/json");
    return HttpSend(req);
}

void Emulator::Reset() const
{
    HttpResult r = Call(L"POST", L"/reset");
    if (r.status != 200)
        throw std::runtime_error("the emulator did not reset");
}

std::string SeenRequest::Header(std::string_view name) const
{
    for (const auto &[n, value] : headers)
        if (n.size() == name.size() && _strnicmp(n.data(), name.data(), name.size()) == 0)
            return value;
    return "";
}

std::vector<std::string> SeenRequest::SentHeaders() const
{
    std::vector<std::string> sent;
    for (const auto &[name, value] : headers)
        if (name != "User-Agent" && name != "Host" && name != "Content-Length")
            sent.push_back(name + ": " + value);
    return sent;
}

std::vector<SeenRequest> SeenRequests(const Emulator &emulator, const std::wstring &service)
{
    std::vector<SeenRequest> seen;
    Json log = ParseJson(emulator.Call(L"GET", service.empty() ? L"/requests" : L"/requests?service=" + service).body);
    for (size_t i = 0; i < json_object_array_length(log.get()); ++i) {
        json_object *entry = json_object_array_get_idx(log.get(), i);
        SeenRequest r{JsonString(entry, "service"), JsonString(entry, "method"), JsonString(entry, "url"), JsonString(entry, "host"),
                      JsonString(entry, "body")};
        json_object *headers = json_object_object_get(entry, "headers");
        for (size_t h = 0; h < json_object_array_length(headers); ++h) {
            json_object *pair = json_object_array_get_idx(headers, h);
            r.headers.emplace_back(json_object_get_string(json_object_array_get_idx(pair, 0)),
                                   json_object_get_string(json_object_array_get_idx(pair, 1)));
        }
        r.tls = json_object_get_boolean(json_object_object_get(entry, "tls"));
        r.newConnection = json_object_get_boolean(json_object_object_get(entry, "newConnection"));
        r.inFlight = json_object_get_int(json_object_object_get(entry, "inFlight"));
        seen.push_back(std::move(r));
    }
    return seen;
}

void ScriptAnswers(const Emulator &emulator, const std::string &service, const std::string &responses,
                   const std::string &method, const std::string &path, const std::string &bodyContains)
{
    std::string json = "{\"service\":\"" + service + "\",\"responses\":" + responses;
    if (!method.empty())
        json += ",\"method\":\"" + method + "\"";
    if (!path.empty())
        json += ",\"path\":\"" + path + "\"";
    if (!bodyContains.empty())
        json += ",\"bodyContains\":\"" + bodyContains + "\"";
    if (emulator.Call(L"POST", L"/script", json + "}").status != 200)
        throw std::runtime_error("the emulator refused a script: " + json);
}

std::string ToBase64Url(const Bytes &bytes)
{
    std::string text = ToBase64(bytes);
    for (char &c : text)
        c = c == '+' ? '-' : c == '/' ? '_' : c;
    return text.substr(0, text.find('='));
}

std::vector<BYTE> FromBase64(std::string text)
{
    for (char &c : text)
        c = c == '-' ? '+' : c == '_' ? '/' : c;
    while (text.size() % 4)
        text += '=';
    DWORD cb = 0;
    if (!CryptStringToBinaryA(text.c_str(), 0, CRYPT_STRING_BASE64, nullptr, &cb, nullptr, nullptr))
        return {};
    std::vector<BYTE> bytes(cb);
    CryptStringToBinaryA(text.c_str(), 0, CRYPT_STRING_BASE64, bytes.data(), &cb, nullptr, nullptr);
    bytes.resize(cb);
    return bytes;
}

std::string ToBase64(const std::vector<BYTE> &bytes)
{
    constexpr DWORD kFlags = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF;
    DWORD cch = 0;
    if (bytes.empty() || !CryptBinaryToStringA(bytes.data(), static_cast<DWORD>(bytes.size()), kFlags, nullptr, &cch))
        return "";
    std::string text(cch, '\0');
    CryptBinaryToStringA(bytes.data(), static_cast<DWORD>(bytes.size()), kFlags, text.data(), &cch);
    text.resize(cch);
    return text;
}

} // namespace kestal_test
