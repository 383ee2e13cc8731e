// Plain WinHTTP exchanges: the raw client the provider is measured against and the sign-in that
// gives it a token; the emulated Azure's control API and request log through the world client.
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

} // namespace

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
    kestal_test::HttpResult result = kestal_test::Emulator().Call(verb, path, json);
    return HttpAnswer{result.error, result.status, std::move(result.body)};
}

void ControlOrDie(const wchar_t *verb, const std::wstring &path, const std::string &json)
{
    HttpAnswer answer = Control(verb, path, json);
    if (answer.status < 200 || answer.status > 299)
        throw std::runtime_error("the emulator refused " + Narrow(verb) + " " + Narrow(path) + ": " + answer.body);
}

std::vector<Seen> Requests(const wchar_t *service)
{
    return kestal_test::SeenRequests(kestal_test::Emulator(), service);
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
    return answer.status == 200 ? JsonString(doc.get(), "access_token") : "";
}

} // namespace bench
