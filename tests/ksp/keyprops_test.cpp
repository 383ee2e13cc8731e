#include "tests/harness/harness.h"

#include <gtest/gtest.h>

using namespace kestal_test;

namespace {

// Keys created but never finalized: their properties need no vault.
class KeyProps : public VaultProviderTest {
protected:
    void SetUp() override
    {
        VaultProviderTest::SetUp();
        UseVault(HKEY_CURRENT_USER, L"kestaltest");
    }
    // A provider whose user scope has this ExportableOption.
    NCRYPT_PROV_HANDLE Provider(DWORD exportableOption = 0)
    {
        SetSettingDword(HKEY_CURRENT_USER, L"ExportableOption", exportableOption);
        return p = OpenProvider();
    }
    NCRYPT_KEY_HANDLE Create(const wchar_t *alg, const std::wstring &name = L"", SECURITY_STATUS want = 0)
    {
        NCRYPT_KEY_HANDLE h = 0;
        EXPECT_EQ(Ksp().CreatePersistedKey(p ? p : Provider(), &h, alg, name.empty() ? nullptr : name.c_str(), 0, 0),
                  want);
        return h;
    }
    SECURITY_STATUS Get(NCRYPT_KEY_HANDLE h, const wchar_t *name, Bytes *out, DWORD flags = 0)
    {
        DWORD cb = 0;
        SECURITY_STATUS status = Ksp().GetKeyProperty(p, h, name, nullptr, 0, &cb, flags);
        out->assign(cb, 0xEE);
        return status ? status : Ksp().GetKeyProperty(p, h, name, out->data(), cb, &cb, flags);
    }
    // An empty value is passed as a null pointer.
    SECURITY_STATUS Set(NCRYPT_KEY_HANDLE h, const wchar_t *name, Bytes value, DWORD flags = 0)
    {
        return Ksp().SetKeyProperty(p, h, name, value.empty() ? nullptr : value.data(),
                                       static_cast<DWORD>(value.size()), flags);
    }
    NCRYPT_PROV_HANDLE p = 0;
};

} // namespace

TEST_F(KeyProps, BuiltInPropertiesAnswerFromTheKeyObject)
{
    const struct { const wchar_t *alg, *property; SECURITY_STATUS status; Bytes value; } rows[] = {
        {L"ECDSA_P256", L"Algorithm Name", 0, WideText(L"ECDSA_P256")},
        {L"ECDSA_P256", L"Algorithm Group", 0, WideText(L"RSA")}, // what older callers branch on
        {L"RSA", L"Length", 0, BytesOf(DWORD{2048})},
        {L"RSA", L"Key Usage", 0, BytesOf(DWORD{NCRYPT_ALLOW_DECRYPT_FLAG | NCRYPT_ALLOW_SIGNING_FLAG})},
        {L"RSA", L"Name", NTE_NOT_SUPPORTED, {}}, // the key has none
    };
    for (const auto &row : rows) {
        NCRYPT_KEY_HANDLE h = Create(row.alg);
        Bytes value;
        EXPECT_EQ(Get(h, row.property, &value), row.status) << Narrow(row.property);
        EXPECT_EQ(value, row.value) << Narrow(row.property) << " of " << Narrow(row.alg);
    }

    const std::wstring longest(129, L'n');
    NCRYPT_KEY_HANDLE named = Create(L"RSA", longest);
    Bytes value;
    EXPECT_EQ(Get(named, L"Name", &value), 0);
    EXPECT_EQ(value, WideText(longest));
    Create(L"RSA", longest + L"n", NTE_INVALID_PARAMETER);
}

TEST_F(KeyProps, SetKeyPropertyChecksEachValueAndKeepsOnlyThePoliciesAsNodes)
{
    // option: the scope's ExportableOption; node: kept for NCRYPT_PERSIST_ONLY_FLAG; readBack: the
    // built-in value afterwards, when given.
    const struct Row { const wchar_t *alg = L"RSA"; DWORD option = 0; const wchar_t *name; Bytes value;
        DWORD flags = NCRYPT_PERSIST_FLAG; SECURITY_STATUS want = 0; bool node = false; Bytes readBack = {};
    } rows[] = {
        {.name = L"Length", .value = BytesOf(DWORD{1024}), .want = NTE_NOT_SUPPORTED, .readBack = BytesOf(DWORD{1024})},
        {.name = L"Length", .value = {0, 0x10}, .want = NTE_BAD_DATA},
        {.name = L"Export Policy", .value = BytesOf(DWORD{NCRYPT_ALLOW_EXPORT_FLAG}), .want = NTE_NOT_SUPPORTED},
        {.option = 1, .name = L"Export Policy", .value = BytesOf(DWORD{NCRYPT_ALLOW_EXPORT_FLAG}), .node = true,
         .readBack = BytesOf(DWORD{0})}, // allowed, yet the key never says so
        {.name = L"PRIVATEBLOB", .value = BytesOf(BCRYPT_RSAKEY_BLOB{BCRYPT_RSAPRIVATE_MAGIC, 512, 3, 64, 32, 32}),
         .want = NTE_BAD_DATA}, // the numbers the header announces do not follow it
        {.name = L"Custom", .value = {1}, .want = NTE_NOT_SUPPORTED}, // not built in, and not only persisted
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(Narrow(row.name) + " row " + std::to_string(&row - rows));
        Provider(row.option);
        NCRYPT_KEY_HANDLE h = Create(row.alg);
        Bytes value;
        EXPECT_EQ(Set(h, row.name, row.value, row.flags), row.want);
        EXPECT_EQ(Get(h, row.name, &value, NCRYPT_PERSIST_ONLY_FLAG), row.node ? 0 : NTE_NOT_FOUND);
        if (!row.readBack.empty()) {
            EXPECT_EQ(Get(h, row.name, &value), 0);
            EXPECT_EQ(value, row.readBack);
        }
        EXPECT_EQ(Ksp().FreeKey(p, h), 0);
    }
}

TEST_F(KeyProps, OtherPropertiesAreNodesReadOnlyWithPersistOnly)
{
    NCRYPT_KEY_HANDLE h = Create(L"RSA");
    Bytes value;
    EXPECT_EQ(Set(h, L"Custom", {1, 2, 3}, NCRYPT_PERSIST_ONLY_FLAG), 0);
    EXPECT_EQ(Get(h, L"Custom", &value), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Get(h, L"Custom", &value, NCRYPT_PERSIST_ONLY_FLAG), 0);
    EXPECT_EQ(value, (Bytes{1, 2, 3}));
    DWORD cb = 0;
    EXPECT_EQ(Ksp().GetKeyProperty(p, h, L"Custom", value.data(), 1, &cb, NCRYPT_PERSIST_ONLY_FLAG),
              NTE_BUFFER_TOO_SMALL);
    KSP_KEY otherKind = *KspKeyFromHandle(h); // a copy of a key object, of another kind
    otherKind.dwMagic = KSP_PROVIDER_MAGIC;
    EXPECT_EQ(Get(reinterpret_cast<NCRYPT_KEY_HANDLE>(&otherKind), L"Length", &value), NTE_INVALID_HANDLE);
}
