#include "kvclient/kvc.h"
#include "tests/harness/harness.h"

using namespace kestal_test;

namespace {

const std::pair<std::wstring, std::wstring> kEncodingTable[] = { // clear name, vault name
    {L"web-server-01", L"web-server-01"},
    {L"My Key", L"-bBAVCAgAAZBABCAVCA" + std::wstring(24, L'z')},
    {L"-lead", L"-tAAICABCAvBAACA" + std::wstring(27, L'z')},
    {L"\u4e2d", L"-NAI" + std::wstring(39, L'z')},
    {std::wstring(15, L'A') + L" ", L"-PBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAgAA"},
};

using KeyNames = VaultProviderTest;

struct ParsedKey : KVKey {
    ParsedKey() { memset(static_cast<KVKey *>(this), 0, sizeof(KVKey)); }
    ~ParsedKey() { KVCFreeKVKey(this); }
};

} // namespace

// Vault names already in use must keep meaning the same keys, so the encoding is pinned both ways;
// a name that cannot be one is refused, never cut short.
TEST_F(KeyNames, EncodingTableRoundTripsBothWaysAndBadNamesAreRefused)
{
    for (const auto &[clearName, vaultName] : kEncodingTable) {
        WCHAR encoded[KVC_ENCODED_NAME_CHARS], clear[KVC_CLEAR_NAME_CHARS];
        DWORD fEncoded = 7, fDecoded = 7;
        ASSERT_EQ(KVCConvertClearKeyNameToEncoded(clearName.c_str(), encoded, &fEncoded), 1);
        EXPECT_EQ(encoded, vaultName);
        ASSERT_EQ(KVCConvertEncodedKeyNameToClear(vaultName.c_str(), clear, &fDecoded), 1);
        EXPECT_EQ(clear, clearName);
        EXPECT_EQ(fEncoded, clearName != vaultName ? 1u : 0u);
        EXPECT_EQ(fDecoded, fEncoded);
    }
    WCHAR out[KVC_ENCODED_NAME_CHARS], clear[KVC_CLEAR_NAME_CHARS];
    EXPECT_EQ(KVCConvertClearKeyNameToEncoded(std::wstring(42, L'a').c_str(), out, nullptr), 0);
    const std::wstring fill(40, L'z');
    EXPECT_EQ(KVCConvertEncodedKeyNameToClear((L"-P{A" + fill).c_str(), clear, nullptr), 0); // "{" is never a digit
}

TEST_F(KeyNames, OddBodiesAndArgumentsNeverFault)
{
    ParsedKey key;
    EXPECT_EQ(KVCParseJSONKey((L"-Az" + std::wstring(40, L'z')).c_str(), "<html>Bad Gateway</html>", &key), 1);
    EXPECT_STREQ(key.clearName, L"InvalidName");
    EXPECT_TRUE(!key.kty && !key.n && key.AlgID[0] == 0);

    const char *wrongTypes = R"({"key":{"kid":5,"kty":["RSA"],"n":12,"key_ops":"sign","crv":{}},"tags":[1]})";
    ASSERT_EQ(KVCParseJSONKey(L"k", wrongTypes, &key), 1);
    EXPECT_TRUE(!key.kty && !key.n && !key.key_ops && !key.crv && key.version[0] == 0 && key.AlgID[0] == 0);
    EXPECT_EQ(KVCParseJSONKey(L"k", nullptr, &key), 0);
}

// A KeyVault setting as administrators type it (upper case, dots, patterns) names the vault the
// service knows, in lower case.
TEST_F(KeyNames, VaultNamePatternsExpandAndReduce)
{
    auto vaultName = [](const wchar_t *pattern) {
        KvcOwner kvc(KVCNew(pattern, 2, L"tenant-1", L"client-1", L"not-a-real-secret", L"cert-1", TRUE, 1, 1, 0));
        return std::wstring(kvc && kvc->kvName ? kvc->kvName->cStr : L"<absent>");
    };
    EXPECT_EQ(vaultName(L"My.Vault%x-Name"), L"myvault-name");
    EXPECT_EQ(vaultName(L"trailing%"), L"trailing");
    wchar_t dns[257] = {};
    DWORD n = ARRAYSIZE(dns);
    ASSERT_TRUE(GetComputerNameExW(ComputerNameDnsFullyQualified, dns, &n) && n > 0);
    EXPECT_EQ(vaultName(L"%D"), vaultName(dns)); // this computer's DNS name
}
