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
    // A new key "k" of version kVersion.
    void Key(const std::string &members = R"("kty":"RSA","key_size":2048)")
    {
        SeedKey(emulator, L"kestaltest", "k", members + R"(,"version":")" + kVersion + "\"");
    }
    // A non-verifying operation on "k": the bytes given back (capacity bytes of room, or none).
    SECURITY_STATUS Op(const wchar_t *action, const wchar_t *alg, std::string input, std::string *out,
                       DWORD capacity = 1024, const wchar_t *version = kVersionW)
    {
        out->assign(capacity, '\xee');
        DWORD cb = capacity;
        SECURITY_STATUS status = KVCCryptoOp(kvc, action, L"k", version, FALSE, alg, Bytes(input),
                                             DWORD(input.size()), capacity ? Bytes(*out) : nullptr, &cb);
        out->resize(cb);
        return status;
    }
    SECURITY_STATUS Verify(const wchar_t *alg, std::string digest, std::string sig)
    {
        DWORD cb = DWORD(digest.size());
        return KVCCryptoOp(kvc, L"verify", L"k", kVersionW, TRUE, alg, Bytes(sig), DWORD(sig.size()),
                           Bytes(digest), &cb);
    }
    // "METHOD url body" of every vault request since the last call.
    std::vector<std::string> Calls()
    {
        std::vector<std::string> calls;
        for (const SeenRequest &r : VaultRequests())
            calls.push_back(r.method + " " + r.url + " " + r.body);
        emulator.Call(L"DELETE", L"/requests");
        return calls;
    }
    KVC *kvc = nullptr;
};

} // namespace

TEST_F(Crypto, OneExactRequestPerCallEvenForLengthQueriesAndShortBuffers)
{
    Key();
    std::string digest(32, '\xfb'), sig, ciphertext, plaintext;
    ASSERT_EQ(Op(L"sign", L"RS256", digest, &sig), 0); // a result buffer is passed, yet no digest goes out
    ScriptAnswers(emulator, "vault", R"([{"status":200,"body":{"value":true}}])", "POST");
    EXPECT_EQ(Verify(L"RS256", "\xfb\xff", "\xff\xfe"), 0);
    ASSERT_EQ(Op(L"encrypt", L"RSA-OAEP", "attack at dawn", &ciphertext, 1024, nullptr), 0); // latest version
    EXPECT_EQ(ciphertext.size(), 256u);
    const std::string prefix = "POST /keys/k/" + std::string(kVersion);
    const std::string digest64 = "+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/v7+/s=";
    EXPECT_EQ(Calls(),
              (std::vector<std::string>{
                  prefix + R"(/sign?api-version=7.0 {"alg":"RS256","value":")" + digest64 + "\"}",
                  prefix + R"(/verify?api-version=7.0 {"alg":"RS256","digest":"+/8=","value":"//4="})",
                  R"(POST /keys/k//encrypt?api-version=7.0 {"alg":"RSA-OAEP","value":"YXR0YWNrIGF0IGRhd24="})"}));

    EXPECT_EQ(Op(L"decrypt", L"RSA-OAEP", ciphertext, &plaintext, 0), 0); // no output: the length
    EXPECT_EQ(plaintext.size(), 14u);
    EXPECT_EQ(Op(L"decrypt", L"RSA-OAEP", ciphertext, &plaintext, 13), NTE_FAIL);
    EXPECT_EQ(plaintext.size(), 14u);
    EXPECT_EQ(plaintext.substr(0, 13), std::string(13, '\xee')); // nothing copied
    ASSERT_EQ(Op(L"decrypt", L"RSA-OAEP", ciphertext, &plaintext, 14), 0);
    EXPECT_EQ(plaintext, "attack at dawn");
    EXPECT_EQ(Calls().size(), 3u);
}

TEST_F(Crypto, AnswersMapToStatusesAndOnlyAJsonTrueVerifies)
{
    const struct { const char *answer; BOOL fVerify; SECURITY_STATUS expected; } rows[] = {
        {R"({"status":200,"body":{"value":true}})", TRUE, 0},
        {R"({"status":200,"body":{"value":false}})", TRUE, NTE_BAD_SIGNATURE},
        {R"({"status":200,"body":{"value":"true"}})", TRUE, NTE_BAD_SIGNATURE},
        {R"({"status":200,"body":{}})", TRUE, NTE_INVALID_PARAMETER},
        {R"({"status":200,"body":"not json"})", TRUE, NTE_INVALID_PARAMETER},
        {R"({"status":200})", TRUE, NTE_FAIL},
        {R"({"status":201,"body":{"value":true}})", TRUE, NTE_FAIL},
        {R"({"status":403,"body":{"error":{}}})", FALSE, NTE_FAIL},
        {R"({"status":200,"body":{"value":7}})", FALSE, NTE_INVALID_PARAMETER},
        {R"({"status":200,"body":{"value":"a!b"}})", FALSE, NTE_INVALID_PARAMETER},
        {R"({"status":200,"body":{"value":"SGk"}})", FALSE, 0},
    };
    std::string all;
    for (const auto &row : rows)
        all += (all.empty() ? "" : ",") + std::string(row.answer);
    ScriptAnswers(emulator, "vault", "[" + all + "]", "POST");
    for (const auto &row : rows) {
        std::string out;
        EXPECT_EQ(row.fVerify ? Verify(L"ES256", "d", "s") : Op(L"sign", L"ES256", "d", &out), row.expected)
            << row.answer;
    }
    EXPECT_EQ(Calls().size(), std::size(rows));
}

TEST_F(Crypto, ThrottlingAllowsFiveCallsThenEndsInInvalidParameter)
{
    Key();
    std::string digest(32, 'd'), sig;
    ScriptAnswers(emulator, "vault", R"([{"status":429,"body":{"error":{}},"repeat":5},{"status":429},{"pass":true}])",
                  "POST");
    EXPECT_EQ(Op(L"sign", L"RS256", digest, &sig), NTE_INVALID_PARAMETER);
    EXPECT_EQ(Calls().size(), 5u);
    EXPECT_EQ(time.waits, (std::vector<DWORD>{1000, 2000, 4000, 8000, 16000}));

    time.waits.clear();
    EXPECT_EQ(Op(L"sign", L"RS256", digest, &sig), 0); // one 429, then the vault signs
    EXPECT_EQ(sig.size(), 256u);
    EXPECT_EQ(time.waits, std::vector<DWORD>{1000});
    EXPECT_EQ(Calls().size(), 2u);
}
