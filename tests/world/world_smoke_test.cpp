// The walls of the test world seen from a Windows program, through the WinHTTP the provider uses.
// (That the world's names, trust and services work, every provider test shows.)
#include "tests/harness/harness.h"

#include <gtest/gtest.h>
#include <winhttp.h>

using namespace kestal_test;

TEST(World, UntrustedServerCertificatesAndAddressesOutsideTheWorldAreUnreachable)
{
    Emulator emulator;
    emulator.Reset();
    HttpResult r = HttpSend({L"https://kestaltest.vault.azure.net:9443/keys?api-version=2016-10-01"});
    // Wine reports 12157 (secure channel error) where Windows reports 12175 (secure failure).
    EXPECT_TRUE(r.error == ERROR_WINHTTP_SECURE_FAILURE || r.error == ERROR_WINHTTP_SECURE_CHANNEL_ERROR) << r.error;
    EXPECT_EQ(r.status, 0u);
    EXPECT_TRUE(SeenRequests(emulator, L"vault").empty());
    EXPECT_EQ(HttpSend({L"http://192.0.2.1/"}).error, static_cast<DWORD>(ERROR_WINHTTP_CANNOT_CONNECT));
    EXPECT_EQ(HttpSend({L"https://management.azure.com/"}).error, static_cast<DWORD>(ERROR_WINHTTP_NAME_NOT_RESOLVED));
}
