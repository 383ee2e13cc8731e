#include "tests/harness/harness.h"

#include <gtest/gtest.h>

using namespace kestal_test;

namespace {

constexpr DWORD kOaep = NCRYPT_PAD_OAEP_FLAG, kPkcs1 = NCRYPT_PAD_PKCS1_FLAG;

class EncDec : public VaultKeyTest {
protected:
    // Encrypt or Decrypt through the DLL; the result's bytes, empty on failure.
    Bytes Run(bool decrypt, NCRYPT_KEY_HANDLE key, Bytes input, DWORD flags)
    {
        Bytes output(1024);
        DWORD cb = 0;
        SECURITY_STATUS status = (decrypt ? Ksp().Decrypt : Ksp().Encrypt)(
            provider, key, input.data(), static_cast<DWORD>(input.size()), nullptr, output.data(), 1024, &cb, flags);
        output.resize(status == 0 ? cb : 0);
        return output;
    }
    // RSA-OAEP by an encrypter that knows only the exported blob: the emulated vault, given the
    // blob's exponent and modulus as a public-only key of its own.
    Bytes EncryptWithPublicBlob(const Bytes &blob, const Bytes &plain)
    {
        auto exponent = blob.begin() + sizeof(BCRYPT_RSAKEY_BLOB);
        auto modulus = exponent + reinterpret_cast<const BCRYPT_RSAKEY_BLOB *>(blob.data())->cbPublicExp;
        NCRYPT_KEY_HANDLE mirror = SeedAndOpen("mirror", R"("jwk":{"kty":"RSA","e":")" +
                                                             ToBase64Url({exponent, modulus}) + R"(","n":")" +
                                                             ToBase64Url({modulus, blob.end()}) + R"("})");
        return Run(false, mirror, plain, kOaep);
    }
};

} // namespace

TEST_F(EncDec, WindowsAndTheProviderEncryptForTheVaultToDecrypt)
{
    // OAEP wins over PKCS1 when both are asked for.
    const struct { DWORD flags; const char *vaultAlg; } rows[] = {{kOaep | kPkcs1, "RSA-OAEP"}, {kPkcs1, "RSA1_5"}};
    NCRYPT_KEY_HANDLE key = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    Bytes blob = ExportKeyBlob(Ksp(), provider, key, BCRYPT_RSAPUBLIC_BLOB);
    BcryptKey local = ImportPublicBlob(blob);
    ASSERT_TRUE(local);
    std::vector<std::string> expectedAlgs;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.vaultAlg);
        Bytes plain = ToBytes("a session key"), cipher(256);
        ULONG cb = 0;
        if (row.flags & kOaep) { // Wine 8's bcrypt has no RSA OAEP
            cipher = EncryptWithPublicBlob(blob, plain);
            expectedAlgs.push_back("RSA-OAEP");
        } else {
            ASSERT_EQ(BCryptEncrypt(local.get(), plain.data(), Size(plain), nullptr, nullptr, 0, cipher.data(), 256,
                                    &cb, BCRYPT_PAD_PKCS1),
                      0);
        }
        EXPECT_EQ(Run(true, key, cipher, row.flags), plain);
        cipher = Run(false, key, plain, row.flags);
        EXPECT_EQ(cipher.size(), 256u);
        EXPECT_EQ(Run(true, key, cipher, row.flags), plain);
        expectedAlgs.insert(expectedAlgs.end(), 3, row.vaultAlg);
    }
    EXPECT_EQ(CryptoRequests(), expectedAlgs);
}

TEST_F(EncDec, EncryptAndDecryptCheckInTheirOwnOrder)
{
    NCRYPT_KEY_HANDLE key = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    NCRYPT_KEY_HANDLE pending = CreateKey(L"pending", 3, false);
    NCRYPT_KEY_HANDLE signOnly = CreateKey(L"sign-only", NCRYPT_ALLOW_SIGNING_FLAG);
    Bytes plain = ToBytes("attack at dawn"), cipher = Run(false, key, plain, kOaep);
    // vaultAlg null: the vault is not reached.
    const struct { bool decrypt; NCRYPT_PROV_HANDLE p; NCRYPT_KEY_HANDLE key; DWORD flags = kOaep;
        bool nullInput = false, nullResult = false; SECURITY_STATUS status = 0; const char *vaultAlg = nullptr;
    } rows[] = {
        {.decrypt = false, .p = key, .key = key, .status = NTE_INVALID_HANDLE},
        {.decrypt = true, .p = provider, .key = 0, .status = NTE_INVALID_HANDLE},
        {.decrypt = false, .p = provider, .key = pending, .nullInput = true, .status = NTE_BAD_KEY_STATE},
        {.decrypt = true, .p = provider, .key = pending,
         .status = NTE_INVALID_PARAMETER}, // decryption does not ask for finalization, but names no vault key
        {.decrypt = false, .p = provider, .key = key, .nullInput = true, .status = NTE_INVALID_PARAMETER},
        {.decrypt = true, .p = provider, .key = key, .nullResult = true, .status = NTE_INVALID_PARAMETER},
        {.decrypt = false, .p = provider, .key = key, .flags = kOaep | NCRYPT_NO_PADDING_FLAG, .status = NTE_BAD_FLAGS},
        {.decrypt = true, .p = provider, .key = signOnly, .flags = 0x8, .status = NTE_BAD_FLAGS},
        {.decrypt = true, .p = provider, .key = signOnly, .flags = NCRYPT_NO_PADDING_FLAG, .status = NTE_PERM},
        {.decrypt = true, .p = provider, .key = key, .flags = NCRYPT_NO_PADDING_FLAG, .status = NTE_BAD_FLAGS},
        {.decrypt = false, .p = provider, .key = signOnly, .vaultAlg = "RSA-OAEP"}, // encryption ignores the usage
        {.decrypt = false, .p = provider, .key = key, .flags = NCRYPT_SILENT_FLAG, .status = NTE_FAIL, .vaultAlg = ""},
    };
    for (const auto &row : rows) {
        const auto i = &row - rows;
        size_t before = CryptoRequests().size();
        Bytes input = row.decrypt ? cipher : plain, output(512);
        DWORD cb = 0;
        EXPECT_EQ((row.decrypt ? Ksp().Decrypt : Ksp().Encrypt)(
                      row.p, row.key, row.nullInput ? nullptr : input.data(), Size(input), nullptr, output.data(), 512,
                      row.nullResult ? nullptr : &cb, row.flags),
                  row.status)
            << "row " << i;
        std::vector<std::string> algs = CryptoRequests();
        EXPECT_EQ(algs.size() > before ? algs.back() : "(none)", row.vaultAlg ? row.vaultAlg : "(none)") << "row " << i;
    }

    // The length is known only once the vault has answered: a null output asks for it, a short one
    // fails with NTE_FAIL and the needed length.
    DWORD cb = 0;
    EXPECT_EQ(Ksp().Encrypt(provider, key, plain.data(), 14, nullptr, nullptr, 0, &cb, kOaep), 0);
    EXPECT_EQ(cb, 256u);
    BYTE small[4];
    EXPECT_EQ(Ksp().Decrypt(provider, key, cipher.data(), 256, nullptr, small, sizeof(small), &cb, kOaep), NTE_FAIL);
    EXPECT_EQ(cb, plain.size());
}

TEST_F(EncDec, TheFiveUnsupportedEntriesRefuseWhateverTheyAreGiven)
{
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = Ksp();
    EXPECT_EQ(ksp.PromptUser(0, 0, nullptr, ~0u), NTE_NOT_SUPPORTED);
    EXPECT_EQ(ksp.NotifyChangeKey(0, nullptr, ~0u), NTE_NOT_SUPPORTED);
    EXPECT_EQ(ksp.SecretAgreement(0, 0, 0, nullptr, 0), NTE_NOT_SUPPORTED);
    EXPECT_EQ(ksp.DeriveKey(0, 0, nullptr, nullptr, nullptr, 0, nullptr, 0), NTE_NOT_SUPPORTED);
    EXPECT_EQ(ksp.FreeSecret(0, 0), NTE_NOT_SUPPORTED);
}
