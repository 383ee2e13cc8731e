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

std::wstring VaultNameOf(const wchar_t *pattern)
{
    KvcOwner kvc(KVCNew(pattern, 2, L"tenant-1", L"client-1", L"not-a-real-secret", L"cert-1", TRUE, 1, 1, 0));
    return kvc && kvc->kvName && kvc->kvName->cStr ? kvc->kvName->cStr : L"<absent>";
}

} // namespace

// Vault names already in use must keep meaning the same keys, so the encoding is pinned both ways.
TEST_F(KeyNames, EncodingTableRoundTripsBothWays)
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
}

TEST_F(KeyNames, NamesTooLongOrMalformedAreRefusedCleanly)
{
    WCHAR out[KVC_ENCODED_NAME_CHARS];
    EXPECT_EQ(KVCConvertClearKeyNameToEncoded(std::wstring(42, L'a').c_str(), out, nullptr), 0);
    EXPECT_EQ(KVCConvertClearKeyNameToEncoded(nullptr, out, nullptr), 0);

    WCHAR clear[KVC_CLEAR_NAME_CHARS];
    const std::wstring fill(40, L'z');
    EXPECT_EQ(KVCConvertEncodedKeyNameToClear((L"-P{A" + fill).c_str(), clear, nullptr), 0); // "{" is never a digit
    EXPECT_EQ(KVCConvertEncodedKeyNameToClear((L"-PBAAAAPBA" + fill).c_str(), clear, nullptr), 1);
    EXPECT_STREQ(clear, L"A"); // a zero value ends the name
}

// A tag naming another key type is ignored, and a key record can be freed twice.
TEST_F(KeyNames, AnRsaKeyTaggedAsEcStaysRsa)
{
    const std::string json = R"({"key":{"kid":"https://kv.vault.azure.net/keys/k/78deebed173b48e48f55abf87ed4cf71",)"
                             R"("kty":"RSA","key_ops":["sign"],"n":")" +
                             std::string(341, 'A') + R"(w","e":"AQAB"},"tags":{"AlgID":"ECDSA_P256"}})";
    ParsedKey key;
    ASSERT_EQ(KVCParseJSONKey(kEncodingTable[1].second.c_str(), json.c_str(), &key), 1);
    EXPECT_STREQ(key.AlgID, L"RSA");
    KVCFreeKVKey(&key); // and again when it goes out of scope
    EXPECT_TRUE(!key.kty && !key.e && !key.n && !key.key_ops);
}

TEST_F(KeyNames, OddBodiesAndArgumentsNeverFault)
{
    ParsedKey key;
    EXPECT_EQ(KVCParseJSONKey((L"-Az" + std::wstring(40, L'z')).c_str(), "<html>Bad Gateway</html>", &key), 1);
    EXPECT_STREQ(key.clearName, L"InvalidName");
    EXPECT_TRUE(!key.kty && !key.n && key.AlgID[0] == 0);

    const char *wrongTypes = "{\"key\":{\"kid\":5,\"kty\":[\"RSA\"],\"n\":12,\"key_ops\":\"sign\",\"crv\":{}},\"tags\":[1]}";
    ASSERT_EQ(KVCParseJSONKey(L"k", wrongTypes, &key), 1);
    EXPECT_TRUE(!key.kty && !key.n && !key.key_ops && !key.crv && key.version[0] == 0 && key.AlgID[0] == 0);
    std::string longKid = "{\"key\":{\"kid\":\"https://kv/keys/k/" + std::string(200, '7') + "\"}}";
    ASSERT_EQ(KVCParseJSONKey(L"k", longKid.c_str(), &key), 1);
    EXPECT_EQ(std::wstring(key.version), std::wstring(128, L'7'));

    EXPECT_EQ(KVCParseJSONKey(L"k", nullptr, &key), 0);
    EXPECT_EQ(KVCParseJSONKey(L"k", "{}", nullptr), 0);
}

// A wrong vault name would hide every key: dots go, letters are lowered, at most 24 characters stay.
TEST_F(KeyNames, VaultNamePatternsExpandAndReduce)
{
    EXPECT_EQ(VaultNameOf(L"My.Vault%x-Name"), L"myvault-name");
    EXPECT_EQ(VaultNameOf(L"ABCDEFGHIJ.KLMNOPQRST.UVWXYZ0123"), L"abcdefghijklmnopqrstuvwx");
    EXPECT_EQ(VaultNameOf(L"trailing%"), L"trailing");
    wchar_t dns[257] = {};
    DWORD n = ARRAYSIZE(dns);
    ASSERT_TRUE(GetComputerNameExW(ComputerNameDnsFullyQualified, dns, &n) && n > 0);
    EXPECT_EQ(VaultNameOf(L"%D"), VaultNameOf(dns)); // this computer's DNS name
    EXPECT_EQ(KVCNew(nullptr, 1, L"t", L"c", L"s", L"", TRUE, 1, 1, 0), nullptr);
}
