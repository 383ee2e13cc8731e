#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "kvclient/kvc.h"
#include "tests/harness/harness.h"

using namespace kestal_test;

namespace {

const std::pair<std::wstring, std::wstring> kEncodingTable[] = { // clear name, vault name
    {L"web-server-01", L"web-server-01"},
    {L"My Key", L"-bBAVCAgAAZBABCAVCA" + std::wstring(24, L'z')},
    {L"-lead", L"-tAAICABCAvBAACA" + std::wstring(27, L'z')},
    {L"caf\u00e9", L"-xBAvBACCAhEA" + std::wstring(30, L'z')},
    {L"\u4e2d", L"-NAI" + std::wstring(39, L'z')},
    {std::wstring(15, L'A') + L" ", L"-PBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAgAA"},
};

class KeyNames : public VaultProviderTest {
protected:
    bool Logged(const std::string &line) const { return std::ranges::count(Log(), line) > 0; }
};

// A KeyBundle as the vault returns it: the key's members, and the tags as JSON text.
std::string Bundle(const std::string &key, const std::string &tags = "")
{
    return "{\"key\":{\"kid\":\"https://kv.vault.azure.net/keys/k/78deebed173b48e48f55abf87ed4cf71\"," + key +
           "},\"attributes\":{\"enabled\":true}" + (tags.empty() ? "" : ",\"tags\":" + tags) + "}";
}
const std::string kRsa = "\"kty\":\"RSA\",\"key_ops\":[\"encrypt\",\"decrypt\",\"sign\",\"verify\",\"wrapKey\","
                         "\"unwrapKey\"],\"n\":\"" + std::string(341, 'A') + "w\",\"e\":\"AQAB\"";
std::string Ec(const std::string &kty, const std::string &crv, const std::string &ops, int coordChars)
{
    std::string coord(coordChars, 'A');
    return "\"kty\":\"" + kty + "\",\"key_ops\":[" + ops + "],\"crv\":\"" + crv + "\",\"x\":\"" + coord + "\",\"y\":\"" +
           coord + "\"";
}

struct ParsedKey : KVKey {
    ParsedKey() { memset(static_cast<KVKey *>(this), 0, sizeof(KVKey)); }
    ~ParsedKey() { KVCFreeKVKey(this); }
};

} // namespace

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

TEST_F(KeyNames, EdgeNamesAreCopiedDecodedOrRefusedCleanly)
{
    WCHAR out[KVC_ENCODED_NAME_CHARS];
    EXPECT_EQ(KVCConvertClearKeyNameToEncoded(L"", out, nullptr), 1);
    EXPECT_STREQ(out, L"");
    EXPECT_EQ(KVCConvertClearKeyNameToEncoded(std::wstring(41, L'a').c_str(), out, nullptr), 1);
    EXPECT_EQ(KVCConvertClearKeyNameToEncoded(std::wstring(42, L'a').c_str(), out, nullptr), 0);
    EXPECT_TRUE(Logged("KVCConvertClearKeyNameToEncoded Name Too Long " + std::string(42, 'a') + " 1"));
    EXPECT_EQ(KVCConvertClearKeyNameToEncoded(std::wstring(43, L' ').c_str(), out, nullptr), 0);
    EXPECT_EQ(KVCConvertClearKeyNameToEncoded(nullptr, out, nullptr), 0);

    const std::wstring fill(40, L'z');
    const struct { std::wstring vaultName; int result; std::wstring clear; } decodes[] = {
        {L"-Az" + fill, 0, L""}, // filler inside a group
        {L"-P{A" + fill, 0, L""}, // above "x": never a digit
        {L"-PBy" + fill, 0, L""}, // a "y": taken as clear, too long to copy
        {std::wstring(42, L'a'), 0, L""}, // taken as clear, too long to copy
        {L"-PBAAAAPBA" + fill, 1, L"A"}, // a zero value ends the name
        {L"-PBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAPBAgA", 1, std::wstring(14, L'A') + L" "}, // cut by the end
    };
    for (const auto &d : decodes) {
        WCHAR clear[KVC_CLEAR_NAME_CHARS];
        EXPECT_EQ(KVCConvertEncodedKeyNameToClear(d.vaultName.c_str(), clear, nullptr), d.result) << Narrow(d.vaultName);
        EXPECT_EQ(clear, d.clear) << Narrow(d.vaultName);
    }
    EXPECT_TRUE(Logged("KVCConvertEncodedKeyNameToClear Name Too Long 1"));
}

TEST_F(KeyNames, ParsesVaultKeysAndDerivesTheCngAlgorithm)
{
    const struct { std::string json; const wchar_t *algId; DWORD isEC, xSize; } cases[] = {
        {Bundle(kRsa, "{\"AlgID\":\"ECDSA_P256\"}"), L"RSA", 0, 0},
        {Bundle(kRsa), L"", 0, 0},
        {Bundle(Ec("EC-HSM", "P-256", "\"deriveKey\"", 43), "{}"), L"ECDH_P256", 1, 32},
        {Bundle(Ec("EC", "P-521", "\"sign\"", 88), "{\"AlgID\":\"ECDH\"}"), L"ECDH_P521", 1, 66},
        {Bundle(Ec("EC", "Ed25519", "\"sign\"", 43), "{\"AlgID\":\"ECDH_K\"}"), L"ECDH_K", 1, 32},
        {Bundle(Ec("EC", "P-384", "\"deriveKey\"", 64), "{\"AlgID\":\"ECDSA_P384_EXTRA_LONG\"}"), L"ECDH_P384", 1, 48},
        {Bundle(Ec("EC", "P-256", "\"deriveKey\"", 43), "{\"AlgID\":7}"), L"ECDH_P256", 1, 32},
        {Bundle(Ec("ec", "P-256", "\"sign\"", 43), "{}"), L"RSA", 0, 32},
    };
    for (const auto &c : cases) {
        ParsedKey key;
        ASSERT_EQ(KVCParseJSONKey(kEncodingTable[1].second.c_str(), c.json.c_str(), &key), 1);
        EXPECT_EQ(key.valid, 1u);
        EXPECT_STREQ(key.AlgID, c.algId) << c.json;
        EXPECT_EQ(key.isEC, c.isEC) << c.json;
        EXPECT_EQ(key.x_siz, c.xSize) << c.json;
        EXPECT_STREQ(key.clearName, L"My Key");
        EXPECT_STREQ(key.version, L"78deebed173b48e48f55abf87ed4cf71");
    }
    ParsedKey rsa;
    ASSERT_EQ(KVCParseJSONKey(L"web-server-01", Bundle(kRsa).c_str(), &rsa), 1);
    KVCFreeKVKey(&rsa); // and again when it goes out of scope: freeing leaves nothing to free twice
    EXPECT_TRUE(!rsa.kty && !rsa.e && !rsa.n && !rsa.key_ops);
}

TEST_F(KeyNames, OddBodiesAndArgumentsNeverFault)
{
    ParsedKey key;
    EXPECT_EQ(KVCParseJSONKey((L"-Az" + std::wstring(40, L'z')).c_str(), "<html>Bad Gateway</html>", &key), 1);
    EXPECT_EQ(key.valid, 1u);
    EXPECT_STREQ(key.clearName, L"InvalidName");
    EXPECT_TRUE(!key.kty && !key.n && key.AlgID[0] == 0);

    const char *wrongTypes = "{\"key\":{\"kid\":5,\"kty\":[\"RSA\"],\"n\":12,\"key_ops\":\"sign\",\"crv\":{}},\"tags\":[1]}";
    ASSERT_EQ(KVCParseJSONKey(L"k", wrongTypes, &key), 1);
    EXPECT_TRUE(!key.kty && !key.n && !key.key_ops && !key.crv && key.version[0] == 0 && key.AlgID[0] == 0);
    ASSERT_EQ(KVCParseJSONKey(L"k", "{\"key\":\"RSA\",\"tags\":{}}", &key), 1);
    EXPECT_STREQ(key.AlgID, L"RSA");
    std::string longKid = "{\"key\":{\"kid\":\"https://kv/keys/k/" + std::string(200, '7') + "\"}}";
    ASSERT_EQ(KVCParseJSONKey(L"k", longKid.c_str(), &key), 1);
    EXPECT_EQ(std::wstring(key.version), std::wstring(128, L'7'));

    EXPECT_EQ(KVCParseJSONKey(std::wstring(129, L'a').c_str(), "{}", &key), 0);
    EXPECT_EQ(KVCParseJSONKey(L"k", "{}", nullptr), 0);
    EXPECT_EQ(KVCParseJSONKey(nullptr, "{}", &key), 0);
    EXPECT_EQ(KVCParseJSONKey(L"k", nullptr, &key), 0);
    for (const char *line : {"KVCParseJSONKey KeyName Too Long 1", "KVCParseJSONKey theKey NULL 1",
                             "KVCParseJSONKey KeyName NULL 1", "KVCParseJSONKey KeyJSON NULL 1"})
        EXPECT_TRUE(Logged(line)) << line;
}
