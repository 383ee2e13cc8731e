#include "tests/harness/harness.h"

#include <gtest/gtest.h>

using namespace kestal_test;

namespace {

constexpr DWORD kOaep = NCRYPT_PAD_OAEP_FLAG, kPkcs1 = NCRYPT_PAD_PKCS1_FLAG;
constexpr NTSTATUS kStatusNotImplemented = static_cast<NTSTATUS>(0xC0000002);

class EncDec : public VaultKeyTest {
protected:
    // Encrypt or Decrypt through the DLL; the result's bytes, empty on failure.
    Bytes Run(bool decrypt, NCRYPT_KEY_HANDLE key, Bytes input, DWORD flags,
                          SECURITY_STATUS *status)
    {
        Bytes output(1024);
        DWORD cb = 0;
        *status = (decrypt ? Ksp().Decrypt : Ksp().Encrypt)(
            provider, key, input.data(), static_cast<DWORD>(input.size()), nullptr, output.data(), 1024, &cb, flags);
        output.resize(*status == 0 ? cb : 0);
        return output;
    }
    // RSA-OAEP by an encrypter that knows only the exported blob: the emulated vault, given the
    // blob's exponent and modulus as a public-only key of its own.
    Bytes EncryptWithPublicBlob(const Bytes &blob, const std::string &name,
                                            const Bytes &plain)
    {
        auto exponent = blob.begin() + sizeof(BCRYPT_RSAKEY_BLOB);
        auto modulus = exponent + reinterpret_cast<const BCRYPT_RSAKEY_BLOB *>(blob.data())->cbPublicExp;
        NCRYPT_KEY_HANDLE mirror = SeedAndOpen(name + "-public", R"("jwk":{"kty":"RSA","e":")" +
                                                                     ToBase64Url({exponent, modulus}) + R"(","n":")" +
                                                                     ToBase64Url({modulus, blob.end()}) + R"("})");
        SECURITY_STATUS status = 0;
        return Run(false, mirror, plain, kOaep, &status);
    }
};

} // namespace

TEST_F(EncDec, WindowsAndTheProviderEncryptForTheVaultToDecrypt)
{
    struct Row { DWORD flags, bcryptFlags; const char *vaultAlg;
        } rows[] = {{kOaep | kPkcs1, BCRYPT_PAD_OAEP, "RSA-OAEP"},
                {kOaep | NCRYPT_SILENT_FLAG, BCRYPT_PAD_OAEP, "RSA-OAEP"},
                {kPkcs1, BCRYPT_PAD_PKCS1, "RSA1_5"}};
    std::vector<std::string> expectedAlgs;
    for (DWORD bits : {2048u, 3072u, 4096u}) {
        std::string name = "rsa" + std::to_string(bits);
        NCRYPT_KEY_HANDLE key = SeedAndOpen(name, R"("kty":"RSA","key_size":)" + std::to_string(bits));
        Bytes blob = ExportKeyBlob(Ksp(), provider, key, BCRYPT_RSAPUBLIC_BLOB);
        BcryptKey local = ImportPublicBlob(blob);
        ASSERT_TRUE(local) << name;
        for (const Row &row : rows) {
            SCOPED_TRACE(name + " flags " + std::to_string(row.flags));
            Bytes plain = ToBytes("a session key for " + name), cipher(bits / 8);
            BCRYPT_OAEP_PADDING_INFO oaep = {BCRYPT_SHA1_ALGORITHM, nullptr, 0}; // the vault's RSA-OAEP
            ULONG cb = 0;
            NTSTATUS encrypted = BCryptEncrypt(local.get(), plain.data(), static_cast<ULONG>(plain.size()),
                                               row.bcryptFlags == BCRYPT_PAD_OAEP ? &oaep : nullptr, nullptr, 0,
                                               cipher.data(), bits / 8, &cb, row.bcryptFlags);
            if (encrypted == kStatusNotImplemented && row.bcryptFlags == BCRYPT_PAD_OAEP) {
                cipher = EncryptWithPublicBlob(blob, name, plain); // Wine 8's bcrypt has no RSA OAEP
                expectedAlgs.push_back("RSA-OAEP");
            } else {
                ASSERT_EQ(encrypted, 0);
            }
            SECURITY_STATUS status = 0;
            EXPECT_EQ(Run(true, key, cipher, row.flags, &status), plain);
            cipher = Run(false, key, plain, row.flags, &status);
            EXPECT_EQ(cipher.size(), bits / 8);
            EXPECT_EQ(Run(true, key, cipher, row.flags, &status), plain);
            expectedAlgs.insert(expectedAlgs.end(), 3, row.vaultAlg);
        }
    }
    EXPECT_EQ(CryptoRequests(), expectedAlgs);
}

TEST_F(EncDec, EncryptAndDecryptCheckInTheirOwnOrder)
{
    NCRYPT_KEY_HANDLE key = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    NCRYPT_KEY_HANDLE pending = CreateKey(L"pending", 3, false);
    NCRYPT_KEY_HANDLE signOnly = CreateKey(L"sign-only", NCRYPT_ALLOW_SIGNING_FLAG);
    SECURITY_STATUS status = 0;
    Bytes plain = ToBytes("attack at dawn"), cipher = Run(false, key, plain, kOaep, &status);
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
        {.decrypt = false, .p = provider, .key = key, .flags = 0x8, .status = NTE_BAD_FLAGS},
        {.decrypt = true, .p = provider, .key = signOnly, .flags = 0x8, .status = NTE_BAD_FLAGS},
        {.decrypt = true, .p = provider, .key = signOnly, .flags = NCRYPT_NO_PADDING_FLAG, .status = NTE_PERM},
        {.decrypt = true, .p = provider, .key = key, .flags = NCRYPT_NO_PADDING_FLAG, .status = NTE_BAD_FLAGS},
        {.decrypt = true, .p = provider, .key = signOnly, .status = NTE_PERM},
        {.decrypt = false, .p = provider, .key = signOnly, .vaultAlg = "RSA-OAEP"}, // encryption ignores the usage
        {.decrypt = false, .p = provider, .key = key, .flags = NCRYPT_SILENT_FLAG, .status = NTE_FAIL, .vaultAlg = ""},
        {.decrypt = true, .p = provider, .key = key, .flags = 0, .status = NTE_FAIL, .vaultAlg = ""},
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
    NCRYPT_KEY_HANDLE key = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    HANDLE event = nullptr;
    NCRYPT_SECRET_HANDLE secret = 0;
    BYTE derived[32];
    DWORD cb = 0;
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE &ksp = Ksp();
    for (bool real : {false, true}) {
        NCRYPT_PROV_HANDLE p = real ? provider : 0;
        NCRYPT_KEY_HANDLE k = real ? key : 0;
        EXPECT_EQ(ksp.PromptUser(p, k, real ? L"sign" : nullptr, real ? 0 : ~0u), NTE_NOT_SUPPORTED);
        EXPECT_EQ(ksp.NotifyChangeKey(p, real ? &event : nullptr, real ? 0 : ~0u), NTE_NOT_SUPPORTED);
        EXPECT_EQ(ksp.SecretAgreement(p, k, k, real ? &secret : nullptr, 0), NTE_NOT_SUPPORTED);
        EXPECT_EQ(ksp.DeriveKey(p, secret, real ? L"HASH" : nullptr, nullptr, real ? derived : nullptr,
                                real ? sizeof(derived) : 0, real ? &cb : nullptr, 0),
                  NTE_NOT_SUPPORTED);
        EXPECT_EQ(ksp.FreeSecret(p, real ? static_cast<NCRYPT_SECRET_HANDLE>(key) : 0), NTE_NOT_SUPPORTED);
    }
    EXPECT_EQ(CryptoRequests().size(), 0u);
}
