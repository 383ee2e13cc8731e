#include <gtest/gtest.h>

#include "support/bldstr.h"
#include "tests/harness/harness.h"

using namespace kestal_test;

TEST(Base64, EveryDecoderAcceptsUrlSafeAndMissingPadding)
{
    const std::pair<const WCHAR *, Bytes> rows[] = {
        {L"SGk", {'H', 'i'}}, {L"-_8", {0xFB, 0xFF}}, {L"+/8=", {0xFB, 0xFF}}, {L"YQ", {'a'}}};
    for (const auto &[text, bytes] : rows)
        for (int decoder = 0; decoder < 3; ++decoder) {
            BYTE buffer[16] = {}, *pb = buffer;
            DWORD cb = sizeof(buffer);
            EXPECT_EQ(decoder == 0   ? BldBinFromBase64(text, buffer, &cb)
                      : decoder == 1 ? KKVKSP_FromBase64(text, buffer, &cb)
                                     : KVCKKVKSP_FromBase64(text, &pb, &cb, FALSE),
                      1);
            EXPECT_EQ(Bytes(buffer, buffer + cb), bytes) << decoder;
        }
}

TEST(Base64, FromBase64SizesAllocatesAndEncoderPadsOnOneLine)
{
    BYTE one[1], *pb = one;
    DWORD cb = sizeof(one);
    EXPECT_EQ(KVCKKVKSP_FromBase64(L"SGk", &pb, &cb, FALSE), 0);
    EXPECT_EQ(cb, 2u) << "too small: the needed size";
    pb = nullptr;
    EXPECT_EQ(KVCKKVKSP_FromBase64(L"SGk", &pb, &cb, TRUE), 1);
    ASSERT_NE(pb, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(pb), 4), std::string("Hi\0\0", 4));
    free(pb);

    Bytes bytes(100, 0xFB);
    WCHAR *psz = KVCKKVKSP_ToBase64(bytes.data(), 100);
    ASSERT_NE(psz, nullptr);
    std::wstring text = psz;
    free(psz);
    EXPECT_EQ(text.size(), 136u);
    EXPECT_EQ(text.find_first_of(L"\r\n"), std::wstring::npos);
    EXPECT_EQ(text.substr(128), L"+/v7+w==");
}

using Base64Failures = VaultProviderTest;

TEST_F(Base64Failures, InvalidInputOrALoneLastCharacterFailsCleanlyAndAnyLengthDecodes)
{
    Attach(0, 10);
    g_events.clear();
    BYTE buffer[4096], *pb = buffer;
    DWORD cb = sizeof(buffer);
    std::wstring huge(4096, L'A');
    EXPECT_EQ(KKVKSP_FromBase64(L"S*k", buffer, &cb), 0);
    EXPECT_EQ(KVCKKVKSP_FromBase64(L"S*k", &pb, &cb, FALSE), 0);
    EXPECT_EQ(KKVKSP_FromBase64(L"SGkAB", buffer, &cb), 0); // a lone fifth character: no whole bytes
    EXPECT_EQ(KVCKKVKSP_FromBase64(L"A", &pb, &cb, FALSE), 0);
    for (int decoder = 0; decoder < 3; ++decoder) { // the copies are on the heap
        cb = sizeof(buffer);
        EXPECT_EQ(decoder == 0   ? BldBinFromBase64(huge.c_str(), buffer, &cb)
                  : decoder == 1 ? KKVKSP_FromBase64(huge.c_str(), buffer, &cb)
                                 : KVCKKVKSP_FromBase64(huge.c_str(), &pb, &cb, FALSE),
                  1);
        EXPECT_EQ(cb, 3072u);
    }
    std::vector<std::wstring> messages;
    for (const RecordedEvent &e : g_events)
        messages.push_back(e.message);
    EXPECT_EQ(messages, (std::vector<std::wstring>{L"KKVKSP_FromBase64 CryptStringToBinary Failed",
                                                   L"KVCKKVKSP_FromBase64 CryptStringToBinaryW 1 Failed",
                                                   L"KKVKSP_FromBase64 Not Whole Bytes",
                                                   L"KVCKKVKSP_FromBase64 Not Whole Bytes", L"BldBinFromBase64"}));
}
