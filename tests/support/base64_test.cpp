#include <gtest/gtest.h>

#include "support/bldstr.h"
#include "tests/harness/harness.h"

using namespace kestal_test;

using Base64 = VaultProviderTest;

// Vault answers come URL-safe and unpadded, certificates long; text that is not whole bytes fails cleanly.
TEST_F(Base64, EveryDecoderTakesUrlSafeUnpaddedTextOfAnyLengthAndRefusesWhatIsNotWholeBytes)
{
    const struct { std::wstring text; Bytes want; int ok = 1; } rows[] = {
        {.text = L"-_8", .want = {0xFB, 0xFF}},
        {.text = L"+/8=", .want = {0xFB, 0xFF}},
        {.text = L"SGk", .want = {'H', 'i'}},
        {.text = std::wstring(4096, L'A'), .want = Bytes(3072, 0)}, // the normalised copy is on the heap
        {.text = L"S*k", .ok = 0},
        {.text = L"SGkAB", .ok = 0}, // a lone fifth character
    };
    for (const auto &row : rows)
        for (int decoder = 0; decoder < 3; ++decoder) {
            BYTE buffer[4096] = {}, *pb = buffer;
            DWORD cb = sizeof(buffer);
            EXPECT_EQ(decoder == 0   ? BldBinFromBase64(row.text.c_str(), buffer, &cb)
                      : decoder == 1 ? KKVKSP_FromBase64(row.text.c_str(), buffer, &cb)
                                     : KVCKKVKSP_FromBase64(row.text.c_str(), &pb, &cb, FALSE),
                      row.ok)
                << decoder << " " << Narrow(row.text.substr(0, 8));
            EXPECT_EQ(Bytes(buffer, buffer + (row.ok ? cb : 0)), row.want) << decoder;
        }
}

TEST_F(Base64, FromBase64SizesAllocatesAndEncoderPadsOnOneLine)
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
    EXPECT_EQ(text.size(), 136u); // no line breaks
    EXPECT_EQ(text.substr(128), L"+/v7+w==");
}
