#include "tests/harness/harness.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kestal_test;

namespace {

Bytes Dword(DWORD v) { return BytesOf(v); }

// A provider of the core with no settings.
class ProviderProperties : public VaultProviderTest {
protected:
    void SetUp() override
    {
        VaultProviderTest::SetUp();
        h_ = OpenProvider(Via::Core);
    }
    // Asks the size, then the value into a buffer of exactly that size.
    SECURITY_STATUS Get(const wchar_t *name, Bytes *value, DWORD flags = 0)
    {
        DWORD cb = 0;
        SECURITY_STATUS status = KestalKeyVaultKSPGetProviderProperty(h_, name, nullptr, 0, &cb, flags);
        value->assign(cb, 0xCC);
        return status ? status : KestalKeyVaultKSPGetProviderProperty(h_, name, value->data(), cb, &cb, flags);
    }
    SECURITY_STATUS Set(const wchar_t *name, std::wstring text, DWORD flags = 0)
    {
        return KestalKeyVaultKSPSetProviderProperty(h_, name, reinterpret_cast<PBYTE>(text.data()),
                                                    static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)), flags);
    }
    NCRYPT_PROV_HANDLE h_ = 0;
};

} // namespace

TEST_F(ProviderProperties, GetAnswersEachPropertyAndRefusesWhatItCannot)
{
    const std::pair<const wchar_t *, Bytes> rows[] = {
        {L"Impl Type", Dword(NCRYPT_IMPL_HARDWARE_FLAG)}, {L"Max Name Length", Dword(42)},
        {L"Name", WideText(KSP_PROVIDER_NAME)}, {L"Version", Dword(0x00010000)}, {L"Security Descr Support", Dword(0)}};
    for (const auto &[name, expected] : rows) {
        Bytes value;
        EXPECT_EQ(Get(name, &value), 0) << Narrow(name);
        EXPECT_EQ(value, expected) << Narrow(name);
        EXPECT_EQ(Get(name, &value, NCRYPT_SILENT_FLAG), 0) << Narrow(name);
    }

    BYTE buffer[256];
    DWORD cb = 0;
    auto get = [&](const wchar_t *name, DWORD cbOutput, DWORD flags = 0) {
        return KestalKeyVaultKSPGetProviderProperty(h_, name, buffer, cbOutput, &cb, flags);
    };
    EXPECT_EQ(get(L"Name", 10), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(cb, sizeof(KSP_PROVIDER_NAME)); // the size needed is still told
    EXPECT_EQ(get(L"Version", 3), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(get(L"Version", 4, 1), NTE_BAD_FLAGS);
    for (const std::wstring &unknown : std::vector<std::wstring>{L"name", L"Unique Name", std::wstring(64, L'x')})
        EXPECT_EQ(get(unknown.c_str(), 256), NTE_NOT_SUPPORTED) << Narrow(unknown);
    EXPECT_EQ(get(std::wstring(65, L'x').c_str(), 256), NTE_INVALID_PARAMETER);
    EXPECT_EQ(get(nullptr, 256), NTE_INVALID_PARAMETER);
    EXPECT_EQ(KestalKeyVaultKSPGetProviderProperty(h_, L"Name", buffer, 256, nullptr, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(get(L"Use Context", 256), NTE_INTERNAL_ERROR) << "never set";
}

TEST_F(ProviderProperties, UseContextIsTheOnlyPropertyThatCanBeSet)
{
    EXPECT_EQ(Set(L"Use Context", L"first"), 0);
    EXPECT_EQ(Set(L"Use Context", L"signing web traffic", NCRYPT_SILENT_FLAG), 0);
    Bytes value;
    EXPECT_EQ(Get(L"Use Context", &value), 0);
    EXPECT_EQ(value, WideText(L"signing web traffic"));

    EXPECT_EQ(Set(L"use context", L"x"), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Set(L"Name", L"x"), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Set(L"Use Context", L"x", 1), NTE_BAD_FLAGS);
    EXPECT_EQ(Set(std::wstring(65, L'x').c_str(), L"x"), NTE_INVALID_PARAMETER);
    EXPECT_EQ(Set(nullptr, L"x"), NTE_INVALID_PARAMETER);
    EXPECT_EQ(KestalKeyVaultKSPSetProviderProperty(h_, L"Use Context", nullptr, 4, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(Get(L"Use Context", &value), 0); // refused sets leave the value alone
    EXPECT_EQ(value, WideText(L"signing web traffic"));
}

TEST_F(ProviderProperties, HandlesThatAreNotLiveProvidersAreRefused)
{
    // Copies of a live provider's fixed part with one thing wrong, and a freed provider.
    KSP_PROVIDER shortOne = *KspProviderFromHandle(h_), otherKind = shortOne;
    shortOne.cbLength = sizeof(KSP_PROVIDER) - 1;
    otherKind.dwMagic = 0x7866ABCF;
    NCRYPT_PROV_HANDLE freed = 0;
    ASSERT_EQ(KestalKeyVaultKSPOpenProvider(&freed, KSP_PROVIDER_NAME, 0), 0);
    ASSERT_EQ(KestalKeyVaultKSPFreeProvider(freed), 0);
    for (NCRYPT_PROV_HANDLE h : {NCRYPT_PROV_HANDLE(0), reinterpret_cast<NCRYPT_PROV_HANDLE>(&shortOne),
                                 reinterpret_cast<NCRYPT_PROV_HANDLE>(&otherKind), freed}) {
        DWORD cb = 0;
        BYTE buffer[8] = {};
        EXPECT_EQ(KestalKeyVaultKSPGetProviderProperty(h, L"Version", buffer, sizeof(buffer), &cb, 0), NTE_INVALID_HANDLE);
        EXPECT_EQ(KestalKeyVaultKSPSetProviderProperty(h, L"Use Context", buffer, sizeof(buffer), 0), NTE_INVALID_HANDLE);
        EXPECT_EQ(KestalKeyVaultKSPFreeProvider(h), NTE_INVALID_HANDLE);
    }
}
