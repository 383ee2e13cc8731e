#include <gtest/gtest.h>

#include "tests/harness/harness.h"

TEST(TimeSeam, FakeTimeRecordsWaitsAndAdvancesTheClockUntilRestored)
{
    {
        kestal_test::FakeTime time(1000);
        for (DWORD ms : {1500, 200, 300})
            KspSleep(ms);
        EXPECT_EQ(time.waits, (std::vector<DWORD>{1500, 200, 300}));
        EXPECT_EQ(KspTime(), 1002);
    }
    EXPECT_GT(KspTime(), 1'600'000'000);
}
