#include "tests/harness/harness.h"

#include <numeric>

using namespace kestal_test;

namespace {

constexpr DWORD kPkcs1 = BCRYPT_PAD_PKCS1, kPss = BCRYPT_PAD_PSS;

Bytes Counting(size_t count, BYTE first)
{
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

class SignVerify : public VaultKeyTest {
protected:
    // Both padding structures begin with pszAlgId, so the PSS one serves PKCS1 as well.
    Bytes Sign(NCRYPT_KEY_HANDLE key, const wchar_t *hashName, Bytes hash, DWORD flags)
    {
        BCRYPT_PSS_PADDING_INFO padding = {hashName, Size(hash)};
        Bytes signature(600);
        DWORD cb = 0;
        SECURITY_STATUS rc = Ksp().SignHash(provider, key, &padding, hash.data(), Size(hash), signature.data(),
                                            Size(signature), &cb, flags);
        signature.resize(rc == 0 ? cb : 0);
        return signature;
    }
    SECURITY_STATUS Verify(NCRYPT_KEY_HANDLE key, const wchar_t *hashName, Bytes hash, DWORD flags, Bytes signature)
    {
        BCRYPT_PSS_PADDING_INFO padding = {hashName, Size(hash)};
        return Ksp().VerifySignature(provider, key, &padding, hash.data(), Size(hash), signature.data(),
                                     Size(signature), flags);
    }
};

} // namespace

TEST_F(SignVerify, EcHashIsResizedToTheCurveKeepingItsRightmostBytes)
{
    NCRYPT_KEY_HANDLE p256 = SeedAndOpen("p256", R"("kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"})");
    for (size_t given : {20, 48}) {
        SCOPED_TRACE(given);
        Bytes hash = Counting(given, 0x80), expected(32, 0);
        if (given < 32)
            std::copy(hash.begin(), hash.end(), expected.end() - given);
        else
            expected.assign(hash.end() - 32, hash.end());
        Bytes signature = Sign(p256, nullptr, hash, 0);
        EXPECT_EQ(FromBase64(CryptoRequests("value").back()), expected);
        // Verification resizes the same way and, unlike signing, lets NCRYPT_SILENT_FLAG through.
        EXPECT_EQ(Verify(p256, nullptr, hash, NCRYPT_SILENT_FLAG, signature), 0);
        EXPECT_EQ(FromBase64(CryptoRequests("digest").back()), expected);
    }
}

TEST_F(SignVerify, AModulusWithALeadingZeroIsA2048BitKey)
{
    // Some vault answers carry the modulus with a leading zero (257 bytes): still a 2048-bit key.
    const std::string n = "AKCRTQAjSsaDshtMFdW-2Ie9yVnC5Xr1Suc06PAHINd10nXkVSB-N4TO62ClCkZV3XKnqU0nHo7o95WaZpym53W_DiO62umRtFKdl4UotL2QUh0y3SZWeWuoK2u_x2aMj17rUFN0f9GZMZ0pqEQNCPRBLVJ_-TEe2nGCWSC0exxGsRqz6R1zFkB-icfzQPe4WjQELOUXQ7J9RxhAPTTHtDivYYG-BeTRHrmF04JT1_6b9T_C8bAC0i0teT-nmlBLarQtBJKATXBx1yegbPOoiTqlQrFQP4MrKWNxtnB9Tcbjcvj-Z9je0ckI_eRc4DvAhqcUh_p15Dqg4GeaoNIO_jU";
    NCRYPT_KEY_HANDLE key = SeedAndOpen("zeroled", R"("jwk":{"kty":"RSA","e":"AQAB","n":")" + n + "\"}");
    DWORD cb = 0;
    EXPECT_EQ(Ksp().SignHash(provider, key, nullptr, nullptr, 0, nullptr, 0, &cb, kPkcs1), 0);
    EXPECT_EQ(cb, 256u);
    Bytes blob = ExportKeyBlob(Ksp(), provider, key, BCRYPT_RSAPUBLIC_BLOB);
    ASSERT_EQ(blob.size(), sizeof(BCRYPT_RSAKEY_BLOB) + 3 + 257);
    EXPECT_EQ(reinterpret_cast<const BCRYPT_RSAKEY_BLOB *>(blob.data())->BitLength, 2048u);
    EXPECT_EQ(Bytes(blob.end() - 257, blob.end()), FromBase64(n));
}

// Padding and hash map to the vault algorithm; what the vault signs verifies with Windows and the provider.
TEST_F(SignVerify, SignaturesVerifyWithWindowsAndChecksComeBeforeTheVault)
{
    NCRYPT_KEY_HANDLE rsa = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    NCRYPT_KEY_HANDLE ec = SeedAndOpen("p256", R"("kty":"EC","crv":"P-256")");
    NCRYPT_KEY_HANDLE p384 = SeedAndOpen("p384", R"("kty":"EC","crv":"P-384")");
    const struct { NCRYPT_KEY_HANDLE key; DWORD flags; const wchar_t *hash; const char *vaultAlg; } signs[] = {
        {.key = rsa, .flags = kPkcs1, .hash = L"SHA256", .vaultAlg = "RS256"},
        {.key = rsa, .flags = kPss, .hash = L"SHA384", .vaultAlg = "PS384"},
        {.key = p384, .flags = 0, .hash = L"SHA384", .vaultAlg = "ES384"},
    };
    std::vector<std::string> expectedAlgs;
    for (const auto &row : signs) {
        SCOPED_TRACE(row.vaultAlg);
        BcryptKey local = ImportPublicBlob(
            ExportKeyBlob(Ksp(), provider, row.key, row.key == rsa ? BCRYPT_RSAPUBLIC_BLOB : BCRYPT_ECCPUBLIC_BLOB));
        ASSERT_TRUE(local);
        Bytes hash = HashOf(row.hash, row.vaultAlg), signature = Sign(row.key, row.hash, hash, row.flags);
        BCRYPT_PSS_PADDING_INFO padding = {row.hash, Size(hash)};
        EXPECT_EQ(BCryptVerifySignature(local.get(), row.flags ? &padding : nullptr, hash.data(), Size(hash),
                                        signature.data(), Size(signature), row.flags),
                  0);
        EXPECT_EQ(Verify(row.key, row.hash, hash, row.flags, signature), 0);
        signature[signature.size() / 2] ^= 0x40;
        EXPECT_EQ(Verify(row.key, row.hash, hash, row.flags, signature), NTE_BAD_SIGNATURE);
        expectedAlgs.insert(expectedAlgs.end(), 3, row.vaultAlg);
    }
    EXPECT_EQ(CryptoRequests(), expectedAlgs);

    NCRYPT_KEY_HANDLE pending = CreateKey(L"pending", NCRYPT_ALLOW_SIGNING_FLAG, false);
    NCRYPT_KEY_HANDLE decryptOnly = CreateKey(L"decrypt-only", NCRYPT_ALLOW_DECRYPT_FLAG);
    Bytes hash = Counting(64, 7), good = Sign(rsa, L"SHA256", Bytes(hash.begin(), hash.begin() + 32), kPkcs1);
    const wchar_t *kNoInfo = L"(no padding information)";
    enum Out { Full, Small, NoBuffer, NoResult }; // NoResult: pcbResult null
    // cb: *pcbResult afterwards; vaultAlg "": nothing reaches the vault.
    const struct { bool sign; NCRYPT_PROV_HANDLE p; NCRYPT_KEY_HANDLE key; DWORD flags = kPkcs1;
        const wchar_t *alg = L"SHA256"; bool nullHash = false; DWORD cbHash = 32; Out out = Full;
        SECURITY_STATUS status = 0; DWORD cb = 0; const char *vaultAlg = ""; } rows[] = {
        {.sign = true, .p = rsa, .key = rsa, .status = NTE_INVALID_HANDLE},
        {.sign = true, .p = provider, .key = rsa, .out = NoResult, .status = NTE_INVALID_PARAMETER},
        {.sign = true, .p = provider, .key = pending, .flags = 0x1, .status = NTE_BAD_FLAGS},
        {.sign = true, .p = provider, .key = pending, .status = NTE_BAD_KEY_STATE},
        {.sign = true, .p = provider, .key = decryptOnly, .nullHash = true, .cbHash = 0, .out = NoBuffer,
         .status = NTE_PERM},
        {.sign = true, .p = provider, .key = rsa, .nullHash = true, .cbHash = 0, .out = NoBuffer,
         .cb = 256}, // the size query reads no hash
        {.sign = true, .p = provider, .key = rsa, .out = Small, .status = NTE_FAIL, .cb = 256, .vaultAlg = "RS256"},
        {.sign = true, .p = provider, .key = rsa, .alg = L"SHA1", .status = NTE_NOT_SUPPORTED},
        {.sign = true, .p = provider, .key = rsa, .flags = kPss, .alg = kNoInfo, .status = NTE_NOT_SUPPORTED},
        {.sign = false, .p = provider, .key = 0, .status = NTE_INVALID_HANDLE},
        {.sign = false, .p = provider, .key = ec, .status = NTE_NOT_SUPPORTED},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        size_t before = CryptoRequests().size();
        BCRYPT_PSS_PADDING_INFO info = {row.alg, 0}, *padding = row.alg == kNoInfo ? nullptr : &info;
        PBYTE pbHash = row.nullHash ? nullptr : hash.data();
        Bytes out = row.out == Small ? Bytes(10) : good;
        DWORD cb = 0;
        EXPECT_EQ(row.sign ? Ksp().SignHash(row.p, row.key, padding, pbHash, row.cbHash,
                                            row.out == NoBuffer ? nullptr : out.data(), Size(out),
                                            row.out == NoResult ? nullptr : &cb, row.flags)
                           : Ksp().VerifySignature(row.p, row.key, padding, pbHash, row.cbHash, out.data(), Size(out),
                                                   row.flags),
                  row.status);
        EXPECT_EQ(cb, row.cb);
        std::vector<std::string> algs = CryptoRequests();
        EXPECT_EQ(algs.size() > before ? algs.back() : "", row.vaultAlg);
    }
}
