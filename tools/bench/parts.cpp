// The parts that count and watch: requests per entry, tokens over several handles, threads,
// a slow vault, the cost of logging, and memory and handles across many signs.
#include "tools/bench/parts.h"

#include <bcrypt.h>

#include <algorithm>
#include <functional>
#include <thread>

namespace bench {

json_object *SummaryJson(const Summary &s)
{
    json_object *obj = json_object_new_object();
    Put(obj, "n", Int(static_cast<long long>(s.n)));
    Put(obj, "medianMs", Num(s.median));
    Put(obj, "p90Ms", Num(s.p90));
    Put(obj, "p99Ms", Num(s.p99));
    return obj;
}

// ---- Requests per entry ------------------------------------------------------------------------
json_object *RequestsPart(Bench *bench)
{
    ProviderCopy copy(L"wire", Config{}, bench->workDir);
    json_object *rows = json_object_new_array();
    auto measure = [&](const char *entry, const std::function<void()> &run) {
        ClearRequests();
        run();
        std::vector<Seen> seen = Requests();
        json_object *row = json_object_new_object();
        Put(row, "entry", json_object_new_string(entry));
        Put(row, "login", Int(CountRequests(seen, "login")));
        Put(row, "vault", Int(CountRequests(seen, "vault")));
        Put(row, "total", Int(static_cast<long long>(seen.size())));
        json_object_array_add(rows, row);
        return static_cast<int>(seen.size());
    };
    NCRYPT_PROV_HANDLE provider = 0;
    OpenedKey key;
    std::vector<BYTE> signature;
    measure("OpenProvider", [&] { provider = copy.OpenProvider(); });
    measure("OpenKey", [&] { key = copy.OpenKey(provider, kRsa); });
    measure("SignHash, first on the handle", [&] { Sign(key, RandomBytes(32), &signature); });
    measure("SignHash", [&] { Sign(key, RandomBytes(32), &signature); });
    int listed = 0;
    const int enumRequests = measure("EnumKeys, 100 tagged keys", [&] {
        const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = copy.ksp();
        PVOID state = nullptr;
        NCryptKeyName *name = nullptr;
        for (int i = 0; i <= kEnumKeys && ksp.EnumKeys(provider, nullptr, &name, &state, NCRYPT_MACHINE_KEY_FLAG) == 0;
             ++i) {
            listed++;
            ksp.FreeBuffer(name);
        }
        if (state)
            ksp.FreeBuffer(state);
    });
    ClearRequests();
    json_object *part = json_object_new_object();
    Put(part, "entries", rows);
    Put(part, "keysListed", Int(listed));
    bench->targets.push_back({"EnumKeys of 100 tagged keys: requests", "<= 5", static_cast<double>(enumRequests),
                              enumRequests <= 5 && listed == kEnumKeys});
    return part;
}

// ---- Tokens over several provider handles ---------------------------------------------------------
json_object *TokensPart(Bench *bench)
{
    const Plan &plan = bench->plan;
    ClearRequests();
    ProviderCopy copy(L"tokens", Config{}, bench->workDir);
    std::vector<OpenedKey> keys;
    for (int h = 0; h < plan.tokenHandles; ++h)
        keys.push_back(copy.OpenProviderAndKey(kRsa));
    int failures = 0;
    std::vector<BYTE> signature;
    for (int i = 0; i < plan.tokenSigns; ++i)
        failures += Sign(keys[i % keys.size()], RandomBytes(32), &signature) != 0;
    std::vector<Seen> seen = Requests();
    ClearRequests();
    const int tokens = CountRequests(seen, "login");
    const double perThousand = 1000.0 * tokens / plan.tokenSigns;
    json_object *part = json_object_new_object();
    Put(part, "providerHandles", Int(plan.tokenHandles));
    Put(part, "signs", Int(plan.tokenSigns));
    Put(part, "failures", Int(failures));
    Put(part, "tokenRequests", Int(tokens));
    Put(part, "perThousandSigns", Num(perThousand));
    bench->targets.push_back(
        {"Token requests per 1,000 signs over " + std::to_string(plan.tokenHandles) + " provider handles", "<= 1",
         perThousand, perThousand <= 1 && failures == 0});
    return part;
}

// ---- Threads ---------------------------------------------------------------------------------------
namespace {

constexpr DWORD kStartWaitMs = 60'000;

struct ThreadRun {
    double opsPerSecond = 0;
    int signatures = 0, verified = 0;
    int maxInFlight = 0;
};

// Every thread signs its own hashes on its key (keys[t % keys.size()]); all start together.
ThreadRun RunThreads(const std::vector<OpenedKey> &keys, int threads, int signsPerThread)
{
    std::vector<std::vector<std::vector<BYTE>>> hashes(threads), signatures(threads);
    for (int t = 0; t < threads; ++t) {
        for (int s = 0; s < signsPerThread; ++s)
            hashes[t].push_back(RandomBytes(32));
        signatures[t].resize(signsPerThread);
    }
    // One manual-reset event starts every worker at once. (std::latch of mingw-w64's libstdc++
    // can miss its wake-up and leave the last waiter asleep for good.)
    HANDLE go = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            WaitForSingleObject(go, kStartWaitMs);
            for (int s = 0; s < signsPerThread; ++s)
                Sign(keys[t % keys.size()], hashes[t][s], &signatures[t][s]);
        });
    }
    const double begin = NowMs();
    SetEvent(go);
    for (std::thread &w : workers)
        w.join();
    CloseHandle(go);
    const double ms = NowMs() - begin;
    ThreadRun run;
    run.signatures = threads * signsPerThread;
    run.opsPerSecond = run.signatures * 1000.0 / ms;
    // A signature handed to the wrong thread would fail here: every hash is different.
    for (int t = 0; t < threads; ++t) {
        Verifier verifier(keys[t % keys.size()]);
        for (int s = 0; s < signsPerThread; ++s)
            run.verified += verifier.Check(hashes[t][s], signatures[t][s]);
    }
    return run;
}

json_object *ThreadRunJson(int threads, const char *handles, const ThreadRun &run)
{
    json_object *obj = json_object_new_object();
    Put(obj, "threads", Int(threads));
    Put(obj, "handles", json_object_new_string(handles));
    Put(obj, "opsPerSecond", Num(run.opsPerSecond));
    Put(obj, "signatures", Int(run.signatures));
    Put(obj, "verified", Int(run.verified));
    return obj;
}

} // namespace

json_object *ThreadsPart(Bench *bench, FILE *dat)
{
    ProviderCopy copy(L"threads", Config{}, bench->workDir);
    std::vector<OpenedKey> shared = {copy.OpenProviderAndKey(kRsa)};
    std::vector<OpenedKey> own = shared;
    std::vector<BYTE> signature;
    Sign(shared[0], RandomBytes(32), &signature); // its sign-in, before the clock runs
    json_object *rows = json_object_new_array();
    for (int threads : {1, 2, 4, 8}) {
        while (static_cast<int>(own.size()) < threads) {
            own.push_back(copy.OpenProviderAndKey(kRsa));
            Sign(own.back(), RandomBytes(32), &signature);
        }
        std::vector<OpenedKey> mine(own.begin(), own.begin() + threads);
        ThreadRun ownRun = RunThreads(mine, threads, bench->plan.signsPerThread);
        ThreadRun sharedRun = RunThreads(shared, threads, bench->plan.signsPerThread);
        json_object_array_add(rows, ThreadRunJson(threads, "own", ownRun));
        json_object_array_add(rows, ThreadRunJson(threads, "one shared", sharedRun));
        fprintf(dat, "%d %.1f %.1f\n", threads, ownRun.opsPerSecond, sharedRun.opsPerSecond);
    }
    json_object *part = json_object_new_object();
    Put(part, "key", json_object_new_string(kRsa.label));
    Put(part, "signsPerThread", Int(bench->plan.signsPerThread));
    Put(part, "runs", rows);
    return part;
}

// 8 threads on one key handle against 1 thread, with every vault answer 50 ms late.
json_object *SlowVaultPart(Bench *bench)
{
    const Plan &plan = bench->plan;
    ProviderCopy copy(L"slow", Config{}, bench->workDir);
    std::vector<OpenedKey> one = {copy.OpenProviderAndKey(kRsa)};
    std::vector<BYTE> signature;
    Sign(one[0], RandomBytes(32), &signature);
    const std::wstring vault = std::wstring(L"/vaults/") + kVault;
    ControlOrDie(L"PUT", vault, "{\"latencyMs\":" + std::to_string(plan.slowLatencyMs) + "}");
    ThreadRun single = RunThreads(one, 1, plan.slowSignsOneThread);
    ClearRequests();
    ThreadRun eight = RunThreads(one, 8, plan.slowSignsPerThread);
    for (const Seen &s : Requests(L"vault"))
        eight.maxInFlight = std::max(eight.maxInFlight, s.inFlight);
    ClearRequests();
    ControlOrDie(L"PUT", vault, "{\"latencyMs\":0}");
    json_object *part = json_object_new_object();
    Put(part, "latencyMs", Int(plan.slowLatencyMs));
    Put(part, "oneThread", ThreadRunJson(1, "one shared", single));
    json_object *eightJson = ThreadRunJson(8, "one shared", eight);
    Put(eightJson, "maxInFlight", Int(eight.maxInFlight));
    Put(part, "eightThreads", eightJson);
    Put(part, "speedup", Num(eight.opsPerSecond / single.opsPerSecond));
    return part;
}

// ---- Logging cost ------------------------------------------------------------------------------------
namespace {

double FolderBytes(const std::wstring &dir, const wchar_t *pattern)
{
    double bytes = 0;
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW((dir + L"\\" + pattern).c_str(), &found);
    if (find == INVALID_HANDLE_VALUE)
        return 0;
    do
        bytes += static_cast<double>(found.nFileSizeLow) + found.nFileSizeHigh * 4294967296.0;
    while (FindNextFileW(find, &found));
    FindClose(find);
    return bytes;
}

} // namespace

json_object *LoggingPart(Bench *bench)
{
    const Plan &plan = bench->plan;
    const std::wstring &workDir = bench->workDir;
    ProviderCopy quiet(L"log0", Config{0, 0}, workDir);
    OpenedKey quietKey = quiet.OpenProviderAndKey(kRsa);
    ProviderCopy verbose(L"log10", Config{0, 10}, workDir);
    OpenedKey verboseKey = verbose.OpenProviderAndKey(kRsa);
    const OpenedKey *keys[2] = {&quietKey, &verboseKey};
    std::vector<BYTE> signature;
    for (const OpenedKey *key : keys)
        Sign(*key, RandomBytes(32), &signature);
    const double logBefore = FolderBytes(workDir, L"*.log");
    double benchMs[2] = {}, serverMs[2] = {}, signs[2] = {};
    std::vector<double> wall[2];
    int failures = 0;
    bool cpuKnown = true;
    // Batches alternate between the two copies, so that both see the same machine.
    for (int b = 0; b < plan.logBatches; ++b) {
        for (int i = 0; i < 2; ++i) {
            const int which = (b + i) % 2;
            const CpuClock before = ReadCpu();
            for (int s = 0; s < plan.logBatchSigns; ++s) {
                std::vector<BYTE> hash = RandomBytes(32);
                const double start = NowMs();
                failures += Sign(*keys[which], hash, &signature) != 0;
                wall[which].push_back(NowMs() - start);
            }
            const CpuClock after = ReadCpu();
            cpuKnown = cpuKnown && before.known && after.known;
            benchMs[which] += after.benchMs - before.benchMs;
            serverMs[which] += after.serverMs - before.serverMs;
            signs[which] += plan.logBatchSigns;
        }
    }
    auto perSign = [&](int i) { return (benchMs[i] + serverMs[i]) / signs[i]; };
    const double extra = perSign(1) - perSign(0);
    json_object *part = json_object_new_object();
    const char *names[2] = {"level0", "level10"};
    for (int i = 0; i < 2; ++i) {
        json_object *obj = SummaryJson(Summarize(wall[i]));
        Put(obj, "cpuMsPerSign", cpuKnown ? Num(perSign(i)) : nullptr);
        Put(obj, "processCpuMsPerSign", cpuKnown ? Num(benchMs[i] / signs[i]) : nullptr);
        Put(obj, "wineserverCpuMsPerSign", cpuKnown ? Num(serverMs[i] / signs[i]) : nullptr);
        Put(part, names[i], obj);
    }
    Put(part, "failures", Int(failures));
    Put(part, "extraCpuMsPerSign", cpuKnown ? Num(extra) : nullptr);
    Put(part, "logBytesPerSign", Num((FolderBytes(workDir, L"*.log") - logBefore) / signs[1]));
    if (cpuKnown)
        bench->targets.push_back({"Level-10 logging: extra client CPU per sign (ms)", "<= 0.3", extra, extra <= 0.3});
    return part;
}

// ---- Memory and handles ------------------------------------------------------------------------------
json_object *MemoryPart(Bench *bench, FILE *dat)
{
    const Plan &plan = bench->plan;
    ProviderCopy copy(L"memory", Config{}, bench->workDir);
    OpenedKey key = copy.OpenProviderAndKey(kRsa);
    std::vector<BYTE> hash(32), signature;
    int failures = 0;
    auto signOnce = [&] {
        BCryptGenRandom(nullptr, hash.data(), static_cast<ULONG>(hash.size()), BCRYPT_USE_SYSTEM_PREFERRED_RNG);
        failures += Sign(key, hash, &signature) != 0;
    };
    for (int i = 0; i < plan.memoryWarmup; ++i)
        signOnce();
    json_object *samples = json_object_new_array();
    std::vector<MemorySample> taken;
    const double deadline = NowMs() + plan.memoryBudgetMs;
    int signs = 0;
    for (;;) {
        MemorySample m = SampleMemory();
        taken.push_back(m);
        json_object *obj = json_object_new_object();
        Put(obj, "signs", Int(signs));
        Put(obj, "committedPrivateBytes", Num(m.committedPrivateBytes));
        Put(obj, "heapBusyBytes", Num(m.heapBusyBytes));
        Put(obj, "heapBusyBlocks", Num(m.heapBusyBlocks));
        Put(obj, "handles", m.handles >= 0 ? Int(m.handles) : nullptr);
        json_object_array_add(samples, obj);
        fprintf(dat, "%d %.3f %.3f %ld\n", signs, m.committedPrivateBytes / 1048576.0, m.heapBusyBytes / 1048576.0,
                m.handles);
        if (signs >= plan.memorySigns || NowMs() >= deadline)
            break;
        for (int i = 0; i < plan.memoryEvery; ++i)
            signOnce();
        signs += plan.memoryEvery;
    }
    // The least-squares trend per 10,000 signs over the second half of the run: a leak shows as
    // a slope there, while the allocators' rounding and the one-off release of a cache early on
    // (both seen under Wine) do not.
    auto trend = [&](double (*value)(const MemorySample &)) {
        double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
        for (size_t i = taken.size() / 2; i < taken.size(); ++i) {
            const double x = static_cast<double>(i) * plan.memoryEvery, y = value(taken[i]);
            n += 1, sx += x, sy += y, sxx += x * x, sxy += x * y;
        }
        const double d = n * sxx - sx * sx;
        return d > 0 ? (n * sxy - sx * sy) / d * 10'000 : 0;
    };
    const double committed = trend([](const MemorySample &m) { return m.committedPrivateBytes; });
    const double heap = trend([](const MemorySample &m) { return m.heapBusyBytes; });
    const double handles = trend([](const MemorySample &m) { return static_cast<double>(m.handles); });
    const bool handlesKnown =
        std::all_of(taken.begin(), taken.end(), [](const MemorySample &m) { return m.handles >= 0; });
    json_object *part = json_object_new_object();
    Put(part, "key", json_object_new_string(kRsa.label));
    Put(part, "warmupSigns", Int(plan.memoryWarmup));
    Put(part, "signs", Int(signs));
    Put(part, "failures", Int(failures));
    Put(part, "committedPrivateBytesPer10000Signs", Num(committed));
    Put(part, "heapBusyBytesPer10000Signs", Num(heap));
    Put(part, "handlesPer10000Signs", handlesKnown ? Num(handles) : nullptr);
    Put(part, "samples", samples);
    bench->targets.push_back({"Committed private memory trend per 10,000 signs (KiB)", "<= 1024", committed / 1024,
                              committed <= 1024 * 1024 && signs >= 10'000});
    bench->targets.push_back(
        {"Busy heap trend per 10,000 signs (KiB)", "<= 256", heap / 1024, heap <= 256 * 1024 && signs >= 10'000});
    if (handlesKnown)
        bench->targets.push_back({"Handle trend per 10,000 signs", "<= 1", handles, handles <= 1 && signs >= 10'000});
    return part;
}

} // namespace bench
