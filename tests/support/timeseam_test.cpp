#include <gtest/gtest.h>

#include "tests/harness/harness.h"

using kestal_test::FakeTime;

TEST(TimeSeam, FakeTimeRecordsWaitsAndAdvancesTheClock)
{
    {
        FakeTime time(1000);
        KspSleep(1500);
        KspSleep(200);
        KspSleep(300);
        EXPECT_EQ(time.waits, (std::vector<DWORD>{1500, 200, 300}));
        EXPECT_EQ(KspTime(), 1002);
    }
    // Restored: the real clock again.
    EXPECT_GT(KspTime(), 1'600'000'000);
}
