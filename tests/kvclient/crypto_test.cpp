#include "tests/harness/harness.h"

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

constexpr char kVersion[] = "00112233445566778899aabbccddeeff";
constexpr wchar_t kVersionW[] = L"00112233445566778899aabbccddeeff";

BYTE *Bytes(std::string &s) { return reinterpret_cast<BYTE *>(s.data()); }

class Crypto : public VaultProviderTest {
protected:
    void SetUp() override
    {
        VaultProviderTest::SetUp();
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest");
        kvc = SignedInMachineClient();
    }
    // A non-verifying operation on "k": the bytes given back.
    SECURITY_STATUS Op(const wchar_t *action, const wchar_t *alg, std::string input, std::string *out,
                       const wchar_t *version = kVersionW)
    {
        out->assign(1024, '\0');
        DWORD cb = 1024;
        SECURITY_STATUS status = KVCCryptoOp(kvc, action, L"k", version, FALSE, alg, Bytes(input),
                                             DWORD(input.size()), Bytes(*out), &cb);
        out->resize(cb);
        return status;
    }
    SECURITY_STATUS Verify(const wchar_t *alg, std::string digest, std::string sig)
    {
        DWORD cb = DWORD(digest.size());
        return KVCCryptoOp(kvc, L"verify", L"k", kVersionW, TRUE, alg, Bytes(sig), DWORD(sig.size()),
                           Bytes(digest), &cb);
    }
    KVC *kvc = nullptr;
};

} // namespace

// Each operation is one request of its own shape, to the key's version or, given none, its latest.
TEST_F(Crypto, SignVerifyAndEncryptEachSendOneExactRequestAndOnlyAJsonTrueVerifies)
{
    SeedKey(emulator, L"kestaltest", "k", R"("kty":"RSA","key_size":2048,"version":")" + std::string(kVersion) + "\"");
    std::string digest(32, '\xfb'), sig, ciphertext;
    ASSERT_EQ(Op(L"sign", L"RS256", digest, &sig), 0);
    ScriptAnswers(emulator, "vault", R"([{"status":200,"body":{"value":true}}])", "POST");
    EXPECT_EQ(Verify(L"RS256", "\xfb\xff", "\xff\xfe"), 0);
    ASSERT_EQ(Op(L"encrypt", L"RSA-OAEP", "attack at dawn", &ciphertext, nullptr), 0); // latest version
    EXPECT_EQ(ciphertext.size(), 256u);
    std::vector<std::string> calls;
    for (const SeenRequest &r : VaultRequests())
        calls.push_back(r.method + " " + r.url + " " + r.body);
    const std::string prefix = "POST /keys/k/" + std::string(kVersion);
    const std::string digest64 = "+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/s=";
    EXPECT_EQ(calls,
              (std::vector<std::string>{
                  prefix + R"(/sign?api-version=7.0 {"alg":"RS256","value":")" + digest64 + "\"}",
                  prefix + R"(/verify?api-version=7.0 {"alg":"RS256","digest":"+/8=","value":"//4="})",
                  R"(POST /keys/k//encrypt?api-version=7.0 {"alg":"RSA-OAEP","value":"YXR0YWNrIGF0IGRhd24="})"}));

    // Only a JSON true verifies; an answer that cannot be read is never taken for a result.
    const struct { const char *answer; BOOL fVerify; SECURITY_STATUS expected; } rows[] = {
        {R"({"status":200,"body":{"value":true}})", TRUE, 0},
        {R"({"status":200,"body":{"value":"true"}})", TRUE, NTE_BAD_SIGNATURE},
        {R"({"status":200,"body":"not json"})", TRUE, NTE_INVALID_PARAMETER},
        {R"({"status":200})", TRUE, NTE_FAIL},
        {R"({"status":403,"body":{"error":{}}})", FALSE, NTE_FAIL},
    };
    std::string all;
    for (const auto &row : rows)
        all += (all.empty() ? "" : ",") + std::string(row.answer);
    ScriptAnswers(emulator, "vault", "[" + all + "]", "POST");
    const size_t before = VaultRequests().size();
    for (const auto &row : rows) {
        std::string out;
        EXPECT_EQ(row.fVerify ? Verify(L"ES256", "d", "s") : Op(L"sign", L"ES256", "d", &out), row.expected)
            << row.answer;
    }
    EXPECT_EQ(VaultRequests().size(), before + std::size(rows));
}
