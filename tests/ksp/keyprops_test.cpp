#include "tests/harness/harness.h"

#include <gtest/gtest.h>

#include "support/log.h"

using namespace kestal_test;

namespace {

using Bytes = std::vector<BYTE>;
template <typename T> Bytes BytesOf(const T &value)
{
    return Bytes(reinterpret_cast<const BYTE *>(&value), reinterpret_cast<const BYTE *>(&value) + sizeof(T));
}
Bytes Text(const std::wstring &text)
{
    const BYTE *pb = reinterpret_cast<const BYTE *>(text.c_str());
    return Bytes(pb, pb + (text.size() + 1) * sizeof(wchar_t));
}

// Keys created but never finalized, through the DLL or the core: their properties need no vault.
class KeyProps : public VaultProviderTest {
protected:
    void SetUp() override
    {
        VaultProviderTest::SetUp();
        UseVault(HKEY_CURRENT_USER, L"kestaltest");
    }
    NCRYPT_KEY_HANDLE Create(const wchar_t *alg, const wchar_t *name = nullptr)
    {
        if (!p)
            p = OpenProvider(via);
        NCRYPT_KEY_HANDLE h = 0;
        EXPECT_EQ(Ksp(via).CreatePersistedKey(p, &h, alg, name, 0, 0), 0);
        return h;
    }
    SECURITY_STATUS Get(NCRYPT_KEY_HANDLE h, const wchar_t *name, Bytes *out, DWORD flags = 0)
    {
        DWORD cb = 0;
        SECURITY_STATUS status = Ksp(via).GetKeyProperty(p, h, name, nullptr, 0, &cb, flags);
        out->assign(cb, 0xEE);
        return status ? status : Ksp(via).GetKeyProperty(p, h, name, out->data(), cb, &cb, flags);
    }
    SECURITY_STATUS Set(NCRYPT_KEY_HANDLE h, const wchar_t *name, Bytes value, DWORD flags = 0)
    {
        return Ksp(via).SetKeyProperty(p, h, name, value.data(), static_cast<DWORD>(value.size()), flags);
    }
    Via via = Via::Dll;
    NCRYPT_PROV_HANDLE p = 0;
};

} // namespace

TEST_F(KeyProps, BuiltInPropertiesAnswerFromTheKeyObject)
{
    SECURITY_DESCRIPTOR empty = {};
    InitializeSecurityDescriptor(&empty, SECURITY_DESCRIPTOR_REVISION);
    const struct { const wchar_t *alg, *property; SECURITY_STATUS status; Bytes value; } rows[] = {
        {L"ECDSA_P256", L"Algorithm Name", 0, Text(L"ECDSA_P256")},
        {L"ECDSA_P256", L"Algorithm Group", 0, Text(L"RSA")},
        {L"RSA", L"Length", 0, BytesOf(DWORD{2048})},
        {L"RSA", L"Lengths", 0, BytesOf(NCRYPT_SUPPORTED_LENGTHS{2048, 4096, 8, 2048})},
        {L"ECDH_P384", L"Lengths", 0, BytesOf(NCRYPT_SUPPORTED_LENGTHS{384, 384, 0, 384})},
        {L"ECDSA_P521", L"Block Length", 0, BytesOf(DWORD{66})},
        {L"RSA", L"Export Policy", 0, BytesOf(DWORD{0})},
        {L"RSA", L"Key Usage", 0, BytesOf(DWORD{NCRYPT_ALLOW_DECRYPT_FLAG | NCRYPT_ALLOW_SIGNING_FLAG})},
        {L"RSA", L"Key Type", 0, BytesOf(DWORD{0})},
        {L"RSA", L"Use Context", 0, Text(L"")},
        {L"RSA", L"Security Descr", 0, BytesOf(empty)},
        {L"RSA", L"UI Policy", 0, BytesOf(NCRYPT_UI_POLICY{1, 0, nullptr, nullptr, nullptr})},
        {L"RSA", L"HWND Handle", 0, BytesOf(HWND{})},
        {L"RSA", L"Name", NTE_NOT_SUPPORTED, {}}, // the key has none
        {L"RSA", L"name", NTE_NOT_SUPPORTED, {}},
        {L"RSA", L"SmartCardKeyCertificate", NTE_NOT_SUPPORTED, {}},
    };
    for (const auto &row : rows) {
        NCRYPT_KEY_HANDLE h = Create(row.alg);
        Bytes value;
        EXPECT_EQ(Get(h, row.property, &value), row.status) << Narrow(row.property);
        EXPECT_EQ(value, row.value) << Narrow(row.property) << " of " << Narrow(row.alg);
        EXPECT_EQ(Ksp().FreeKey(p, h), 0);
    }

    NCRYPT_KEY_HANDLE named = Create(L"RSA", L"web");
    Bytes value(7), context;
    DWORD cb = 0;
    EXPECT_EQ(Ksp().GetKeyProperty(p, named, L"Unique Name", value.data(), 7, &cb, 0), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(Set(named, L"Use Context", Text(L"signing")) + Get(named, L"Use Context", &context) +
                  Get(named, L"Name", &value),
              0);
    EXPECT_EQ(context, Text(L"signing"));
    EXPECT_EQ(value, Text(L"web"));
    EXPECT_EQ(Ksp().GetKeyProperty(p, named, std::wstring(65, L'n').c_str(), nullptr, 0, &cb, 0),
              NTE_INVALID_PARAMETER);
    EXPECT_EQ(Ksp().GetKeyProperty(p, named, L"Name", nullptr, 0, nullptr, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(Ksp().GetKeyProperty(p, p, L"Name", nullptr, 0, &cb, 0), NTE_INVALID_HANDLE);
}

TEST_F(KeyProps, PersistedPropertiesAreNodesReadOnlyWithPersistOnly)
{
    NCRYPT_KEY_HANDLE h = Create(L"RSA");
    Bytes value;
    EXPECT_EQ(Set(h, L"Custom", {1, 2, 3}, NCRYPT_PERSIST_ONLY_FLAG), 0);
    EXPECT_EQ(Set(h, L"Custom", {4, 5}, NCRYPT_PERSIST_ONLY_FLAG | NCRYPT_SILENT_FLAG), 0); // replaces
    EXPECT_EQ(Get(h, L"Custom", &value), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Get(h, L"custom", &value, NCRYPT_PERSIST_ONLY_FLAG), NTE_NOT_FOUND);
    EXPECT_EQ(Get(h, L"Custom", &value, NCRYPT_PERSIST_ONLY_FLAG), 0);
    EXPECT_EQ(value, (Bytes{4, 5}));
    DWORD cb = 0;
    EXPECT_EQ(Ksp().GetKeyProperty(p, h, L"Custom", value.data(), 1, &cb, NCRYPT_PERSIST_ONLY_FLAG),
              NTE_BUFFER_TOO_SMALL);
    // The policies are kept as nodes as well; the length is not.
    EXPECT_EQ(Set(h, L"Key Usage", BytesOf(DWORD{NCRYPT_ALLOW_SIGNING_FLAG})) + Set(h, L"Length", BytesOf(DWORD{4096})),
              0);
    EXPECT_EQ(Get(h, L"Key Usage", &value, NCRYPT_PERSIST_ONLY_FLAG), 0);
    EXPECT_EQ(value, BytesOf(DWORD{NCRYPT_ALLOW_SIGNING_FLAG}));
    EXPECT_EQ(Get(h, L"Length", &value, NCRYPT_PERSIST_ONLY_FLAG), NTE_NOT_FOUND);
}

TEST_F(KeyProps, RefusedSetsLeaveTheLockAloneAndAFailedWaitIsLoggedAndSurvived)
{
    via = Via::Core; // the semaphore the test can reach is the core's
    NCRYPT_KEY_HANDLE h = Create(L"RSA");
    ASSERT_EQ(WaitForSingleObject(g_hKspSemaphore, 0), static_cast<DWORD>(WAIT_OBJECT_0)); // another holder
    EXPECT_EQ(Set(h, L"Security Descr", BytesOf(DWORD{0})), NTE_BAD_FLAGS);
    EXPECT_EQ(Set(h, L"Custom", {1}, 0x1), NTE_BAD_FLAGS);
    EXPECT_EQ(Set(h, L"Custom", {1}, NCRYPT_PERSIST_FLAG), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Set(h, L"Length", BytesOf(DWORD{1024})), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Set(h, L"Key Usage", {1}), NTE_BAD_DATA);
    EXPECT_EQ(Set(h, L"Export Policy", BytesOf(DWORD{NCRYPT_ALLOW_EXPORT_FLAG})), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Set(h, std::wstring(65, L'x').c_str(), {1}), NTE_INVALID_PARAMETER);
    EXPECT_EQ(Set(0, L"Custom", {1}), NTE_INVALID_HANDLE);
    EXPECT_EQ(WaitForSingleObject(g_hKspSemaphore, 0), static_cast<DWORD>(WAIT_TIMEOUT)) << "released by a refusal";
    ReleaseSemaphore(g_hKspSemaphore, 1, nullptr);

    HANDLE semaphore = g_hKspSemaphore;
    g_hKspSemaphore = nullptr; // every wait fails
    Bytes value;
    EXPECT_EQ(Set(h, L"Custom", {7}, NCRYPT_PERSIST_ONLY_FLAG) + Get(h, L"Custom", &value, NCRYPT_PERSIST_ONLY_FLAG),
              0);
    g_hKspSemaphore = semaphore;
    EXPECT_EQ(value, Bytes{7});
    EXPECT_EQ(Log("KestalKeyVaultKSPSetKeyProperty Failed to grab Semaphone - Result Custom -1 4").size(), 1u);
    EXPECT_EQ(Log("KestalKeyVaultKSPGetKeyProperty Failed to grab Semaphone - Result Custom -1 4").size(), 2u);

    EXPECT_EQ(Set(h, L"SmartCardKeyCertificate", {0x30}), 0); // arms the publication FreeKey makes
    EXPECT_EQ(KspKeyFromHandle(h)->fPublishCert, 1u);
    EXPECT_EQ(Ksp(via).FreeKey(p, h), 0);
}
