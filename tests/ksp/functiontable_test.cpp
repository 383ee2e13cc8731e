#include <gtest/gtest.h>

#include "tests/harness/harness.h"

using kestal_test::KspRouter;

TEST(FunctionTable, RouterLoadsTheDllAndFindsAFullVersionOneTable)
{
    std::string why;
    auto router = KspRouter::LoadDll(&why);
    ASSERT_TRUE(router) << why;

    // The table is static: every call hands out the same one, whatever the name or flags.
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *again = nullptr;
    EXPECT_EQ(GetKeyStorageInterface(nullptr, &again, 0xFFFFFFFF), 0);
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(KspRouter::CheckTable(again, &why)) << why;
}

TEST(FunctionTable, EntriesNotBuiltYetAnswerNotSupported)
{
    std::string why;
    auto router = KspRouter::LoadDll(&why);
    ASSERT_TRUE(router) << why;
    NCRYPT_PROV_HANDLE provider = 0;
    EXPECT_EQ(router->ksp().OpenProvider(&provider, KSP_PROVIDER_NAME, 0), NTE_NOT_SUPPORTED);
    EXPECT_EQ(router->ksp().IsAlgSupported(0, L"RSA", 0), NTE_NOT_SUPPORTED);
}
