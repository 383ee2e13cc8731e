// Many threads on one provider and one key handle, as TLS servers and signing services use it.
#include "tests/harness/harness.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

using namespace kestal_test;

namespace {

constexpr int kThreads = 8;

// Runs body(thread index) on kThreads threads started together (CTest's timeout fails a hang).
void OnThreads(const std::function<void(int)> &body)
{
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            ++ready;
            while (ready < kThreads)
                SwitchToThread();
            body(t);
        });
    for (std::thread &thread : threads)
        thread.join();
}

class Threads : public VaultKeyTest {
protected:
    // Signs the SHA-256 of text: the status, or BCrypt's verdict on the signature when given the public key.
    LONG SignAndVerify(Via via, NCRYPT_PROV_HANDLE prov, NCRYPT_KEY_HANDLE key, BCRYPT_KEY_HANDLE publicKey,
                       const std::string &text, bool rsa)
    {
        BCRYPT_PKCS1_PADDING_INFO pkcs1 = {BCRYPT_SHA256_ALGORITHM};
        std::vector<BYTE> hash = HashOf(BCRYPT_SHA256_ALGORITHM, text);
        BYTE signature[512];
        DWORD cb = 0;
        SECURITY_STATUS status = Ksp(via).SignHash(prov, key, rsa ? &pkcs1 : nullptr, hash.data(), 32, signature,
                                                   sizeof(signature), &cb, rsa ? BCRYPT_PAD_PKCS1 : 0);
        if (status != 0 || !publicKey)
            return status;
        return BCryptVerifySignature(publicKey, rsa ? &pkcs1 : nullptr, hash.data(), 32, signature, cb,
                                     rsa ? BCRYPT_PAD_PKCS1 : 0);
    }
};

} // namespace

TEST_F(Threads, EveryThreadGetsItsOwnPlaintextAndSignaturesThatVerifyAndCallsOverlapAtTheVault)
{
    NCRYPT_KEY_HANDLE rsa = SeedAndOpen("rsa", R"("kty":"RSA","key_size":2048)");
    NCRYPT_KEY_HANDLE ec = SeedAndOpen("p256", R"("kty":"EC","crv":"P-256")");
    BcryptKey rsaPublic = ImportPublicBlob(ExportKeyBlob(Ksp(), provider, rsa, BCRYPT_RSAPUBLIC_BLOB));
    BcryptKey ecPublic = ImportPublicBlob(ExportKeyBlob(Ksp(), provider, ec, BCRYPT_ECCPUBLIC_BLOB));
    ASSERT_TRUE(rsaPublic && ecPublic);
    emulator.Call(L"PUT", L"/vaults/kestaltest", R"({"latencyMs":50})");

    // Per thread: the decryption's status, whether the plaintext came back, BCrypt's verdicts on RSA and EC.
    std::vector<std::vector<LONG>> results(kThreads);
    OnThreads([&](int t) {
        std::string mine = "thread " + std::to_string(t);
        std::vector<BYTE> plain(mine.begin(), mine.end()), cipher(256), back(256);
        DWORD cb = 0;
        SECURITY_STATUS status = Ksp().Encrypt(provider, rsa, plain.data(), static_cast<DWORD>(plain.size()), nullptr,
                                               cipher.data(), 256, &cb, NCRYPT_PAD_OAEP_FLAG);
        if (status == 0)
            status =
                Ksp().Decrypt(provider, rsa, cipher.data(), cb, nullptr, back.data(), 256, &cb, NCRYPT_PAD_OAEP_FLAG);
        back.resize(status == 0 ? cb : 0);
        results[t] = {status, back == plain, SignAndVerify(Via::Dll, provider, rsa, rsaPublic.get(), mine, true),
                      SignAndVerify(Via::Dll, provider, ec, ecPublic.get(), mine, false)};
    });
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(results[t], (std::vector<LONG>{0, 1, 0, 0})) << "thread " << t;
    EXPECT_EQ(CryptoRequests().size(), static_cast<size_t>(kThreads * 4));
    int most = 0;
    for (const SeenRequest &r : VaultRequests())
        if (r.url.find("/sign?") != std::string::npos)
            most = std::max(most, r.inFlight);
    EXPECT_GE(most, 4); // serialised per handle, the two handles would allow two at once
}

TEST_F(Threads, OneTokenRequestServesEveryThreadAndOneRenewsItWhenItIsUsedUp)
{
    // Through the core, whose clock the test holds.
    NCRYPT_PROV_HANDLE core = OpenProvider(Via::Core);
    SeedKey(emulator, L"kestaltest", "p256", R"("kty":"EC","crv":"P-256")");
    NCRYPT_KEY_HANDLE key = 0;
    ASSERT_EQ(Ksp(Via::Core).OpenKey(core, &key, L"p256", 0, NCRYPT_MACHINE_KEY_FLAG), 0);
    const size_t afterOpen = SeenRequests(emulator, L"login").size();
    for (int phase = 0; phase < 2; ++phase) {
        std::vector<SECURITY_STATUS> statuses(kThreads, -1);
        OnThreads([&](int t) { statuses[t] = SignAndVerify(Via::Core, core, key, nullptr, std::to_string(t), false); });
        EXPECT_EQ(statuses, std::vector<SECURITY_STATUS>(kThreads, 0)) << "phase " << phase;
        EXPECT_EQ(SeenRequests(emulator, L"login").size(), afterOpen + phase) << "phase " << phase;
        time.now += 3600; // every token the emulator issues is used up by now
    }
    Ksp(Via::Core).FreeKey(core, key);
}
