#include "tests/harness/harness.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace kestal_test;

namespace {

class ProviderProperties : public ::testing::Test {
protected:
    void SetUp() override
    {
        ClearSettings(HKEY_LOCAL_MACHINE);
        ClearSettings(HKEY_CURRENT_USER);
        ASSERT_EQ(KestalKeyVaultKSPOpenProvider(&h_, KSP_PROVIDER_NAME, 0), 0);
    }
    void TearDown() override
    {
        if (h_)
            KestalKeyVaultKSPFreeProvider(h_);
    }
    SECURITY_STATUS Get(const wchar_t *name, std::vector<BYTE> *value, DWORD flags = 0)
    {
        DWORD cb = 0;
        SECURITY_STATUS status = KestalKeyVaultKSPGetProviderProperty(h_, name, nullptr, 0, &cb, flags);
        if (status != 0)
            return status;
        value->assign(cb, 0xCC);
        return KestalKeyVaultKSPGetProviderProperty(h_, name, value->data(), cb, &cb, flags);
    }
    SECURITY_STATUS Set(const wchar_t *name, const std::wstring &text, DWORD flags = 0)
    {
        return KestalKeyVaultKSPSetProviderProperty(h_, name, reinterpret_cast<PBYTE>(const_cast<wchar_t *>(text.c_str())),
                                                    static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)), flags);
    }
    NCRYPT_PROV_HANDLE h_ = 0;
};

std::vector<BYTE> Dword(DWORD v)
{
    return std::vector<BYTE>(reinterpret_cast<BYTE *>(&v), reinterpret_cast<BYTE *>(&v) + sizeof(v));
}

std::vector<BYTE> Wide(const wchar_t *s)
{
    return std::vector<BYTE>(reinterpret_cast<const BYTE *>(s), reinterpret_cast<const BYTE *>(s + wcslen(s) + 1));
}

} // namespace

TEST_F(ProviderProperties, EachPropertyHasItsSizeAndValue)
{
    const struct {
        const wchar_t *name;
        std::vector<BYTE> value;
    } rows[] = {
        {L"Impl Type", Dword(NCRYPT_IMPL_HARDWARE_FLAG)},
        {L"Max Name Length", Dword(42)},
        {L"Name", Wide(KSP_PROVIDER_NAME)},
        {L"Version", Dword(0x00010000)},
        {L"Security Descr Support", Dword(0)},
    };
    for (const auto &row : rows) {
        std::vector<BYTE> value;
        EXPECT_EQ(Get(row.name, &value), 0) << Narrow(row.name);
        EXPECT_EQ(value, row.value) << Narrow(row.name);
        EXPECT_EQ(Get(row.name, &value, NCRYPT_SILENT_FLAG), 0) << Narrow(row.name);
    }
}

TEST_F(ProviderProperties, GetRefusesWhatItCannotAnswer)
{
    BYTE buffer[256];
    DWORD cb = 0;
    auto get = [&](const wchar_t *name, DWORD cbOutput, DWORD *pcb, DWORD flags) {
        return KestalKeyVaultKSPGetProviderProperty(h_, name, buffer, cbOutput, pcb, flags);
    };
    EXPECT_EQ(get(L"Name", 10, &cb, 0), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(cb, sizeof(KSP_PROVIDER_NAME)); // the size needed is still told
    EXPECT_EQ(get(L"Version", 3, &cb, 0), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(get(L"Version", 4, &cb, 1), NTE_BAD_FLAGS);
    EXPECT_EQ(get(L"name", 256, &cb, 0), NTE_NOT_SUPPORTED);
    EXPECT_EQ(get(L"Unique Name", 256, &cb, 0), NTE_NOT_SUPPORTED);
    EXPECT_EQ(get(std::wstring(64, L'x').c_str(), 256, &cb, 0), NTE_NOT_SUPPORTED);
    EXPECT_EQ(get(std::wstring(65, L'x').c_str(), 256, &cb, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(get(nullptr, 256, &cb, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(get(L"Name", 256, nullptr, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(get(L"Use Context", 256, &cb, 0), NTE_INTERNAL_ERROR);
}

TEST_F(ProviderProperties, UseContextIsTheOnlyPropertyThatCanBeSet)
{
    EXPECT_EQ(Set(L"Use Context", L"first"), 0);
    EXPECT_EQ(Set(L"Use Context", L"signing web traffic", NCRYPT_SILENT_FLAG), 0);
    std::vector<BYTE> value;
    EXPECT_EQ(Get(L"Use Context", &value), 0);
    EXPECT_EQ(value, Wide(L"signing web traffic"));

    EXPECT_EQ(Set(L"use context", L"x"), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Set(L"Name", L"x"), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Set(L"Use Context", L"x", 1), NTE_BAD_FLAGS);
    EXPECT_EQ(Set(std::wstring(65, L'x').c_str(), L"x"), NTE_INVALID_PARAMETER);
    EXPECT_EQ(Set(nullptr, L"x"), NTE_INVALID_PARAMETER);
    EXPECT_EQ(KestalKeyVaultKSPSetProviderProperty(h_, L"Use Context", nullptr, 4, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(Get(L"Use Context", &value), 0); // refused sets leave the value alone
    EXPECT_EQ(value, Wide(L"signing web traffic"));
}

TEST_F(ProviderProperties, HandlesThatAreNotLiveProvidersAreRefused)
{
    // Copies of a live provider's fixed part with one thing wrong, and a freed provider.
    KSP_PROVIDER shortOne = *KspProviderFromHandle(h_);
    shortOne.cbLength = sizeof(KSP_PROVIDER) - 1;
    KSP_PROVIDER otherKind = *KspProviderFromHandle(h_);
    otherKind.dwMagic = 0x7866ABCF;
    NCRYPT_PROV_HANDLE freed = 0;
    ASSERT_EQ(KestalKeyVaultKSPOpenProvider(&freed, KSP_PROVIDER_NAME, 0), 0);
    ASSERT_EQ(KestalKeyVaultKSPFreeProvider(freed), 0);

    const NCRYPT_PROV_HANDLE bad[] = {0, reinterpret_cast<NCRYPT_PROV_HANDLE>(&shortOne),
                                      reinterpret_cast<NCRYPT_PROV_HANDLE>(&otherKind), freed};
    for (NCRYPT_PROV_HANDLE h : bad) {
        DWORD cb = 0;
        BYTE buffer[8] = {};
        EXPECT_EQ(KestalKeyVaultKSPGetProviderProperty(h, L"Version", buffer, sizeof(buffer), &cb, 0), NTE_INVALID_HANDLE);
        EXPECT_EQ(KestalKeyVaultKSPSetProviderProperty(h, L"Use Context", buffer, sizeof(buffer), 0), NTE_INVALID_HANDLE);
        EXPECT_EQ(KestalKeyVaultKSPFreeProvider(h), NTE_INVALID_HANDLE);
    }
}

TEST(ProviderThroughTheRouter, OpensAnswersAndFreesThroughTheTable)
{
    ClearSettings(HKEY_LOCAL_MACHINE);
    ClearSettings(HKEY_CURRENT_USER);
    std::string why;
    auto router = KspRouter::LoadDll(&why);
    ASSERT_TRUE(router) << why;
    NCRYPT_PROV_HANDLE h = 0;
    ASSERT_EQ(router->ksp().OpenProvider(&h, KSP_PROVIDER_NAME, 0), 0);
    wchar_t name[64] = {};
    DWORD cb = 0;
    EXPECT_EQ(router->ksp().GetProviderProperty(h, L"Name", reinterpret_cast<PBYTE>(name), sizeof(name), &cb, 0), 0);
    EXPECT_STREQ(name, KSP_PROVIDER_NAME);
    EXPECT_EQ(router->ksp().FreeProvider(h), 0);
}
