#include "tests/harness/harness.h"

#include <gtest/gtest.h>

using namespace kestal_test;

namespace {

using Export = VaultKeyTest;

} // namespace

TEST_F(Export, PublicBlobsAreBuiltFromTheKeyRecordWithoutTheVault)
{
    const struct { const char *name, *members; const wchar_t *blobType; ULONG magic; size_t length; } rows[] = {
        {.name = "rsa3072", .members = R"("kty":"RSA","key_size":3072)", .blobType = L"PUBLICBLOB",
         .magic = BCRYPT_RSAPUBLIC_MAGIC, .length = 24 + 3 + 385}, // header, exponent, zero-led modulus
        {.name = "p384", .members = R"("kty":"EC","crv":"P-384","tags":{"AlgID":"ECDH"})",
         .blobType = L"ECCPUBLICBLOB", .magic = BCRYPT_ECDH_PUBLIC_P384_MAGIC, .length = 8 + 2 * 48},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        NCRYPT_KEY_HANDLE key = SeedAndOpen(row.name, row.members);
        DWORD cb = 0;
        ASSERT_EQ(Ksp().ExportKey(provider, key, 0, row.blobType, nullptr, nullptr, 0, &cb, NCRYPT_SILENT_FLAG), 0);
        EXPECT_EQ(cb, row.length);
        Bytes blob(cb + 8, 0xEE); // more room than needed: only cb bytes are written
        ASSERT_EQ(Ksp().ExportKey(provider, key, 0, row.blobType, nullptr, blob.data(), cb + 8, &cb, 0), 0);
        EXPECT_EQ(Bytes(blob.end() - 8, blob.end()), Bytes(8, 0xEE));
        EXPECT_EQ(*reinterpret_cast<const ULONG *>(blob.data()), row.magic);
        blob.resize(cb);
        EXPECT_TRUE(ImportPublicBlob(blob)); // Windows takes it as a public key
    }
    EXPECT_EQ(VaultRequests().size(), std::size(rows)); // the opens, nothing for the exports
}

TEST_F(Export, RefusesPrivateTypesMismatchesAndShortBuffers)
{
    NCRYPT_KEY_HANDLE rsa = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    NCRYPT_KEY_HANDLE pending = CreateKey(L"pending", 3, false); // its vault record was never read
    const struct { NCRYPT_PROV_HANDLE provider; NCRYPT_KEY_HANDLE key; const wchar_t *type; DWORD flags = 0;
        DWORD cbOutput = 2000; bool nullResult = false; SECURITY_STATUS status; } rows[] = {
        {.provider = provider, .key = rsa, .type = L"ECCPUBLICBLOB", .status = NTE_INVALID_PARAMETER},
        {.provider = provider, .key = pending, .type = L"RSAPUBLICBLOB", .status = NTE_INVALID_PARAMETER},
        {.provider = provider, .key = rsa, .type = L"RSAPUBLICBLOB", .flags = 0x1, .status = NTE_BAD_FLAGS},
        {.provider = provider, .key = rsa, .type = L"RSAPUBLICBLOB", .nullResult = true,
         .status = NTE_INVALID_PARAMETER},
        {.provider = rsa, .key = rsa, .type = L"RSAPUBLICBLOB", .status = NTE_INVALID_HANDLE},
        {.provider = provider, .key = rsa, .type = L"RSAPUBLICBLOB", .cbOutput = 283, .status = NTE_BUFFER_TOO_SMALL},
        {.provider = provider, .key = rsa, .type = L"RSAPRIVATEBLOB", .status = NTE_NOT_SUPPORTED},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(Narrow(row.type) + " row " + std::to_string(&row - rows));
        Bytes out(2000, 0xEE);
        DWORD cb = 0;
        EXPECT_EQ(Ksp().ExportKey(row.provider, row.key, 0, row.type, nullptr, out.data(), row.cbOutput,
                                  row.nullResult ? nullptr : &cb, row.flags),
                  row.status);
        EXPECT_EQ(cb, row.status == NTE_BUFFER_TOO_SMALL ? 284u : 0u);
        EXPECT_EQ(out, Bytes(2000, 0xEE));
    }
}
