// The walls of the test world seen from a Windows program, through the WinHTTP the provider uses.
#include "tests/harness/harness.h"

#include <winhttp.h>

using namespace kestal_test;

TEST(World, AddressesAndNamesOutsideTheWorldAreUnreachable)
{
    EXPECT_EQ(HttpSend({L"http://192.0.2.1/"}).error, static_cast<DWORD>(ERROR_WINHTTP_CANNOT_CONNECT));
    EXPECT_EQ(HttpSend({L"https://management.azure.com/"}).error, static_cast<DWORD>(ERROR_WINHTTP_NAME_NOT_RESOLVED));
}
