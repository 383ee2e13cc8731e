// The bench's parts, as kspbench.cpp runs them: each measures one thing through copies of the
// provider and the emulated Azure, adds its lines to the targets table and answers its JSON.
#pragma once

#include <cstdio>

#include "tools/bench/bench.h"

namespace bench {

inline constexpr wchar_t kVault[] = L"kestaltest";
inline constexpr wchar_t kFreshVault[] = L"kestaltest2"; // the ReuseConnections 0 rows', see signhash.cpp
inline constexpr char kTenant[] = "6b1f0e2d-3c4a-4b5e-8f70-1a2b3c4d5e60";
inline constexpr char kClientId[] = "0c9e8d7f-6a5b-4c3d-9e2f-1a0b2c3d4e70";
inline constexpr char kSecret[] = "bench-only-client-secret";
inline constexpr int kEnumKeys = 100; // tagged keys in the vault, the two signing keys included

inline const BenchKey kRsa = {"RSA-2048", "bench-rsa", false, R"("kty":"RSA","key_size":2048,"tags":{"AlgID":"RSA"})"};
inline const BenchKey kP256 = {"P-256", "bench-p256", true, R"("kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"})"};
inline const BenchKey *const kKeys[] = {&kRsa, &kP256};

// How much of each part runs. Every loop is bounded in count, the long ones in time too.
struct Plan {
    int warmupRounds = 20;
    int rounds = 300;
    double latencyBudgetMs = 180'000;
    int tokenHandles = 10;
    int tokenSigns = 1000;
    int signsPerThread = 40;
    int slowSignsOneThread = 40;
    int slowSignsPerThread = 20; // of 8 threads
    int slowLatencyMs = 50;
    int logBatches = 15;
    int logBatchSigns = 20;
    int memoryWarmup = 200;
    int memorySigns = 10'000;
    int memoryEvery = 1000;
    double memoryBudgetMs = 150'000;
    std::string only; // one part alone, by its name in results.json
};

// A line of the targets table: what, the bound, what was measured, and whether it holds.
struct Target {
    std::string what, bound;
    double measured;
    bool met;
};

// What every part is given: the plan, a folder for the DLL copies and their logs, the targets.
struct Bench {
    Plan plan;
    std::wstring workDir;
    std::vector<Target> targets;
};

inline json_object *Num(double value) { return json_object_new_double(value); }
inline json_object *Int(long long value) { return json_object_new_int64(value); }
inline void Put(json_object *obj, const char *member, json_object *value)
{
    json_object_object_add(obj, member, value);
}
json_object *SummaryJson(const Summary &s);

// The parts; those with a plot write its data to dat.
json_object *RequestsPart(Bench *bench);
json_object *SignHashPart(Bench *bench, FILE *dat);
json_object *TokensPart(Bench *bench);
json_object *ThreadsPart(Bench *bench, FILE *dat);
json_object *SlowVaultPart(Bench *bench);
json_object *LoggingPart(Bench *bench);
json_object *MemoryPart(Bench *bench, FILE *dat);

} // namespace bench
