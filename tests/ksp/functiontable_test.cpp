#include "tests/harness/harness.h"

using namespace kestal_test;

#define KSP_SLOT(name) reinterpret_cast<const void *>(KestalKeyVaultKSP##name)

TEST(FunctionTable, VersionOneTableHoldsTheEntriesInTableOrder)
{
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *table = nullptr;
    ASSERT_EQ(GetKeyStorageInterface(KSP_PROVIDER_NAME, &table, 0), 0);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->Version.MajorVersion, 1);
    EXPECT_EQ(table->Version.MinorVersion, 0);
    const void *expected[26] = {
        KSP_SLOT(OpenProvider),      KSP_SLOT(OpenKey),          KSP_SLOT(CreatePersistedKey),
        KSP_SLOT(GetProviderProperty), KSP_SLOT(GetKeyProperty), KSP_SLOT(SetProviderProperty),
        KSP_SLOT(SetKeyProperty),    KSP_SLOT(FinalizeKey),      KSP_SLOT(DeleteKey),
        KSP_SLOT(FreeProvider),      KSP_SLOT(FreeKey),          KSP_SLOT(FreeBuffer),
        KSP_SLOT(Encrypt),           KSP_SLOT(Decrypt),          KSP_SLOT(IsAlgSupported),
        KSP_SLOT(EnumAlgorithms),    KSP_SLOT(EnumKeys),         KSP_SLOT(ImportKey),
        KSP_SLOT(ExportKey),         KSP_SLOT(SignHash),         KSP_SLOT(VerifySignature),
        KSP_SLOT(PromptUser),        KSP_SLOT(NotifyChangeKey),  KSP_SLOT(SecretAgreement),
        KSP_SLOT(DeriveKey),         KSP_SLOT(FreeSecret),
    };
    auto slots = reinterpret_cast<void *const *>(&table->OpenProvider);
    for (int i = 0; i < 26; ++i)
        EXPECT_EQ(slots[i], expected[i]) << "slot " << i + 1;
}
