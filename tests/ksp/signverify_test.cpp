#include "tests/harness/harness.h"

#include <numeric>

using namespace kestal_test;

namespace {

constexpr DWORD kPkcs1 = BCRYPT_PAD_PKCS1, kPss = BCRYPT_PAD_PSS;
constexpr NTSTATUS kStatusNotImplemented = static_cast<NTSTATUS>(0xC0000002);

DWORD Size(const std::vector<BYTE> &bytes) { return static_cast<DWORD>(bytes.size()); }
std::vector<BYTE> Bytes(size_t count, BYTE first)
{
    std::vector<BYTE> bytes(count);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

class SignVerify : public VaultKeyTest {
protected:
    // Both padding structures begin with pszAlgId, so the PSS one serves PKCS1 as well.
    std::vector<BYTE> Sign(NCRYPT_KEY_HANDLE key, const wchar_t *hashName, std::vector<BYTE> hash, DWORD flags,
                           SECURITY_STATUS *status = nullptr)
    {
        BCRYPT_PSS_PADDING_INFO padding = {hashName, Size(hash)};
        std::vector<BYTE> signature(600);
        DWORD cb = 0;
        SECURITY_STATUS rc = Ksp().SignHash(provider, key, &padding, hash.data(), Size(hash), signature.data(),
                                            Size(signature), &cb, flags);
        if (status)
            *status = rc;
        signature.resize(rc == 0 ? cb : 0);
        return signature;
    }
    SECURITY_STATUS Verify(NCRYPT_KEY_HANDLE key, const wchar_t *hashName, std::vector<BYTE> hash, DWORD flags,
                           std::vector<BYTE> signature)
    {
        BCRYPT_PSS_PADDING_INFO padding = {hashName, Size(hash)};
        return Ksp().VerifySignature(provider, key, &padding, hash.data(), Size(hash), signature.data(),
                                     Size(signature), flags);
    }
};

} // namespace

TEST_F(SignVerify, VaultSignaturesVerifyWithWindowsCryptoAndThroughTheProvider)
{
    // EC keys sign the hash of their curve.
    struct Key { const char *name, *members; const wchar_t *blobType, *ecHash; DWORD sizeQuery, signatureBytes;
        } keys[] = {
        {"rsa2048", R"("kty":"RSA","key_size":2048)", BCRYPT_RSAPUBLIC_BLOB, nullptr, 256, 256},
        {"rsa3072", R"("kty":"RSA","key_size":3072)", BCRYPT_RSAPUBLIC_BLOB, nullptr, 384, 384},
        {"rsa4096", R"("kty":"RSA","key_size":4096)", BCRYPT_PUBLIC_KEY_BLOB, nullptr, 512, 512},
        {"p256", R"("kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"})", BCRYPT_ECCPUBLIC_BLOB, L"SHA256", 132,
         64},
        {"p384", R"("kty":"EC","crv":"P-384")", BCRYPT_ECCPUBLIC_BLOB, L"SHA384", 132, 96},
        {"p521", R"("kty":"EC","crv":"P-521","tags":{"AlgID":"ECDH"})", BCRYPT_ECCPUBLIC_BLOB, L"SHA512", 132, 132},
    };
    struct Row { DWORD flags; const wchar_t *hash; const char *vaultAlg; } rsaRows[] = {
        {kPkcs1, L"SHA1", "RSNULL"}, {kPkcs1, L"SHA256", "RS256"}, {kPkcs1, L"SHA384", "RS384"},
        {kPkcs1, L"SHA512", "RS512"}, {kPss, L"SHA256", "PS256"},  {kPss, L"SHA384", "PS384"},
        {kPss, L"SHA512", "PS512"}};
    std::vector<std::string> expectedAlgs;
    for (const Key &k : keys) {
        NCRYPT_KEY_HANDLE key = SeedAndOpen(k.name, k.members);
        NTSTATUS imported = 0;
        BcryptKey local = ImportPublicBlob(ExportKeyBlob(Ksp(), provider, key, k.blobType), &imported);
        // Wine 8's bcrypt has no P-521: there the vault alone checks those signatures.
        ASSERT_TRUE(local || (imported == kStatusNotImplemented && k.signatureBytes == 132)) << k.name;
        DWORD cb = 0;
        EXPECT_EQ(Ksp().SignHash(provider, key, nullptr, nullptr, 0, nullptr, 0, &cb, 0), 0);
        EXPECT_EQ(cb, k.sizeQuery) << k.name;
        std::vector<Row> rows(std::begin(rsaRows), std::end(rsaRows));
        if (k.ecHash)
            rows = {{0, k.ecHash, k.signatureBytes == 64 ? "ES256" : k.signatureBytes == 96 ? "ES384" : "ES512"}};
        for (const Row &row : rows) {
            SCOPED_TRACE(std::string(k.name) + " " + row.vaultAlg);
            std::vector<BYTE> hash = HashOf(row.hash, k.name), signature = Sign(key, row.hash, hash, row.flags);
            ASSERT_EQ(signature.size(), k.signatureBytes);
            BCRYPT_PSS_PADDING_INFO padding = {row.hash, Size(hash)};
            if (local) {
                EXPECT_EQ(BCryptVerifySignature(local.get(), row.flags ? &padding : nullptr, hash.data(), Size(hash),
                                                signature.data(), Size(signature), row.flags),
                          0);
            }
            EXPECT_EQ(Verify(key, row.hash, hash, row.flags, signature), 0);
            signature[signature.size() / 2] ^= 0x40;
            EXPECT_EQ(Verify(key, row.hash, hash, row.flags, signature), NTE_BAD_SIGNATURE);
            expectedAlgs.insert(expectedAlgs.end(), 3, row.vaultAlg);
        }
    }
    EXPECT_EQ(CryptoRequests(), expectedAlgs);
}

TEST_F(SignVerify, SignHashMapsPaddingAndHashOrRefuses)
{
    NCRYPT_KEY_HANDLE rsa = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    NCRYPT_KEY_HANDLE p256 = SeedAndOpen("p256", R"("kty":"EC","crv":"P-256")");
    const wchar_t *kNoInfo = L"(no padding information)";
    // hashName null: pszAlgId null; vaultAlg "": nothing reaches the vault.
    struct Row { NCRYPT_KEY_HANDLE key; DWORD flags; const wchar_t *hashName; size_t hashBytes;
        SECURITY_STATUS status; const char *vaultAlg; } rows[] = {
        {rsa, kPkcs1 | kPss, L"SHA256", 32, 0, "RS256"},
        {rsa, kPkcs1, L"sha384", 48, 0, "RS384"},
        {rsa, kPss | NCRYPT_SILENT_FLAG, L"Sha512", 64, 0, "PS512"},
        {rsa, kPkcs1, L"SHA256", 20, NTE_FAIL, "RS256"}, // the vault wants 32 bytes
        {rsa, kPkcs1, L"SHA1", 32, NTE_NOT_SUPPORTED, ""},
        {rsa, kPss, L"SHA1", 20, NTE_NOT_SUPPORTED, ""},
        {rsa, kPkcs1, L"MD5", 16, NTE_NOT_SUPPORTED, ""},
        {rsa, kPkcs1, nullptr, 32, NTE_NOT_SUPPORTED, ""},
        {rsa, kPss, kNoInfo, 32, NTE_NOT_SUPPORTED, ""},
        {rsa, kPss, nullptr, 32, NTE_NOT_SUPPORTED, ""},
        {rsa, 0, L"SHA256", 32, NTE_INVALID_PARAMETER, ""},
        {p256, NCRYPT_SILENT_FLAG, L"SHA256", 32, NTE_INVALID_PARAMETER, ""},
        {p256, kPkcs1, L"SHA256", 32, NTE_INVALID_PARAMETER, ""},
        {p256, 0x1, L"SHA256", 32, NTE_BAD_FLAGS, ""},
    };
    for (const Row &row : rows) {
        size_t before = CryptoRequests().size();
        std::vector<BYTE> hash = Bytes(row.hashBytes, 1), signature(600);
        BCRYPT_PSS_PADDING_INFO padding = {row.hashName, 0};
        DWORD cb = 0;
        EXPECT_EQ(Ksp().SignHash(provider, row.key, row.hashName == kNoInfo ? nullptr : &padding, hash.data(),
                                 Size(hash), signature.data(), 600, &cb, row.flags),
                  row.status)
            << "row " << &row - rows;
        std::vector<std::string> algs = CryptoRequests();
        EXPECT_EQ(algs.size() > before ? algs.back() : "", row.vaultAlg) << "row " << &row - rows;
    }
}

TEST_F(SignVerify, EcHashIsResizedToTheCurveKeepingItsRightmostBytes)
{
    NCRYPT_KEY_HANDLE p256 = SeedAndOpen("p256", R"("kty":"EC","crv":"P-256","tags":{"AlgID":"ECDSA_P256"})");
    NCRYPT_KEY_HANDLE p384 = SeedAndOpen("p384", R"("kty":"EC","crv":"P-384")");
    NCRYPT_KEY_HANDLE p521 = SeedAndOpen("p521", R"("kty":"EC","crv":"P-521")");
    struct Row { NCRYPT_KEY_HANDLE key; size_t given, sent; } rows[] = {
        {p256, 20, 32}, {p256, 48, 32}, {p384, 64, 48}, {p521, 32, 64}, {p521, 48, 64}};
    for (const Row &row : rows) {
        SCOPED_TRACE(std::to_string(row.given) + " -> " + std::to_string(row.sent));
        std::vector<BYTE> hash = Bytes(row.given, 0x80), expected(row.sent, 0);
        if (row.given < row.sent)
            std::copy(hash.begin(), hash.end(), expected.end() - row.given);
        else
            expected.assign(hash.end() - row.sent, hash.end());
        std::vector<BYTE> signature = Sign(row.key, nullptr, hash, 0);
        EXPECT_EQ(FromBase64(CryptoRequests("value").back()), expected);
        // Verification resizes the same way and, unlike signing, lets NCRYPT_SILENT_FLAG through.
        EXPECT_EQ(Verify(row.key, nullptr, hash, NCRYPT_SILENT_FLAG, signature), 0);
        EXPECT_EQ(FromBase64(CryptoRequests("digest").back()), expected);
    }
}

TEST_F(SignVerify, ChecksComeBeforeTheVaultInTheirOwnOrder)
{
    NCRYPT_KEY_HANDLE rsa = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    NCRYPT_KEY_HANDLE ec = SeedAndOpen("p256", R"("kty":"EC","crv":"P-256")");
    KSP_KEY *blank = nullptr; // a key object that never met the vault: no sizes known
    ASSERT_EQ(CreateNewKeyObject(L"blank", L"RSA", &blank, NCRYPT_MACHINE_KEY_FLAG), 0);
    std::vector<BYTE> hash = Bytes(32, 7), good = Sign(rsa, L"SHA256", hash, kPkcs1);
    enum Target { Rsa, KeyAsProvider, NullKey, Blank, Ec };
    enum Out { Full, Small, NoBuffer, NoResult }; // NoResult: pcbResult null
    // cb: *pcbResult afterwards.
    struct Row { bool sign; Target target; DWORD finished, usage, flags; bool nullHash; DWORD cbHash; Out out;
        SECURITY_STATUS status; DWORD cb; } rows[] = {
        {true, KeyAsProvider, 1, 3, kPkcs1, false, 32, Full, NTE_INVALID_HANDLE, 0},
        {true, NullKey, 1, 3, kPkcs1, false, 32, Full, NTE_INVALID_HANDLE, 0},
        {true, Rsa, 1, 3, kPkcs1, false, 32, NoResult, NTE_INVALID_PARAMETER, 0},
        {true, Rsa, 0, 0, 0x1, false, 32, Full, NTE_BAD_FLAGS, 0},
        {true, Rsa, 0, 3, kPkcs1, false, 32, Full, NTE_BAD_KEY_STATE, 0},
        {true, Rsa, 1, NCRYPT_ALLOW_DECRYPT_FLAG, kPkcs1, true, 0, NoBuffer, NTE_PERM, 0},
        {true, Rsa, 1, 3, kPkcs1, true, 0, NoBuffer, 0, 256}, // the size query reads no hash
        {true, Blank, 1, 3, kPkcs1, false, 32, NoBuffer, 0, 512},
        {true, Rsa, 1, 3, kPkcs1, true, 32, Full, NTE_INVALID_PARAMETER, 0},
        {true, Rsa, 1, 3, kPkcs1, false, 0, Full, NTE_INVALID_PARAMETER, 0},
        {true, Rsa, 1, 3, kPkcs1, false, 32, Small, NTE_FAIL, 256},
        {false, NullKey, 1, 3, kPkcs1, false, 32, Full, NTE_INVALID_HANDLE, 0},
        {false, Rsa, 0, 3, kPkcs1, false, 32, Full, NTE_BAD_KEY_STATE, 0},
        {false, Rsa, 1, 3, kPkcs1, true, 32, Full, NTE_INVALID_PARAMETER, 0},
        {false, Rsa, 1, 3, 0x1, false, 32, Full, NTE_BAD_FLAGS, 0},
        {false, Rsa, 1, 0, kPkcs1, false, 32, Full, 0, 0}, // usage is not consulted
        {false, Rsa, 1, 3, 0, false, 32, Full, NTE_NOT_SUPPORTED, 0},
        {false, Ec, 1, 3, kPkcs1, false, 32, Full, NTE_NOT_SUPPORTED, 0},
    };
    BCRYPT_PKCS1_PADDING_INFO sha256 = {L"SHA256"};
    for (const Row &row : rows) {
        KSP_KEY *target = row.target == Blank ? blank : KspKeyFromHandle(rsa);
        target->fFinished = row.finished;
        target->dwKeyUsagePolicy = row.usage;
        auto key = row.target == NullKey ? 0 : row.target == Ec ? ec : reinterpret_cast<NCRYPT_KEY_HANDLE>(target);
        NCRYPT_PROV_HANDLE p = row.target == KeyAsProvider ? static_cast<NCRYPT_PROV_HANDLE>(rsa) : provider;
        PBYTE pbHash = row.nullHash ? nullptr : hash.data();
        std::vector<BYTE> out = row.out == Small ? std::vector<BYTE>(10) : good;
        DWORD cb = 0;
        EXPECT_EQ(row.sign ? Ksp().SignHash(p, key, &sha256, pbHash, row.cbHash,
                                            row.out == NoBuffer ? nullptr : out.data(), Size(out),
                                            row.out == NoResult ? nullptr : &cb, row.flags)
                           : Ksp().VerifySignature(p, key, &sha256, pbHash, row.cbHash, out.data(), Size(out),
                                                   row.flags),
                  row.status)
            << "row " << &row - rows;
        EXPECT_EQ(cb, row.cb) << "row " << &row - rows;
        target->fFinished = 1;
        target->dwKeyUsagePolicy = NCRYPT_ALLOW_DECRYPT_FLAG | NCRYPT_ALLOW_SIGNING_FLAG;
    }
    DeleteKeyObject(blank);
    EXPECT_EQ(CryptoRequests().size(), 3u); // the good signature, the small buffer, the unconsulted usage

    // Without a token neither entry reaches the vault's crypto.
    ScriptAnswers(emulator, "login", R"([{"status":400,"repeat":2,"body":{"error":"invalid_client"}}])");
    KspProviderFromHandle(provider)->kvcMachine->tokenExpiry = 0;
    SECURITY_STATUS status = 0;
    Sign(rsa, L"SHA256", hash, kPkcs1, &status);
    EXPECT_EQ(status, SEC_E_LOGON_DENIED);
    EXPECT_EQ(Verify(rsa, L"SHA256", hash, kPkcs1, good), SEC_E_LOGON_DENIED);
    EXPECT_EQ(CryptoRequests().size(), 3u);
}

TEST_F(SignVerify, RecordedRs256SignatureIsReproduced)
{
    // The key of the Python SDK's recorded sign_and_verify session. Its modulus comes with a leading
    // zero (257 bytes), which is dropped: the key is 2048 bits, its signatures 256 bytes.
    const std::string n = "AKCRTQAjSsaDshtMFdW-2Ie9yVnC5Xr1Suc06PAHINd10nXkVSB-N4TO62ClCkZV3XKnqU0nHo7o95WaZpym53W_DiO62umRtFKdl4UotL2QUh0y3SZWeWuoK2u_x2aMj17rUFN0f9GZMZ0pqEQNCPRBLVJ_-TEe2nGCWSC0exxGsRqz6R1zFkB-icfzQPe4WjQELOUXQ7J9RxhAPTTHtDivYYG-BeTRHrmF04JT1_6b9T_C8bAC0i0teT-nmlBLarQtBJKATXBx1yegbPOoiTqlQrFQP4MrKWNxtnB9Tcbjcvj-Z9je0ckI_eRc4DvAhqcUh_p15Dqg4GeaoNIO_jU";
    const std::string privateMembers =
        R"("d":"Ynx9JGaBSP4iUsf6ZJ6opantRNdcdmzaQrKbZg6ZQE8Ohi1FYabJWvaoPSE-CiJEsDzShXZHMhUHN4X7Bn8BXaGQhK3p9HXgiwQKmix7oAJTu4ElUIyd8UC3UWHSZr40el4PaQD-HYu_eMzCXus34MnRiNbh_BUWm6T-Eidhk9d3kNIyaSi9YNDQHW6tjWrEhhq63O7JU1j9ZonFChZxpKk20jdkQKQURVAdpOdL-5j4I70ZxFuU6wHZj8DS8oRQfwGOvZKbgYDb5jgf3UNL_7eACqq92XPVX56vm7iKbqeyjCqAIx5y3hrSRIJtZlWCwjYnYQGd4unxDLi8wmJWSQ",)"
        R"("p":"ANHerI1o3dLB_VLVmZZVss8VZSYN5SaeQ_0qhfOSgOFwj__waCFmy2EG7l6l6f_Z-Y0L7Mn_LNov68lyWSFa2EuQUeVj4UoFHc5Di8ZUGiSsTwFM-XMtNuv8HmGgDYLL5BIJD3eTz71LdgW-Ez38OZH34b7VeG8zfeUDb8Hi30zz",)"
        R"("q":"AMPcZrZBqbc82DO8Q5zTT8ZXRGWrW36KktMllaIk1W2RHnRiQiW0jBWmcCgqUcQNHa1LwumjyNqwx28QBS37BTvG7ULGUoio6LrOeoiBGEMj-U19sX6m37plEhj5Mak7j3OPPY_T9rohjTW5aGGg9YSwq4jdz0RrmBX00ofYOjI3",)"
        R"("dp":"AMmhWb5yZcu6vJr8xJZ-t0_likxJRUMZAtEULaWZt2DgODj4y9JrZDJP6mvckzhQP0WXk2NuWbU2HR5pUeCN2wieG1B76VKoH76vfnaJDqT1NuJVBcP2SLHog3ffwZtMME5zjfygchG3kihqOSpwTQ9ETAqAJTkRC38fEhwAz_Cp",)"
        R"("dq":"AKC9TAo9n2RDaggjdLXK8kiLrBVoaWFTpqXkzYXRhtsx4vWPAkxhfSnze05rVMl6HiXv7FnE0f0wYawzUJzoyuXBH0zS6D9BqCZPeF543AmWB27iPf38Q9Z8Rjr6oBgMSnGDV_mm8nDVQkeaDyE4cOZh-5UKvKShTKKQVwunmDNH",)"
        R"("qi":"AJ_nrkLpK8BPzVeARkvSHQyKwMWZ-a8CD95qsKfn0dOZAvXY-2xhQYTEwbED-0bpTNEKbIpA-ZkaHygmnzJkNbbFAnb9pkkzU8ZQqDP3JNgMfVIroWx58Oth9nJza2j7i-MkPRCUPEq3Ao0J52z7WJIiLji8TTVYW_NaiM1oxzsH")";
    const std::string recorded = "YX0IOuHlYW7IEVboW0c8M_geUfp2pKoCw7ujVZfXZOy0890603_QcjCSzuw_qUWehJ8IYVlfaXeF3Ebu36oB6cD8oG8OfI6rLM9BKQUR2KE5VoCBKAGit7FxhAnLRFGP69dF6gyO_wv_-zCJnXLIOg1Pu0K80WVSYkj6Wzczj35OQHEptDqRmxdwQoDYoEk5iYcb3JOeWC1frcGVEf9qs0yzwx1AbgkAOPElweovZZlleS6MALP0HTt7L5zJg7kjnCsuksVsEfM2R0_Mzt8nT24LczCNyZac50hHVkCepaZDRs26KodYnSs3doFlYOUJpCu8sxil7VBTEtFY38dENg";
    NCRYPT_KEY_HANDLE key =
        SeedAndOpen("livekvtestkeysignf85e13d6", R"("jwk":{"kty":"RSA","e":"AQAB","n":")" + n + "\"," + privateMembers +
                                                     R"(},"version":"ab42d2c7454a403b8bbe23839294b167")");
    DWORD cb = 0;
    EXPECT_EQ(Ksp().SignHash(provider, key, nullptr, nullptr, 0, nullptr, 0, &cb, kPkcs1) + cb, 256u);
    EXPECT_EQ(Sign(key, L"SHA256", FromBase64("vgZc0NQUb6WMKX___V2JntcFRO_vszKwSAj7R2rL1zg"), kPkcs1),
              FromBase64(recorded));
    EXPECT_EQ(VaultRequests().back().url,
              "/keys/livekvtestkeysignf85e13d6/ab42d2c7454a403b8bbe23839294b167/sign?api-version=7.0");

    // Exported as any 2048-bit modulus: behind one zero byte.
    std::vector<BYTE> blob = ExportKeyBlob(Ksp(), provider, key, BCRYPT_RSAPUBLIC_BLOB);
    ASSERT_EQ(blob.size(), sizeof(BCRYPT_RSAKEY_BLOB) + 3 + 257);
    const auto *header = reinterpret_cast<const BCRYPT_RSAKEY_BLOB *>(blob.data());
    EXPECT_EQ(header->BitLength * 1000 + header->cbModulus, 2048u * 1000 + 257);
    EXPECT_EQ(std::vector<BYTE>(blob.end() - 257, blob.end()), FromBase64(n));
}
