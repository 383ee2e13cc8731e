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
};

} // namespace

// Windows and the provider encrypt for the vault to decrypt; each entry checks in its own order.
TEST_F(EncDec, WhatWindowsOrTheProviderEncryptsTheVaultDecryptsAndChecksComeInOrder)
{
    NCRYPT_KEY_HANDLE key = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    BcryptKey local = ImportPublicBlob(ExportKeyBlob(Ksp(), provider, key, BCRYPT_RSAPUBLIC_BLOB));
    ASSERT_TRUE(local);
    Bytes plain = ToBytes("a session key"), cipher(256);
    ULONG cb = 0;
    // Wine 8's bcrypt has no RSA OAEP: what Windows encrypts here is PKCS1.
    ASSERT_EQ(BCryptEncrypt(local.get(), plain.data(), Size(plain), nullptr, nullptr, 0, cipher.data(), 256, &cb,
                            BCRYPT_PAD_PKCS1),
              0);
    EXPECT_EQ(Run(true, key, cipher, kPkcs1), plain);
    for (DWORD flags : {kOaep | kPkcs1, kPkcs1}) { // OAEP wins when both are asked for
        cipher = Run(false, key, plain, flags);
        EXPECT_EQ(cipher.size(), 256u);
        EXPECT_EQ(Run(true, key, cipher, flags), plain);
    }
    EXPECT_EQ(CryptoRequests(), (std::vector<std::string>{"RSA1_5", "RSA-OAEP", "RSA-OAEP", "RSA1_5", "RSA1_5"}));

    NCRYPT_KEY_HANDLE pending = CreateKey(L"pending", 3, false);
    NCRYPT_KEY_HANDLE signOnly = CreateKey(L"sign-only", NCRYPT_ALLOW_SIGNING_FLAG);
    cipher = Run(false, key, plain, kOaep);
    // vaultAlg null: the vault is not reached.
    const struct { bool decrypt; NCRYPT_KEY_HANDLE key; DWORD flags = kOaep;
        bool nullInput = false, nullResult = false; SECURITY_STATUS status = 0; const char *vaultAlg = nullptr;
    } rows[] = {
        {.decrypt = true, .key = 0, .status = NTE_INVALID_HANDLE},
        {.decrypt = false, .key = pending, .nullInput = true, .status = NTE_BAD_KEY_STATE},
        // Decryption does not ask for finalization, but the key names no vault key.
        {.decrypt = true, .key = pending, .status = NTE_INVALID_PARAMETER},
        {.decrypt = false, .key = key, .nullInput = true, .status = NTE_INVALID_PARAMETER},
        {.decrypt = true, .key = key, .nullResult = true, .status = NTE_INVALID_PARAMETER},
        {.decrypt = false, .key = key, .flags = kOaep | NCRYPT_NO_PADDING_FLAG, .status = NTE_BAD_FLAGS},
        {.decrypt = true, .key = signOnly, .status = NTE_PERM},
        {.decrypt = false, .key = key, .flags = NCRYPT_SILENT_FLAG, .status = NTE_FAIL, .vaultAlg = ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        size_t before = CryptoRequests().size();
        Bytes input = row.decrypt ? cipher : plain, output(512);
        cb = 0;
        auto entry = row.decrypt ? Ksp().Decrypt : Ksp().Encrypt;
        EXPECT_EQ(entry(provider, row.key, row.nullInput ? nullptr : input.data(), Size(input), nullptr, output.data(),
                        512, row.nullResult ? nullptr : &cb, row.flags),
                  row.status);
        std::vector<std::string> algs = CryptoRequests();
        EXPECT_EQ(algs.size() > before ? algs.back() : "(none)", row.vaultAlg ? row.vaultAlg : "(none)");
    }

    // The length is known only once the vault has answered: a null output asks for it, a short one
    // fails with NTE_FAIL and the needed length.
    cb = 0;
    EXPECT_EQ(Ksp().Encrypt(provider, key, plain.data(), Size(plain), nullptr, nullptr, 0, &cb, kOaep), 0);
    EXPECT_EQ(cb, 256u);
    BYTE small[4];
    EXPECT_EQ(Ksp().Decrypt(provider, key, cipher.data(), 256, nullptr, small, sizeof(small), &cb, kOaep), NTE_FAIL);
    EXPECT_EQ(cb, plain.size());
}
