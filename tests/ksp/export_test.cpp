#include "tests/harness/harness.h"

#include <gtest/gtest.h>

using namespace kestal_test;

namespace {

using Export = VaultKeyTest;

std::vector<BYTE> JwkMember(const Json &bundle, const char *member)
{
    json_object *key = nullptr;
    json_object_object_get_ex(bundle.get(), "key", &key);
    return FromBase64(JsonString(key, member));
}

template <typename Header> std::vector<BYTE> Blob(const Header &header, std::initializer_list<std::vector<BYTE>> parts)
{
    std::vector<BYTE> all(reinterpret_cast<const BYTE *>(&header), reinterpret_cast<const BYTE *>(&header + 1));
    for (const auto &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

} // namespace

TEST_F(Export, PublicBlobsAreBuiltFromTheKeyRecordWithoutTheVault)
{
    struct Row { const char *name, *members; const wchar_t *blobType; ULONG magic; size_t length; } rows[] = {
        {"rsa2048", R"("kty":"RSA","key_size":2048)", L"RSAPUBLICBLOB", BCRYPT_RSAPUBLIC_MAGIC, 24 + 3 + 257},
        {"rsa3072", R"("kty":"RSA","key_size":3072)", L"PUBLICBLOB", BCRYPT_RSAPUBLIC_MAGIC, 24 + 3 + 385},
        {"p256", R"("kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"})", L"ECCPUBLICBLOB",
         BCRYPT_ECDSA_PUBLIC_P256_MAGIC, 72},
        {"p384", R"("kty":"EC","crv":"P-384","tags":{"AlgID":"ECDH"})", L"ECCPUBLICBLOB", BCRYPT_ECDH_PUBLIC_P384_MAGIC,
         104},
        {"p521", R"("kty":"EC","crv":"P-521")", L"ECCPUBLICBLOB", BCRYPT_ECDSA_PUBLIC_P521_MAGIC, 140},
        {"p256dec", R"("kty":"EC","crv":"P-256","key_ops":["verify","decrypt"])", L"ECCPUBLICBLOB",
         BCRYPT_ECDH_PUBLIC_P256_MAGIC, 72},
    };
    for (const Row &row : rows) {
        Json bundle;
        NCRYPT_KEY_HANDLE key = SeedAndOpen(row.name, row.members, &bundle);
        DWORD cb = 0;
        ASSERT_EQ(Ksp().ExportKey(provider, key, 0, row.blobType, nullptr, nullptr, 0, &cb, NCRYPT_SILENT_FLAG), 0);
        EXPECT_EQ(cb, row.length) << row.name;
        std::vector<BYTE> blob(cb + 8, 0xEE); // more room than needed: only cb bytes are written
        ASSERT_EQ(Ksp().ExportKey(provider, key, 0, row.blobType, nullptr, blob.data(), cb + 8, &cb, 0), 0);
        std::vector<BYTE> expected;
        if (row.magic == BCRYPT_RSAPUBLIC_MAGIC) {
            std::vector<BYTE> n = JwkMember(bundle, "n"), e = JwkMember(bundle, "e");
            ULONG cbN = static_cast<ULONG>(n.size()), cbE = static_cast<ULONG>(e.size());
            // An even-length modulus gets a leading zero.
            expected = Blob(BCRYPT_RSAKEY_BLOB{row.magic, cbN * 8, cbE, cbN + 1, 0, 0}, {e, {0}, n});
        } else {
            std::vector<BYTE> x = JwkMember(bundle, "x"), y = JwkMember(bundle, "y");
            expected = Blob(BCRYPT_ECCKEY_BLOB{row.magic, static_cast<ULONG>(x.size())}, {x, y});
        }
        expected.resize(cb + 8, 0xEE);
        EXPECT_EQ(blob, expected) << row.name;
    }
    EXPECT_EQ(VaultRequests().size(), std::size(rows)); // the opens, nothing for the exports
}

TEST_F(Export, RefusesPrivateTypesMismatchesAndShortBuffers)
{
    NCRYPT_KEY_HANDLE rsa = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    NCRYPT_KEY_HANDLE ec = SeedAndOpen("ec", R"("kty":"EC","crv":"P-256")");
    KSP_KEY *blank = nullptr; // a key object whose vault record was never read
    ASSERT_EQ(CreateNewKeyObject(L"blank", L"RSA", &blank, NCRYPT_MACHINE_KEY_FLAG), 0);
    auto blankKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(blank);
    auto notProvider = static_cast<NCRYPT_PROV_HANDLE>(rsa);
    struct Row { NCRYPT_PROV_HANDLE provider; NCRYPT_KEY_HANDLE key; const wchar_t *type; DWORD flags, cbOutput;
        bool nullResult; SECURITY_STATUS status; } rows[] = {
        {provider, rsa, L"PRIVATEBLOB", 0, 2000, false, NTE_NOT_SUPPORTED},
        {provider, rsa, L"RSAPRIVATEBLOB", 0, 2000, false, NTE_NOT_SUPPORTED},
        {provider, rsa, L"RSAFULLPRIVATEBLOB", 0, 2000, false, NTE_NOT_SUPPORTED},
        {provider, rsa, L"PKCS7_ENVELOPE", 0, 2000, false, NTE_NOT_SUPPORTED},
        {provider, ec, L"PKCS8_PRIVATEKEY", 0, 2000, false, NTE_NOT_SUPPORTED},
        {provider, ec, L"eccpublicblob", 0, 2000, false, NTE_INVALID_PARAMETER},
        {provider, rsa, L"CAPIPUBLICBLOB", 0, 2000, false, NTE_INVALID_PARAMETER},
        {provider, ec, L"PUBLICBLOB", 0, 2000, false, NTE_INVALID_PARAMETER},
        {provider, rsa, L"ECCPUBLICBLOB", 0, 2000, false, NTE_INVALID_PARAMETER},
        {provider, blankKey, L"RSAPUBLICBLOB", 0, 2000, false, NTE_INVALID_PARAMETER},
        {provider, rsa, L"RSAPUBLICBLOB", 0x1, 2000, false, NTE_BAD_FLAGS},
        {provider, rsa, L"RSAPUBLICBLOB", NCRYPT_EXPORT_LEGACY_FLAG, 2000, false, NTE_NOT_SUPPORTED},
        {provider, rsa, L"RSAPUBLICBLOB", 0, 2000, true, NTE_INVALID_PARAMETER},
        {notProvider, rsa, L"RSAPUBLICBLOB", 0, 2000, false, NTE_INVALID_HANDLE},
        {provider, 0, L"RSAPUBLICBLOB", 0, 2000, false, NTE_INVALID_HANDLE},
        {provider, rsa, L"RSAPUBLICBLOB", 0, 283, false, NTE_BUFFER_TOO_SMALL},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        std::vector<BYTE> out(2000, 0xEE);
        DWORD cb = 0;
        EXPECT_EQ(Ksp().ExportKey(row.provider, row.key, 0, row.type, nullptr, out.data(), row.cbOutput,
                                  row.nullResult ? nullptr : &cb, row.flags),
                  row.status);
        EXPECT_EQ(cb, row.status == NTE_BUFFER_TOO_SMALL ? 284u : 0u);
        EXPECT_EQ(out, std::vector<BYTE>(2000, 0xEE));
    }
    DeleteKeyObject(blank);

    KSP_KEY *ecKey = KspKeyFromHandle(ec);
    ecKey->kvKey.y_siz -= 1;
    DWORD cb = 0;
    EXPECT_EQ(Ksp().ExportKey(provider, ec, 0, L"ECCPUBLICBLOB", nullptr, nullptr, 0, &cb, 0), NTE_INVALID_PARAMETER);
    ecKey->kvKey.y_siz += 1;
}
