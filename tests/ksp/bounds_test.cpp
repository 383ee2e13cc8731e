#include "tests/harness/harness.h"

#include <wincrypt.h>

using namespace kestal_test;

namespace {

constexpr DWORD kMachine = NCRYPT_MACHINE_KEY_FLAG;

std::string B64(size_t bytes, BYTE fill) { return ToBase64(std::vector<BYTE>(bytes, fill)); }

// Machine keys of vault "kestaltest": plain keys, or vault certificates after UseCertificates().
class Bounds : public VaultKeyTest {
protected:
    void UseCertificates()
    {
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest", 0);
        provider = OpenProvider();
    }
    void Answer(const std::string &method, const std::string &path, const std::string &response)
    {
        ScriptAnswers(emulator, "vault", "[" + response + "]", method, path);
    }
    SECURITY_STATUS CreateAndFinalize(const std::wstring &name)
    {
        NCRYPT_KEY_HANDLE h = 0;
        SECURITY_STATUS status = Ksp().CreatePersistedKey(provider, &h, L"RSA", name.c_str(), 0, kMachine);
        return status ? status : Ksp().FinalizeKey(provider, h, 0);
    }
    SECURITY_STATUS Open(const std::wstring &name)
    {
        NCRYPT_KEY_HANDLE h = 0;
        SECURITY_STATUS status = Ksp().OpenKey(provider, &h, name.c_str(), 0, kMachine);
        return status ? status : Ksp().FreeKey(provider, h);
    }
};

} // namespace

TEST_F(Bounds, SignaturesAreWholeBytesOfTheKeysLength)
{
    NCRYPT_KEY_HANDLE rsa = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    const struct { std::string value; DWORD cbBuffer; SECURITY_STATUS want; } rows[] = {
        {.value = B64(257, 0x7F), .want = NTE_INVALID_PARAMETER},
        {.value = B64(255, 0x7F), .cbBuffer = 255, .want = NTE_FAIL}, // no room for the padded form
        {.value = B64(255, 0x7F), .cbBuffer = 300, .want = 0},
    };
    std::vector<BYTE> padded(257, 0x7F); // the modulus length, a zero in front, nothing written beyond
    padded[0] = 0, padded[256] = 0xEE;
    for (const auto &row : rows) {
        Answer("POST", "", R"({"status":200,"body":{"value":")" + row.value + "\"}}");
        BCRYPT_PKCS1_PADDING_INFO padding = {L"SHA256"};
        std::vector<BYTE> hash(32, 1), signature(300, 0xEE);
        DWORD cb = 0;
        EXPECT_EQ(Ksp().SignHash(provider, rsa, &padding, hash.data(), 32, signature.data(),
                                 row.cbBuffer ? row.cbBuffer : 300, &cb, BCRYPT_PAD_PKCS1),
                  row.want)
            << &row - rows;
        EXPECT_EQ(row.cbBuffer ? cb : 256, 256u) << &row - rows;
        EXPECT_EQ(std::vector<BYTE>(signature.begin(), signature.begin() + 257) == padded, row.want == 0);
    }
}

// Empty names, answers without usable key material and security descriptors that overrun are refused.
TEST_F(Bounds, OnlyKeysTheVaultMadeWithUsableMaterialAndValidSecurityDescriptorsAreTaken)
{
    EXPECT_EQ(Open(L""), NTE_INVALID_PARAMETER); // an empty name never reaches the vault
    EXPECT_EQ(CreateAndFinalize(L""), NTE_INVALID_PARAMETER);
    EXPECT_EQ(SeenRequests(emulator, L"login").size(), 0u);
    EXPECT_EQ(VaultRequests().size(), 0u);

    Answer("POST", "/keys/empty/create", R"({"status":200,"body":{"error":{}}})"); // a 200 holding no key
    EXPECT_EQ(CreateAndFinalize(L"empty"), NTE_FAIL);

    const std::string e = R"(,"e":"AQAB")", y = R"(","y":")" + B64(32, 1) + "\"";
    const std::string keys[] = {
        R"("kty":"RSA","n":")" + B64(4096, 0xC5) + "\"" + e,
        R"("kty":"EC","crv":"P-256","x":")" + B64(31, 1) + y,
    };
    for (const std::string &key : keys) {
        const std::wstring name = L"bad" + std::to_wstring(&key - keys);
        Answer("GET", "/keys/" + Narrow(name), R"({"status":200,"body":{"key":{)" + key + "}}}");
        EXPECT_EQ(Open(name), NTE_BAD_KEY) << key.substr(0, 40);
    }

    NCRYPT_KEY_HANDLE h = 0;
    ASSERT_EQ(Ksp().CreatePersistedKey(provider, &h, L"RSA", nullptr, 0, kMachine), 0);
    BYTE emptyDacl[28] = {1, 0, 0x04, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 20, 0, 0, 0, 2, 0, 8, 0};
    BYTE ownerBeyond[20] = {1, 0, 0x00, 0x80, 40}; // self-relative, owner SID at offset 40
    const struct { BYTE *sd; DWORD cb; SECURITY_STATUS want; } rows[] = {
        {emptyDacl, 28, 0}, {emptyDacl, 24, NTE_BAD_DATA}, {ownerBeyond, 20, NTE_BAD_DATA},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Ksp().SetKeyProperty(provider, h, L"Security Descr", row.sd, row.cb, DACL_SECURITY_INFORMATION),
                  row.want)
            << &row - rows;
}

// Names reach the vault in UTF-8; a merge the vault refused leaves no pending certificate behind.
TEST_F(Bounds, CertificateCreatesCarryUtf8NamesAndOneThatCameToNothingLeavesNoPendingOperation)
{
    UseCertificates();
    EXPECT_EQ(CreateAndFinalize(L"caf\u00e9 \u4e2d"), 0);
    const SeenRequest create = VaultRequests().at(1); // the first create, after the look-up
    EXPECT_NE(create.body.find("\"KeyName\":\"caf\xc3\xa9 \xe4\xb8\xad\""), std::string::npos) << create.body;

    Answer("POST", "/certificates/merge/pending/merge", R"({"status":400,"body":{"error":{}}})");
    EXPECT_EQ(CreateAndFinalize(L"merge"), NTE_FAIL);
    const SeenRequest last = VaultRequests().back();
    EXPECT_EQ(last.method + " " + last.url.substr(0, last.url.find('?')), "DELETE /certificates/merge/pending");
}

TEST_F(Bounds, ListingsStopAtARepeatedLink)
{
    UseCertificates();
    SeedKey(emulator, L"kestaltest", "a");
    for (std::string collection : {"keys", "certificates"}) // a page that links to itself
        Answer("GET", "/" + collection,
               R"({"status":200,"repeat":3,"body":{"value":[)" +
                   std::string(collection == "keys" ? R"({"kid":"https://x/keys/a"})" : "") +
                   R"(],"nextLink":"https://kestaltest.vault.azure.net:443/)" + collection + R"(?$skiptoken=x"}})");
    NCryptKeyName *keyName = nullptr;
    PVOID state = nullptr;
    EXPECT_EQ(Ksp().EnumKeys(provider, nullptr, &keyName, &state, kMachine), 0);
    EXPECT_EQ(Open(L"a"), 0); // the first machine open syncs the vault's certificates
    EXPECT_EQ(VaultCalls("GET /keys?").size(), 2u);
    EXPECT_EQ(VaultCalls("GET /certificates?").size(), 2u);
    Ksp().FreeBuffer(keyName), Ksp().FreeBuffer(state);
}
