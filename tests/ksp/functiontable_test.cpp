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

TEST(FunctionTable, SlotsHoldTheEntriesInTableOrder)
{
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table = nullptr;
    ASSERT_EQ(GetKeyStorageInterface(KSP_PROVIDER_NAME, &table, 0), 0);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->Version.MajorVersion, 1);
    EXPECT_EQ(table->Version.MinorVersion, 0);
    const void *expected[26] = {
        reinterpret_cast<const void *>(KestalKeyVaultKSPOpenProvider),
        reinterpret_cast<const void *>(KestalKeyVaultKSPOpenKey),
        reinterpret_cast<const void *>(KestalKeyVaultKSPCreatePersistedKey),
        reinterpret_cast<const void *>(KestalKeyVaultKSPGetProviderProperty),
        reinterpret_cast<const void *>(KestalKeyVaultKSPGetKeyProperty),
        reinterpret_cast<const void *>(KestalKeyVaultKSPSetProviderProperty),
        reinterpret_cast<const void *>(KestalKeyVaultKSPSetKeyProperty),
        reinterpret_cast<const void *>(KestalKeyVaultKSPFinalizeKey),
        reinterpret_cast<const void *>(KestalKeyVaultKSPDeleteKey),
        reinterpret_cast<const void *>(KestalKeyVaultKSPFreeProvider),
        reinterpret_cast<const void *>(KestalKeyVaultKSPFreeKey),
        reinterpret_cast<const void *>(KestalKeyVaultKSPFreeBuffer),
        reinterpret_cast<const void *>(KestalKeyVaultKSPEncrypt),
        reinterpret_cast<const void *>(KestalKeyVaultKSPDecrypt),
        reinterpret_cast<const void *>(KestalKeyVaultKSPIsAlgSupported),
        reinterpret_cast<const void *>(KestalKeyVaultKSPEnumAlgorithms),
        reinterpret_cast<const void *>(KestalKeyVaultKSPEnumKeys),
        reinterpret_cast<const void *>(KestalKeyVaultKSPImportKey),
        reinterpret_cast<const void *>(KestalKeyVaultKSPExportKey),
        reinterpret_cast<const void *>(KestalKeyVaultKSPSignHash),
        reinterpret_cast<const void *>(KestalKeyVaultKSPVerifySignature),
        reinterpret_cast<const void *>(KestalKeyVaultKSPPromptUser),
        reinterpret_cast<const void *>(KestalKeyVaultKSPNotifyChangeKey),
        reinterpret_cast<const void *>(KestalKeyVaultKSPSecretAgreement),
        reinterpret_cast<const void *>(KestalKeyVaultKSPDeriveKey),
        reinterpret_cast<const void *>(KestalKeyVaultKSPFreeSecret),
    };
    auto slots = reinterpret_cast<void *const *>(&table->OpenProvider);
    for (int i = 0; i < 26; ++i)
        EXPECT_EQ(slots[i], expected[i]) << "slot " << i + 1;
}
