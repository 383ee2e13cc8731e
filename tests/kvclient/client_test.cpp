#include "tests/harness/harness.h"

#include <gtest/gtest.h>

#include <cwctype>
#include <string>

#include "kvclient/kvc.h"

namespace {

struct KvcDelete {
    void operator()(KVC *kvc) const { KVCDelete(kvc); }
};
using Kvc = std::unique_ptr<KVC, KvcDelete>;

Kvc NewClient(const wchar_t *pattern, DWORD authn = 2)
{
    return Kvc(KVCNew(pattern, authn, L"tenant-1", L"client-1", L"not-a-real-secret", L"cert-1", TRUE, 1, 1, 0));
}

std::wstring Text(const BldStr *s)
{
    return s && s->cStr ? std::wstring(s->cStr) : std::wstring(L"<absent>");
}

std::wstring ComputerDnsName()
{
    wchar_t dns[257] = {};
    DWORD n = ARRAYSIZE(dns);
    EXPECT_TRUE(GetComputerNameExW(ComputerNameDnsFullyQualified, dns, &n));
    return dns;
}

// A vault name as Azure wants it: no dots, lower case, at most 24 characters.
std::wstring AsVaultName(const std::wstring &text)
{
    std::wstring name;
    for (wchar_t c : text)
        if (c != L'.' && name.size() < 24)
            name += static_cast<wchar_t>(std::towlower(c));
    return name;
}

struct VaultNameCase {
    const wchar_t *pattern;
    const wchar_t *expected;
};

} // namespace

TEST(Kvc, VaultNamePatternsExpandAndReduce)
{
    const VaultNameCase cases[] = {
        {L"%G", L"oidguid"},
        {L"My.Vault%x-Name", L"myvault-name"},
        {L"Vault.%Q.Name", L"vaultname"},
        {L"ABCDEFGHIJ.KLMNOPQRST.UVWXYZ0123", L"abcdefghijklmnopqrstuvwx"}, // 30 left after the dots go
        {L"kv-%G", L"kv-oidguid"},
        {L"trailing%", L"trailing"},
        {L"%d%g", L""}, // only upper-case D and G are placeholders
        {L"%%", L""},
    };
    for (const auto &c : cases) {
        Kvc kvc = NewClient(c.pattern);
        ASSERT_NE(kvc, nullptr) << kestal_test::Narrow(c.pattern);
        EXPECT_EQ(Text(kvc->kvName), c.expected) << "pattern " << kestal_test::Narrow(c.pattern);
    }
}

TEST(Kvc, PercentDIsThisComputersDnsName)
{
    std::wstring dns = ComputerDnsName();
    ASSERT_FALSE(dns.empty());
    EXPECT_EQ(Text(NewClient(L"%D")->kvName), AsVaultName(dns));
    EXPECT_EQ(Text(NewClient(L"")->kvName), AsVaultName(dns)); // an empty pattern is "%D"
    EXPECT_EQ(Text(NewClient(L"%D%D%D")->kvName), AsVaultName(dns + dns + dns));
    EXPECT_EQ(Text(NewClient(L"kv-%D")->kvName), AsVaultName(L"kv-" + dns));
}

TEST(Kvc, NullPatternCreatesNoClient)
{
    EXPECT_EQ(KVCNew(nullptr, 1, L"t", L"c", L"s", L"", TRUE, 1, 1, 0), nullptr);
}

TEST(Kvc, AuthenticationTypeZeroIsStoredAsOne)
{
    EXPECT_EQ(NewClient(L"v", 0)->authn, 1u);
    EXPECT_EQ(NewClient(L"v", 1)->authn, 1u);
    EXPECT_EQ(NewClient(L"v", 3)->authn, 3u);
}

TEST(Kvc, LoginUrlIsThePublicAuthorityAndTenantAndCanBeRebuilt)
{
    Kvc kvc = NewClient(L"v");
    EXPECT_EQ(KVCGetLoginUrl(kvc.get()), 1);
    EXPECT_EQ(Text(kvc->loginUrl), L"https://login.microsoftonline.com/tenant-1");
    EXPECT_EQ(Text(kvc->resource), L"https://vault.azure.net");
    EXPECT_EQ(KVCGetLoginUrl(kvc.get()), 1);
    EXPECT_EQ(Text(kvc->loginUrl), L"https://login.microsoftonline.com/tenant-1");
}

TEST(Kvc, DeleteReleasesAFilledClientAndIgnoresNull)
{
    Kvc kvc = NewClient(L"v");
    KVCGetLoginUrl(kvc.get());
    kvc->accessToken = BldStrNewStr(L"token-value");
    kvc->tokenType = BldStrNewStr(L"Bearer");
    kvc->lastResponse = static_cast<char *>(calloc(8, 1));
    KVCDelete(kvc.release());
    KVCDelete(nullptr);
}
