#include "tests/harness/harness.h"

#include <functional>

using namespace kestal_test;

namespace {

constexpr DWORD kMachine = NCRYPT_MACHINE_KEY_FLAG;
const std::string kMyKeyEncoded = "-bBAVCAgAAZBABCAVCA" + std::string(24, 'z'); // "My Key"

// Machine keys in "kestaltest", user keys in "kestaltest2", both as plain vault keys.
class OpenEnum : public VaultProviderTest {
protected:
    void SetUp() override
    {
        VaultProviderTest::SetUp();
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
        UseVault(HKEY_CURRENT_USER, L"kestaltest2");
    }
};

} // namespace

TEST_F(OpenEnum, OpenKeyTakesAlgorithmAndLengthFromTheVaultKeyOfItsScope)
{
    const struct { const char *name, *members; DWORD flags; const wchar_t *algorithm; DWORD bits; } rows[] = {
        {.name = "rsa2048", .members = R"("kty":"RSA","key_size":2048)", .flags = kMachine, .algorithm = L"RSA",
         .bits = 2048},
        {.name = "p384", .members = R"("kty":"EC","crv":"P-384","tags":{"AlgID":"ECDSA_P384"})",
         .flags = NCRYPT_SILENT_FLAG, .algorithm = L"ECDSA_P384", .bits = 384},
        {.name = "p521", .members = R"("kty":"EC","crv":"P-521","key_ops":["sign"],"tags":{"owner":"ops"})",
         .flags = kMachine, .algorithm = L"ECDSA_P521", .bits = 521},
    };
    NCRYPT_PROV_HANDLE provider = OpenProvider();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        SeedKey(emulator, row.flags & kMachine ? L"kestaltest" : L"kestaltest2", row.name, row.members);
        NCRYPT_KEY_HANDLE h = 0, other = 0;
        ASSERT_EQ(Ksp().OpenKey(provider, &h, Widen(row.name).c_str(), 0, row.flags), 0);
        EXPECT_EQ(Ksp().OpenKey(provider, &other, Widen(row.name).c_str(), 0, row.flags ^ kMachine), NTE_NOT_FOUND);
        wchar_t algorithm[32] = {};
        DWORD bits = 0, cb = 0;
        Ksp().GetKeyProperty(provider, h, NCRYPT_ALGORITHM_PROPERTY, reinterpret_cast<BYTE *>(algorithm),
                             sizeof(algorithm), &cb, 0);
        EXPECT_STREQ(algorithm, row.algorithm);
        Ksp().GetKeyProperty(provider, h, NCRYPT_LENGTH_PROPERTY, reinterpret_cast<BYTE *>(&bits), 4, &cb, 0);
        EXPECT_EQ(bits, row.bits);
    }
}

TEST_F(OpenEnum, EnumKeysWalksEveryPageReadsOnlyUntaggedKeysAndForgetsAFreedState)
{
    NCRYPT_PROV_HANDLE provider = OpenProvider();
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = Ksp();
    NCryptKeyName *name = nullptr;
    PVOID state = nullptr;
    SeedKey(emulator, L"kestaltest", "alpha");
    SeedKey(emulator, L"kestaltest", kMyKeyEncoded, R"("kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"})");
    SeedKey(emulator, L"kestaltest", "beta", R"("kty":"EC","crv":"P-384")");
    SeedKey(emulator, L"kestaltest", "-Az" + std::string(40, 'A')); // a "z" inside a digit group: left out
    SetPageSizes(emulator, L"kestaltest", {2, 1, 1});
    std::vector<std::wstring> seen;
    SECURITY_STATUS status;
    while ((status = ksp.EnumKeys(provider, nullptr, &name, &state, kMachine | NCRYPT_SILENT_FLAG)) == 0) {
        seen.push_back(std::wstring(name->pszName) + L":" + name->pszAlgid);
        EXPECT_EQ(name->dwFlags, kMachine);
        EXPECT_EQ(ksp.FreeBuffer(name), 0);
    }
    EXPECT_EQ(status, NTE_NO_MORE_ITEMS);
    EXPECT_EQ(ksp.FreeBuffer(state), 0);
    EXPECT_EQ(ksp.EnumKeys(provider, nullptr, &name, &state, 0), NTE_INVALID_PARAMETER); // freed: no longer known
    EXPECT_EQ(seen, (std::vector<std::wstring>{L"My Key:ECDSA_P256", L"alpha:RSA", L"beta:ECDH_P384"}));
    const std::string list = "GET /keys?api-version=2016-10-01", next = list + "&$skiptoken=";
    std::vector<std::string> calls = VaultCalls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0], list);
    EXPECT_EQ(calls[1].rfind(next, 0), 0u) << calls[1];
    // The listing's "AlgID" tag names the tagged key's algorithm: only the others are read.
    for (const auto &[name, reads] : {std::pair{kMyKeyEncoded, 0}, {std::string("alpha"), 1}, {std::string("beta"), 1}})
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "GET /keys/" + name + "?api-version=2016-10-01"), reads)
            << name;
}

TEST_F(OpenEnum, AlgorithmsOnOfferByOperation)
{
    NCRYPT_PROV_HANDLE provider = OpenProvider();
    struct Case {
        DWORD operations;
        const wchar_t *names; // "name class operations" per entry, or a status
    } cases[] = {
        {0, L"RSA 3 20,ECDSA_P256 5 16,ECDSA_P384 5 16,ECDSA_P521 5 16,ECDH_P256 4 24,ECDH_P384 4 24,ECDH_P521 4 24,"},
        {8, L"0x80090029"},
    };
    for (const Case &c : cases) {
        DWORD count = 0;
        NCryptAlgorithmName *list = nullptr;
        SECURITY_STATUS status = Ksp().EnumAlgorithms(provider, c.operations, &count, &list, NCRYPT_SILENT_FLAG);
        wchar_t text[512] = {};
        if (status != 0)
            swprintf(text, 512, L"0x%08lX", static_cast<unsigned long>(status));
        for (DWORD i = 0; i < count; ++i)
            swprintf(text + wcslen(text), 64, L"%ls %lu %lu,", list[i].pszName, list[i].dwClass,
                     list[i].dwAlgOperations);
        EXPECT_STREQ(text, c.names) << c.operations;
        EXPECT_EQ(Ksp().FreeBuffer(list), 0);
    }
    for (const wchar_t *name : {L"RSA", L"ECDSA_P384", L"ECDH_P521"})
        EXPECT_EQ(Ksp().IsAlgSupported(provider, name, NCRYPT_SILENT_FLAG), 0) << Narrow(name);
    for (const wchar_t *name : {L"rsa", L"ECDSA", L"ECDSA_P192", L""})
        EXPECT_EQ(Ksp().IsAlgSupported(provider, name, 0), NTE_NOT_SUPPORTED) << Narrow(name);
}

TEST_F(OpenEnum, EntriesRefuseBadHandlesArgumentsAndFlags)
{
    NCRYPT_PROV_HANDLE p = OpenProvider();
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = Ksp();
    NCRYPT_KEY_HANDLE h = 0;
    NCryptKeyName *name = nullptr;
    PVOID state = nullptr;
    const std::pair<std::function<SECURITY_STATUS()>, SECURITY_STATUS> cases[] = {
        {[&] { return ksp.OpenKey(0, &h, L"alpha", 0, 0); }, NTE_INVALID_HANDLE},
        {[&] { return ksp.OpenKey(p, nullptr, L"alpha", 0, 0); }, NTE_INVALID_PARAMETER},
        {[&] { return ksp.EnumKeys(p, nullptr, &name, nullptr, 0); }, NTE_INVALID_PARAMETER},
        {[&] { return ksp.EnumKeys(p, nullptr, &name, &state, NCRYPT_OVERWRITE_KEY_FLAG); }, NTE_BAD_FLAGS},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(cases[i].first(), cases[i].second) << "row " << i;
}
