// kspbench: how close the provider comes to the wire. Inside the test world it signs with
// RSA-2048 and P-256 keys of the emulated vault through copies of the DLL, interleaved with a
// raw WinHTTP client sending the same request; counts the requests each entry costs; signs from
// 1 to 8 threads; and watches memory and handles across 10,000 signs. It writes results.json,
// the plot's data files and summary.md into the current folder.
//
//   kspbench.exe [--quick] [--only PART]
// --quick runs a few rounds of everything and --only one part, to try the bench itself.
#include "tools/bench/parts.h"

#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>

using namespace bench;

namespace {

Plan QuickPlan()
{
    Plan p;
    p.warmupRounds = 2;
    p.rounds = 10;
    p.tokenSigns = 50;
    p.signsPerThread = 4;
    p.slowSignsOneThread = 4;
    p.slowSignsPerThread = 2;
    p.logBatches = 2;
    p.logBatchSigns = 5;
    p.memoryWarmup = 10;
    p.memorySigns = 100;
    p.memoryEvery = 50;
    return p;
}

// ---- Setup ---------------------------------------------------------------------------------
std::wstring MakeWorkDir()
{
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::wstring dir = std::wstring(temp) + L"kspbench-" + std::to_wstring(GetCurrentProcessId());
    CreateDirectoryW(dir.c_str(), nullptr);
    return dir;
}

void SeedVault()
{
    ControlOrDie(L"POST", L"/reset");
    ControlOrDie(L"POST", L"/apps",
                 "{\"tenant\":\"" + std::string(kTenant) + "\",\"clientId\":\"" + kClientId + "\",\"secret\":\"" +
                     kSecret + "\"}");
    auto seed = [](const wchar_t *vault, const std::string &name, const char *members) {
        ControlOrDie(L"POST", std::wstring(L"/vaults/") + vault + L"/keys",
                     "{\"name\":\"" + name + "\"," + members + "}");
    };
    for (const BenchKey *key : kKeys) {
        seed(kVault, key->name, key->seed);
        seed(kFreshVault, key->name, key->seed);
    }
    // The rest of the listing: cheap EC keys, tagged as the provider tags what it creates.
    for (int i = static_cast<int>(std::size(kKeys)); i < kEnumKeys; ++i) {
        char name[32];
        snprintf(name, sizeof(name), "bench-enum-%03d", i);
        seed(kVault, name, kP256.seed);
    }
    WriteConnectionSettings(kTenant, kClientId, kSecret);
}

// ---- Results -----------------------------------------------------------------------------------------
json_object *MachineJson()
{
    json_object *obj = json_object_new_object();
    SYSTEM_INFO info;
    GetNativeSystemInfo(&info);
    Put(obj, "cpus", Int(info.dwNumberOfProcessors));
    using WineVersionFn = const char *(__cdecl *)(void);
    auto wine = reinterpret_cast<WineVersionFn>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version")));
    Put(obj, "wine", wine ? json_object_new_string(wine()) : nullptr);
    char host[512] = {}; // the Linux host, as scripts/bench.sh describes it
    GetEnvironmentVariableA("KESTAL_BENCH_HOST", host, sizeof(host));
    Put(obj, "host", json_object_new_string(host));
    Put(obj, "world",
        json_object_new_string("emulated Azure (Node.js) on loopback in the test world's network "
                               "namespace, quick ACKs on the local routes"));
    return obj;
}

void WriteSummary(json_object *results, const std::vector<Target> &targets, FILE *out)
{
    fprintf(out, "| Target | Bound | Measured | Met |\n|---|---|---|---|\n");
    for (const Target &t : targets)
        fprintf(out, "| %s | %s | %.3g | %s |\n", t.what.c_str(), t.bound.c_str(), t.measured, t.met ? "yes" : "no");
    json_object *sign = json_object_object_get(results, "signHash");
    json_object *slow = json_object_object_get(results, "slowVault");
    if (!sign || !slow)
        return; // a partial run
    fprintf(out, "\nSignHash over %d rounds (ms):\n\n| Key | Client | median | p90 | p99 |\n|---|---|---|---|---|\n",
            json_object_get_int(json_object_object_get(sign, "rounds")));
    json_object_object_foreach(json_object_object_get(sign, "keys"), label, key)
    {
        json_object *rows = json_object_object_get(key, "rows");
        for (size_t i = 0; i < json_object_array_length(rows); ++i) {
            json_object *row = json_object_array_get_idx(rows, i);
            auto num = [&](const char *m) { return json_object_get_double(json_object_object_get(row, m)); };
            fprintf(out, "| %s | %s | %.2f | %.2f | %.2f |\n", label, JsonString(row, "row").c_str(), num("medianMs"),
                    num("p90Ms"), num("p99Ms"));
        }
    }
    auto ops = [&](const char *m) {
        return json_object_get_double(json_object_object_get(json_object_object_get(slow, m), "opsPerSecond"));
    };
    fprintf(out,
            "\nWith every vault answer %d ms late: 1 thread %.1f signs/s; 8 threads on one key handle %.1f signs/s.\n",
            json_object_get_int(json_object_object_get(slow, "latencyMs")), ops("oneThread"), ops("eightThreads"));
}

struct FileClose {
    void operator()(FILE *f) const { fclose(f); }
};
using File = std::unique_ptr<FILE, FileClose>;

File OpenOut(const char *name)
{
    File f(fopen(name, "w"));
    if (!f)
        throw std::runtime_error(std::string("cannot write ") + name);
    return f;
}

json_object *TargetsJson(const std::vector<Target> &targets)
{
    json_object *list = json_object_new_array();
    for (const Target &t : targets) {
        json_object *obj = json_object_new_object();
        Put(obj, "what", json_object_new_string(t.what.c_str()));
        Put(obj, "bound", json_object_new_string(t.bound.c_str()));
        Put(obj, "measured", Num(t.measured));
        Put(obj, "met", json_object_new_boolean(t.met));
        json_object_array_add(list, obj);
    }
    return list;
}

int Run(const Plan &plan)
{
    Bench bench{plan, MakeWorkDir(), {}};
    ClearSettings();
    SeedVault();
    Json results(json_object_new_object());
    Put(results.get(), "machine", MachineJson());
    {
        File latency = OpenOut("latency.dat"), threads = OpenOut("threads.dat"), memory = OpenOut("memory.dat");
        auto part = [&](const char *name, const std::function<json_object *()> &run) {
            if (!plan.only.empty() && plan.only != name)
                return;
            fprintf(stderr, "kspbench: %s\n", name);
            const double start = NowMs();
            json_object *obj = run();
            Put(obj, "seconds", Num((NowMs() - start) / 1000));
            fprintf(stderr, "kspbench: %s took %.1f s\n", name, (NowMs() - start) / 1000);
            Put(results.get(), name, obj);
        };
        part("requestsPerEntry", [&] { return RequestsPart(&bench); });
        part("signHash", [&] { return SignHashPart(&bench, latency.get()); });
        part("tokens", [&] { return TokensPart(&bench); });
        part("threads", [&] { return ThreadsPart(&bench, threads.get()); });
        part("slowVault", [&] { return SlowVaultPart(&bench); });
        part("logging", [&] { return LoggingPart(&bench); });
        part("memory", [&] { return MemoryPart(&bench, memory.get()); });
    }
    Put(results.get(), "targets", TargetsJson(bench.targets));
    ClearSettings();
    File json = OpenOut("results.json");
    fprintf(json.get(), "%s\n",
            json_object_to_json_string_ext(results.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
    WriteSummary(results.get(), bench.targets, OpenOut("summary.md").get());
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Plan plan;
    for (int i = 1; i < argc; ++i)
        if (strcmp(argv[i], "--quick") == 0)
            plan = QuickPlan();
    for (int i = 1; i + 1 < argc; ++i)
        if (strcmp(argv[i], "--only") == 0)
            plan.only = argv[i + 1];
    try {
        return Run(plan);
    } catch (const std::exception &e) {
        fprintf(stderr, "kspbench: %s\n", e.what());
        ClearSettings();
        return 1;
    }
}
