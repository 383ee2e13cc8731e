#include <gtest/gtest.h>

#include <stdlib.h>

#include <iterator>
#include <string>
#include <vector>

#include "support/bldstr.h"
#include "tests/support/logfolder.h"

using namespace kestal_test;
using Bytes = std::vector<BYTE>;

TEST(Base64, EveryDecoderAcceptsUrlSafeAndMissingPadding)
{
    const struct {
        const WCHAR *text;
        Bytes bytes;
    } rows[] = {{L"SGk", {'H', 'i'}}, {L"-_8", {0xFB, 0xFF}}, {L"+/8=", {0xFB, 0xFF}}, {L"YQ", {'a'}}};
    for (const auto &row : rows) {
        BYTE buffer[16] = {};
        BYTE *pb = buffer;
        DWORD cb = sizeof(buffer);
        EXPECT_EQ(BldBinFromBase64(row.text, buffer, &cb), 1);
        EXPECT_EQ(Bytes(buffer, buffer + cb), row.bytes);
        cb = sizeof(buffer);
        EXPECT_EQ(KKVKSP_FromBase64(row.text, buffer, &cb), 1);
        EXPECT_EQ(Bytes(buffer, buffer + cb), row.bytes);
        cb = sizeof(buffer);
        EXPECT_EQ(KVCKKVKSP_FromBase64(row.text, &pb, &cb, FALSE), 1);
        EXPECT_EQ(Bytes(buffer, buffer + cb), row.bytes);
    }
}

TEST(Base64, FromBase64SizesChecksAndAllocates)
{
    BYTE one[1] = {};
    BYTE *pb = one;
    DWORD cb = sizeof(one);
    EXPECT_EQ(KVCKKVKSP_FromBase64(L"SGk", &pb, &cb, FALSE), 0);
    EXPECT_EQ(cb, 2u) << "too small: the needed size";

    pb = nullptr;
    EXPECT_EQ(KVCKKVKSP_FromBase64(L"SGk", &pb, &cb, TRUE), 1);
    ASSERT_NE(pb, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(pb), 4), std::string("Hi\0\0", 4));
    free(pb);
}

TEST(Base64, EncodesStandardAlphabetPaddedOnOneLine)
{
    Bytes bytes(100, 0xFB);
    WCHAR *psz = KVCKKVKSP_ToBase64(bytes.data(), static_cast<DWORD>(bytes.size()));
    ASSERT_NE(psz, nullptr);
    std::wstring text = psz;
    free(psz);
    EXPECT_EQ(text.size(), 136u);
    EXPECT_EQ(text.find_first_of(L"\r\n"), std::wstring::npos);
    EXPECT_EQ(text.substr(128), L"+/v7+w==");
}

using Base64Failures = LogFolderTest;

TEST_F(Base64Failures, InvalidOrOverLongInputFailsCleanly)
{
    Attach(0, 10);
    g_events.clear();
    BYTE buffer[4096];
    BYTE *pb = buffer;
    DWORD cb = sizeof(buffer);
    std::wstring huge(4096, L'A');
    EXPECT_EQ(KKVKSP_FromBase64(L"S*k", buffer, &cb), 0);
    EXPECT_EQ(KVCKKVKSP_FromBase64(L"S*k", &pb, &cb, FALSE), 0);
    EXPECT_EQ(KKVKSP_FromBase64(huge.c_str(), buffer, &cb), 0);
    EXPECT_EQ(KVCKKVKSP_FromBase64(huge.c_str(), &pb, &cb, FALSE), 0);
    cb = sizeof(buffer);
    EXPECT_EQ(BldBinFromBase64(huge.c_str(), buffer, &cb), 1) << "its copy is on the heap";
    EXPECT_EQ(cb, 3072u);

    const WCHAR *messages[] = {L"KKVKSP_FromBase64 CryptStringToBinary Failed",
                               L"KVCKKVKSP_FromBase64 CryptStringToBinaryW 1 Failed", L"KKVKSP_FromBase64 Input Too Long",
                               L"KVCKKVKSP_FromBase64 Input Too Long", L"BldBinFromBase64"};
    ASSERT_EQ(g_events.size(), std::size(messages));
    for (size_t i = 0; i < std::size(messages); i++)
        EXPECT_EQ(g_events[i].message, messages[i]);
}
