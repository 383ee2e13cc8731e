// SignHash against the wire: the provider's sign request through copies of the DLL, each round
// interleaved with a raw WinHTTP client sending the same request.
#include "tools/bench/parts.h"

#include <objbase.h>

#include <stdexcept>

namespace bench {

namespace {

std::string NewRequestId()
{
    GUID guid;
    wchar_t text[39] = {};
    if (FAILED(CoCreateGuid(&guid)) || !StringFromGUID2(guid, text, ARRAYSIZE(text)))
        return "";
    return Narrow(text);
}

// The provider's sign request as the vault saw it, sent again by plain WinHTTP: the same path,
// the same headers in the same order (with the raw client's own token and request id) and the
// same body for the same hash.
struct RawSign {
    std::wstring path;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string alg;

    HttpRequest Build(const std::vector<BYTE> &hash, const std::string &token) const
    {
        HttpRequest request{L"POST", path, L"", "{\"alg\":\"" + alg + "\",\"value\":\"" + ToBase64(hash) + "\"}"};
        for (const auto &[name, value] : headers) {
            std::string v = _stricmp(name.c_str(), "Authorization") == 0       ? "Bearer " + token
                            : _stricmp(name.c_str(), "client-request-id") == 0 ? NewRequestId()
                                                                               : value;
            request.headers += Widen(name + ": " + v + "\r\n");
        }
        return request;
    }
};

// WinHTTP writes these itself.
bool WinHttpOwnHeader(const std::string &name)
{
    for (const char *own : {"Host", "User-Agent", "Content-Length", "Connection"})
        if (_stricmp(name.c_str(), own) == 0)
            return true;
    return false;
}

std::vector<std::string> SentHeaderNames(const Seen &seen)
{
    std::vector<std::string> names;
    for (const auto &[name, value] : seen.headers)
        if (!WinHttpOwnHeader(name))
            names.push_back(name);
    return names;
}

// The last sign request the vault saw, as a template.
RawSign TemplateOf(const Seen &seen)
{
    RawSign raw{Widen(seen.url), {}, ""};
    for (const auto &header : seen.headers)
        if (!WinHttpOwnHeader(header.first))
            raw.headers.push_back(header);
    Json body(json_tokener_parse(seen.body.c_str()));
    raw.alg = JsonString(body.get(), "alg");
    return raw;
}

// The signature bytes of a vault's sign answer; empty when it is not one.
std::vector<BYTE> SignatureOf(const HttpAnswer &answer)
{
    Json doc(json_tokener_parse(answer.body.c_str()));
    return answer.status == 200 ? FromBase64(JsonString(doc.get(), "value")) : std::vector<BYTE>();
}

enum Row { kDllFresh, kRawFresh, kDllReuse, kRawKept, kRows };
constexpr const char *kRowNames[kRows] = {"DLL, ReuseConnections 0", "raw WinHTTP, fresh connection",
                                          "DLL, ReuseConnections 1", "raw WinHTTP, kept connection"};
constexpr const char *kRowLabels[kRows] = {"DLL reuse 0", "raw fresh", "DLL reuse 1", "raw kept"}; // the plot's

// A DLL row and the raw row measured against it. Wine keeps one connection pool per process,
// keyed by host name (case-sensitively), port and TLS, and every request takes a pooled
// connection when there is one, even a request that will not keep it. So that no row takes
// another row's kept connection, each pair talks to a vault of its own, and the raw kept client
// names its host with a capital letter (host names are case-insensitive everywhere else).
struct RowPair {
    Config config; // its vault included
    std::wstring rawHost;
    bool rawKeeps;
    std::unique_ptr<ProviderCopy> copy;
    std::vector<OpenedKey> keys; // one per kKeys entry
    std::vector<RawSign> raws;
    std::vector<std::unique_ptr<Verifier>> verifiers;
    std::unique_ptr<HttpConnection> kept;
};

struct RowResult {
    std::vector<double> ms;
    int failures = 0, verified = 0, newConnections = 0, counted = 0;
};

// Opens the pair's keys, and takes the raw row's template from one sign through the DLL; a raw
// sign of the same hash right after shows whether both requests are the same.
bool PreparePair(RowPair *pair, const std::wstring &workDir, const std::string &token, const wchar_t *tag)
{
    pair->copy = std::make_unique<ProviderCopy>(tag, pair->config, workDir);
    if (pair->rawKeeps)
        pair->kept = std::make_unique<HttpConnection>(pair->rawHost, 443, true);
    bool same = true;
    for (const BenchKey *benchKey : kKeys) {
        pair->keys.push_back(pair->copy->OpenProviderAndKey(*benchKey));
        pair->verifiers.push_back(std::make_unique<Verifier>(pair->keys.back()));
        std::vector<BYTE> hash = RandomBytes(32), signature;
        ClearRequests();
        if (Sign(pair->keys.back(), hash, &signature) != 0)
            throw std::runtime_error("the first SignHash failed");
        std::vector<Seen> dll = Requests(L"vault");
        if (dll.empty())
            throw std::runtime_error("the vault saw no sign request");
        pair->raws.push_back(TemplateOf(dll.back()));
        HttpRequest request = pair->raws.back().Build(hash, token);
        pair->kept ? pair->kept->Send(request) : SendFresh(pair->rawHost, 443, request);
        const std::vector<Seen> both = Requests(L"vault");
        const Seen &raw = both.back();
        same = same && raw.url == dll.back().url && raw.body == dll.back().body &&
               SentHeaderNames(raw) == SentHeaderNames(dll.back());
    }
    return same;
}

// One sign of the hash with key k, by the DLL or the raw client of the pair; its time and
// outcome go to *result when one is given.
void SignOnce(RowPair *pair, bool dll, size_t k, const std::vector<BYTE> &hash, const std::string &token,
              RowResult *result)
{
    std::vector<BYTE> signature;
    const double start = NowMs();
    bool ok = true;
    if (dll) {
        ok = Sign(pair->keys[k], hash, &signature) == 0;
    } else {
        HttpRequest request = pair->raws[k].Build(hash, token);
        signature = SignatureOf(pair->kept ? pair->kept->Send(request) : SendFresh(pair->rawHost, 443, request));
    }
    const double ms = NowMs() - start;
    if (!result)
        return;
    result->ms.push_back(ms);
    result->failures += !ok || signature.empty();
    result->verified += pair->verifiers[k]->Check(hash, signature);
}

// The vault's log, in the rounds' order, tells which rows really used a new connection; left
// uncounted when the log holds more or fewer requests than the rounds made.
void CountNewConnections(RowResult (&results)[2][kRows], int rounds)
{
    std::vector<Seen> seen = Requests(L"vault");
    if (seen.size() != static_cast<size_t>(rounds) * 2 * kRows)
        return;
    for (size_t e = 0; e < seen.size(); ++e) {
        RowResult &r = results[(e / kRows) % 2][(e / (2 * kRows) + e % kRows) % kRows];
        r.counted++;
        r.newConnections += seen[e].newConnection;
    }
}

// One key's rows and ratios; their summaries in s, their targets added.
json_object *KeyJson(const BenchKey &benchKey, const RowResult (&results)[kRows], Summary (&s)[kRows],
                     std::vector<Target> *targets)
{
    json_object *rows = json_object_new_array();
    for (int row = 0; row < kRows; ++row) {
        const RowResult &r = results[row];
        s[row] = Summarize(r.ms);
        json_object *obj = SummaryJson(s[row]);
        Put(obj, "row", json_object_new_string(kRowNames[row]));
        Put(obj, "failures", Int(r.failures));
        Put(obj, "verified", Int(r.verified));
        Put(obj, "newConnectionShare", r.counted ? Num(static_cast<double>(r.newConnections) / r.counted) : nullptr);
        json_object_array_add(rows, obj);
    }
    const double freshRatio = s[kDllFresh].median / s[kRawFresh].median;
    const double keptRatio = s[kDllReuse].median / s[kRawKept].median;
    json_object *key = json_object_new_object();
    Put(key, "rows", rows);
    Put(key, "dllOverRawFresh", Num(freshRatio));
    Put(key, "dllOverRawKept", Num(keptRatio));
    const std::string label = benchKey.label;
    targets->push_back({label + " SignHash median, ReuseConnections 0 / raw fresh connection", "<= 1.1", freshRatio,
                        freshRatio <= 1.1});
    targets->push_back(
        {label + " SignHash median, ReuseConnections 1 / raw kept connection", "<= 1.5", keptRatio, keptRatio <= 1.5});
    return key;
}

} // namespace

json_object *SignHashPart(Bench *bench, FILE *dat)
{
    const Plan &plan = bench->plan;
    const std::string token = SignIn(kTenant, kClientId, kSecret);
    if (token.empty())
        throw std::runtime_error("the raw client could not sign in");
    RowPair pairs[2] = {
        {Config{0, 0, kFreshVault}, std::wstring(kFreshVault) + L".vault.azure.net", false},
        {Config{1, 0, kVault}, L"Kestaltest.vault.azure.net", true},
    };
    const bool freshSame = PreparePair(&pairs[0], bench->workDir, token, L"reuse0");
    const bool sameRequest = PreparePair(&pairs[1], bench->workDir, token, L"reuse1") && freshSame;

    // Each round gives every row the same hash, and starts with the next row, so that drift and
    // the order within a round weigh on every row alike.
    RowResult results[2][kRows];
    auto round = [&](int r, bool record) {
        for (size_t k = 0; k < std::size(kKeys); ++k) {
            std::vector<BYTE> hash = RandomBytes(32);
            for (int i = 0; i < kRows; ++i) {
                const int row = (r + i) % kRows;
                SignOnce(&pairs[row / 2], row % 2 == 0, k, hash, token, record ? &results[k][row] : nullptr);
            }
        }
    };
    for (int r = 0; r < plan.warmupRounds; ++r)
        round(r, false);
    ClearRequests();
    const double deadline = NowMs() + plan.latencyBudgetMs;
    int rounds = 0;
    while (rounds < plan.rounds && NowMs() < deadline)
        round(rounds++, true);
    CountNewConnections(results, rounds);
    ClearRequests();

    json_object *part = json_object_new_object();
    Put(part, "rounds", Int(rounds));
    Put(part, "warmupRounds", Int(plan.warmupRounds));
    Put(part, "rawRequestSameAsDll", json_object_new_boolean(sameRequest));
    json_object *keys = json_object_new_object();
    Summary s[2][kRows];
    for (size_t k = 0; k < std::size(kKeys); ++k)
        Put(keys, kKeys[k]->label, KeyJson(*kKeys[k], results[k], s[k], &bench->targets));
    Put(part, "keys", keys);
    for (int row = 0; row < kRows; ++row)
        fprintf(dat, "\"%s\" %.3f %.3f %.3f %.3f %.3f %.3f\n", kRowLabels[row], s[0][row].median, s[0][row].p90,
                s[0][row].p99, s[1][row].median, s[1][row].p90, s[1][row].p99);
    return part;
}

} // namespace bench
