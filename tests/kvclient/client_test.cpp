#include "tests/harness/harness.h"

#include <gtest/gtest.h>

#include <cwctype>
#include <string>

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

KvcOwner NewClient(const wchar_t *pattern, DWORD authn = 2)
{
    return KvcOwner(KVCNew(pattern, authn, L"tenant-1", L"client-1", L"not-a-real-secret", L"cert-1", TRUE, 1, 1, 0));
}

std::wstring VaultNameOf(const wchar_t *pattern)
{
    KvcOwner kvc = NewClient(pattern);
    return kvc && kvc->kvName && kvc->kvName->cStr ? kvc->kvName->cStr : L"<absent>";
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

} // namespace

TEST(Kvc, VaultNamePatternsExpandAndReduce)
{
    const std::pair<const wchar_t *, const wchar_t *> cases[] = {
        {L"%G", L"oidguid"},
        {L"My.Vault%x-Name", L"myvault-name"},
        {L"ABCDEFGHIJ.KLMNOPQRST.UVWXYZ0123", L"abcdefghijklmnopqrstuvwx"}, // 30 left after the dots go
        {L"trailing%", L"trailing"},
        {L"%d%g", L""}, // only upper-case D and G are placeholders
        {L"%%", L""},
    };
    for (const auto &[pattern, expected] : cases)
        EXPECT_EQ(VaultNameOf(pattern), expected) << Narrow(pattern);

    wchar_t dns[257] = {};
    DWORD n = ARRAYSIZE(dns);
    ASSERT_TRUE(GetComputerNameExW(ComputerNameDnsFullyQualified, dns, &n) && n > 0);
    EXPECT_EQ(VaultNameOf(L"%D"), AsVaultName(dns)); // this computer's DNS name
    EXPECT_EQ(VaultNameOf(L""), AsVaultName(dns));   // an empty pattern is "%D"
    EXPECT_EQ(VaultNameOf(L"%D%D%D"), AsVaultName(std::wstring(dns) + dns + dns));
    EXPECT_EQ(KVCNew(nullptr, 1, L"t", L"c", L"s", L"", TRUE, 1, 1, 0), nullptr);
}
