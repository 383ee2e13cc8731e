// Clocks, memory and handle counts of the bench's own process, and percentiles. Under Wine
// GetProcessMemoryInfo and GetProcessHandleCount answer 0, so memory is summed from a walk of
// the address space and of every heap, and handles are counted in the system's handle table.
// GetProcessTimes counts in 10 ms ticks and leaves out the wineserver, which does the registry
// and file work of every logged line, so CPU time is read from Linux's schedstat instead.
#include "tools/bench/bench.h"

#include <bcrypt.h>
#include <wincrypt.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace bench {

namespace {

constexpr LONG kInfoLengthMismatch = static_cast<LONG>(0xC0000004);
constexpr ULONG kSystemHandleInformation = 16;
constexpr size_t kMaxHandleTableBytes = 64u << 20;
constexpr DWORD kMaxHeaps = 256;
constexpr long kMaxHeapEntries = 50'000'000; // a corrupt walk still ends

struct HandleEntry {
    ULONG ownerPid;
    BYTE objectType;
    BYTE flags;
    USHORT value;
    PVOID object;
    ACCESS_MASK access;
};
struct HandleTable {
    ULONG count;
    HandleEntry entries[1];
};
using NtQuerySystemInformationFn = LONG(WINAPI *)(ULONG, PVOID, ULONG, PULONG);

double CommittedPrivateBytes()
{
    double total = 0;
    MEMORY_BASIC_INFORMATION info;
    for (const BYTE *p = nullptr; VirtualQuery(p, &info, sizeof(info)) == sizeof(info);) {
        if (info.State == MEM_COMMIT && info.Type == MEM_PRIVATE)
            total += static_cast<double>(info.RegionSize);
        const BYTE *next = static_cast<const BYTE *>(info.BaseAddress) + info.RegionSize;
        if (next <= p)
            break;
        p = next;
    }
    return total;
}

void WalkHeaps(MemorySample *sample)
{
    HANDLE heaps[kMaxHeaps];
    DWORD n = std::min<DWORD>(GetProcessHeaps(kMaxHeaps, heaps), kMaxHeaps);
    for (DWORD i = 0; i < n; ++i) {
        if (!HeapLock(heaps[i]))
            continue;
        PROCESS_HEAP_ENTRY entry = {};
        for (long seen = 0; seen < kMaxHeapEntries && HeapWalk(heaps[i], &entry); ++seen) {
            if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) {
                sample->heapBusyBytes += entry.cbData;
                sample->heapBusyBlocks += 1;
            }
        }
        HeapUnlock(heaps[i]);
    }
}

long OwnHandles()
{
    auto query = reinterpret_cast<NtQuerySystemInformationFn>(
        reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    if (!query)
        return -1;
    for (size_t cb = 1u << 20; cb <= kMaxHandleTableBytes; cb *= 2) {
        std::vector<BYTE> buffer(cb);
        ULONG needed = 0;
        LONG status = query(kSystemHandleInformation, buffer.data(), static_cast<ULONG>(cb), &needed);
        if (status == kInfoLengthMismatch)
            continue;
        if (status != 0)
            return -1;
        const auto *table = reinterpret_cast<const HandleTable *>(buffer.data());
        const size_t fit = (cb - offsetof(HandleTable, entries)) / sizeof(HandleEntry);
        long own = 0;
        for (ULONG i = 0; i < table->count && i < fit; ++i)
            own += table->entries[i].ownerPid == GetCurrentProcessId();
        return own;
    }
    return -1;
}

// A small file of /proc, through the Z: drive that Wine maps to the Linux root.
std::string ReadProcFile(const std::wstring &path)
{
    std::string text;
    HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return text;
    char chunk[512];
    for (DWORD got = 0; text.size() < 4096 && ReadFile(file, chunk, sizeof(chunk), &got, nullptr) && got > 0;)
        text.append(chunk, got);
    CloseHandle(file);
    return text;
}

// The Linux process id (as a name in /proc) of the process whose command name begins with comm
// ("wineserver64" is a wineserver too); "" when none. The test world's PID namespace holds a
// handful of processes, one bench and one server.
std::wstring LinuxPidOf(const std::string &comm)
{
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW(L"Z:\\proc\\*", &found);
    if (find == INVALID_HANDLE_VALUE)
        return L"";
    std::wstring pid;
    do {
        if (found.cFileName[0] >= L'1' && found.cFileName[0] <= L'9' &&
            ReadProcFile(std::wstring(L"Z:\\proc\\") + found.cFileName + L"\\comm").rfind(comm, 0) == 0)
            pid = found.cFileName;
    } while (pid.empty() && FindNextFileW(find, &found));
    FindClose(find);
    return pid;
}

// Time on a CPU of every thread of a Linux process, in nanoseconds as schedstat counts it.
double TaskCpuMs(const std::wstring &pid)
{
    const std::wstring tasks = L"Z:\\proc\\" + pid + L"\\task\\";
    double ms = 0;
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW((tasks + L"*").c_str(), &found);
    if (find == INVALID_HANDLE_VALUE)
        return 0;
    do {
        if (found.cFileName[0] >= L'1' && found.cFileName[0] <= L'9')
            ms += strtod(ReadProcFile(tasks + found.cFileName + L"\\schedstat").c_str(), nullptr) / 1e6;
    } while (FindNextFileW(find, &found));
    FindClose(find);
    return ms;
}

} // namespace

double NowMs()
{
    static const double perMs = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return static_cast<double>(f.QuadPart) / 1000.0;
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) / perMs;
}

CpuClock ReadCpu()
{
    static const std::wstring bench = LinuxPidOf("kspbench.exe"), server = LinuxPidOf("wineserver");
    CpuClock clock;
    clock.known = !bench.empty() && !server.empty();
    if (clock.known) {
        clock.benchMs = TaskCpuMs(bench);
        clock.serverMs = TaskCpuMs(server);
    }
    return clock;
}

std::vector<BYTE> RandomBytes(DWORD cb)
{
    std::vector<BYTE> bytes(cb);
    BCryptGenRandom(nullptr, bytes.data(), cb, BCRYPT_USE_SYSTEM_PREFERRED_RNG);
    return bytes;
}

MemorySample SampleMemory()
{
    MemorySample sample;
    sample.committedPrivateBytes = CommittedPrivateBytes();
    WalkHeaps(&sample);
    sample.handles = OwnHandles();
    return sample;
}

Summary Summarize(std::vector<double> values)
{
    Summary s;
    s.n = values.size();
    if (values.empty())
        return s;
    std::sort(values.begin(), values.end());
    auto rank = [&](double q) {
        return values[std::min(values.size() - 1, static_cast<size_t>(std::ceil(q * values.size())) - 1)];
    };
    s.median = rank(0.5);
    s.p90 = rank(0.9);
    s.p99 = rank(0.99);
    return s;
}

} // namespace bench
