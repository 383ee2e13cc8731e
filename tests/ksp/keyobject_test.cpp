#include "ksp/ksp.h"

#include <gtest/gtest.h>

#include <wincrypt.h>
#include <dpapi.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/logfolder.h"

using namespace kestal_test;

namespace {

using Key = std::unique_ptr<KSP_KEY, decltype([](KSP_KEY *pKey) { DeleteKeyObject(pKey); })>;

class KeyObjects : public LogFolderTest {
protected:
    void SetUp() override { LogFolderTest::SetUp(); Attach(10, 0); }
    void TearDown() override { KspModuleDetach(); LogFolderTest::TearDown(); }
    Key NewKey(const wchar_t *alg = L"RSA", const wchar_t *name = L"k")
    {
        KSP_KEY *pKey = nullptr;
        EXPECT_EQ(CreateNewKeyObject(name, alg, &pKey, 0), 0);
        if (pKey)
            pKey->kvc = &kvc_;
        return Key(pKey);
    }
    // Sets a property asking for persistence; flags_ tells what came back.
    SECURITY_STATUS Set(KSP_KEY *pKey, const wchar_t *name, const void *pb, DWORD cb)
    {
        flags_ = NCRYPT_PERSIST_FLAG;
        return SetBuildinKeyProperty(pKey, name, static_cast<const BYTE *>(pb), cb, &flags_);
    }
    SECURITY_STATUS Set(KSP_KEY *pKey, const wchar_t *name, DWORD value) { return Set(pKey, name, &value, 4); }
    std::vector<std::string> Logged() const { return LogMessages(ReadTodaysLog(dir_)); }
    bool Logged(const std::string &line) const { return std::ranges::count(Logged(), line) > 0; }
    KVC kvc_{};
    DWORD flags_ = 0;
};

// A blob of the layout BCryptExportKey produces, with filler where the numbers would be.
std::vector<BYTE> RsaBlob(ULONG magic, ULONG cbTail)
{
    BCRYPT_RSAKEY_BLOB header{magic, 512, 3, 64, 32, 32};
    std::vector<BYTE> blob(sizeof(header) + cbTail);
    memcpy(blob.data(), &header, sizeof(header));
    for (size_t i = sizeof(header); i < blob.size(); ++i)
        blob[i] = static_cast<BYTE>(i * 7);
    return blob;
}

} // namespace

TEST_F(KeyObjects, NewKeysCarryTheirDefaultsAndNamesUpTo129Characters)
{
    const std::wstring longest(129, L'n');
    const std::pair<const wchar_t *, DWORD> algs[] = {
        {L"RSA", 2048}, {L"ECDSA_P256", 256}, {L"ECDH_P384", 384}, {L"ECDSA_P521", 521}, {L"", 0}};
    for (const auto &[alg, bits] : algs) {
        Key key = NewKey(alg, longest.c_str());
        ASSERT_EQ(KspKeyFromHandle(reinterpret_cast<NCRYPT_KEY_HANDLE>(key.get())), key.get());
        EXPECT_EQ(key->dwKeyBitLength, bits);
        EXPECT_EQ(key->dwKeyUsagePolicy, 3u);
        EXPECT_EQ(key->pszKeyName, longest);
        EXPECT_EQ(key->dwExportPolicy | key->fFinished | key->fPublishCert, 0u);
    }
    KSP_KEY *pKey = reinterpret_cast<KSP_KEY *>(1);
    EXPECT_EQ(CreateNewKeyObject(std::wstring(130, L'n').c_str(), L"RSA", &pKey, 0), NTE_INVALID_PARAMETER);
    EXPECT_EQ(pKey, nullptr);
    EXPECT_EQ(CreateNewKeyObject(L"k", L"ECDSA_P256_TOO_LONG_", &pKey, 0), NTE_INVALID_PARAMETER);
    ASSERT_EQ(CreateNewKeyObject(nullptr, L"RSA", &pKey, NCRYPT_MACHINE_KEY_FLAG), 0);
    Key unnamed(pKey);
    EXPECT_EQ(unnamed->pszKeyName, nullptr);
    EXPECT_EQ(unnamed->dwMachineKey, static_cast<DWORD>(NCRYPT_MACHINE_KEY_FLAG));
    unnamed->cbLength = 999; // every key says 1000
    EXPECT_EQ(KspKeyFromHandle(reinterpret_cast<NCRYPT_KEY_HANDLE>(unnamed.get())), nullptr);
    unnamed->cbLength = 1000;
    EXPECT_EQ(KspKeyFromHandle(0), nullptr);
}

TEST_F(KeyObjects, PropertyNodesHoldNamesUpTo64CharactersAndTheirFlags)
{
    const struct { DWORD flags, persist, notPersistOnly; } rows[] = {
        {0, 0, 1}, {NCRYPT_PERSIST_FLAG, 1, 1}, {NCRYPT_PERSIST_ONLY_FLAG, 1, 0}, {NCRYPT_SILENT_FLAG, 0, 1}};
    const BYTE value[3] = {1, 2, 3};
    KSP_PROPERTY *pProperty = nullptr;
    for (const auto &r : rows) {
        ASSERT_EQ(CreateNewProperty(std::wstring(64, L'p').c_str(), value, 3, r.flags, &pProperty), 0);
        EXPECT_EQ(pProperty->szName, std::wstring(64, L'p'));
        EXPECT_EQ(std::vector<BYTE>(KspPropertyData(pProperty), KspPropertyData(pProperty) + pProperty->cbPropertyData),
                  std::vector<BYTE>(value, value + 3));
        EXPECT_EQ(pProperty->fPersist * 2 + pProperty->fNotPersistOnly, r.persist * 2 + r.notPersistOnly);
        KspFree(pProperty);
    }
    EXPECT_EQ(CreateNewProperty(std::wstring(65, L'p').c_str(), value, 3, 0, &pProperty), NTE_INVALID_PARAMETER);
    EXPECT_EQ(pProperty, nullptr);
    EXPECT_EQ(KspAlloc(0x100000000ull), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_OUTOFMEMORY));
}

TEST_F(KeyObjects, LengthAndExportPolicyFollowAlgorithmAndSetting)
{
    // Algorithm, ExportableOption, property, value, status and the flags handed back.
    const struct {
        const wchar_t *alg;
        DWORD option;
        const wchar_t *name;
        DWORD value;
        SECURITY_STATUS status;
        DWORD kept;
    } rows[] = {
        {L"RSA", 0, L"Length", 1024, NTE_NOT_SUPPORTED, 0}, {L"RSA", 0, L"Length", 2049, NTE_NOT_SUPPORTED, 0},
        {L"RSA", 0, L"Length", 4104, NTE_NOT_SUPPORTED, 0}, {L"RSA", 0, L"Length", 3072, 0, 0},
        {L"ECDSA_P384", 0, L"Length", 384, 0, 0}, {L"ECDH_P521", 0, L"Length", 256, NTE_NOT_SUPPORTED, 0},
        {L"", 0, L"Length", 1234, 0, 0}, {L"RSA", 0, L"Export Policy", 0, 0, NCRYPT_PERSIST_FLAG},
        {L"RSA", 0, L"Export Policy", NCRYPT_ALLOW_EXPORT_FLAG, NTE_NOT_SUPPORTED, 0},
        {L"RSA", 1, L"Export Policy", NCRYPT_ALLOW_EXPORT_FLAG, 0, NCRYPT_PERSIST_FLAG},
        {L"RSA", 1, L"Export Policy", 16, NTE_NOT_SUPPORTED, 0}, {L"RSA", 2, L"Export Policy", 0, NTE_NOT_SUPPORTED, 0},
        {L"RSA", 0, L"Key Usage", NCRYPT_ALLOW_SIGNING_FLAG, 0, NCRYPT_PERSIST_FLAG},
    };
    for (const auto &r : rows) {
        Key key = NewKey(r.alg);
        kvc_.dwExportable = r.option;
        EXPECT_EQ(Set(key.get(), r.name, r.value), r.status) << Narrow(r.name) << " " << r.value;
        EXPECT_EQ(flags_, r.kept) << Narrow(r.name) << " " << r.value;
        const bool length = wcscmp(r.name, L"Length") == 0; // a refused length stays; the policy never does
        EXPECT_EQ(length ? key->dwKeyBitLength : key->dwExportPolicy, length ? r.value : 0);
    }
    EXPECT_TRUE(Logged("SetBuildinKeyProperty EXPORTABLE_KEYS_UNSUPPORTED 1"));
    EXPECT_TRUE(Logged("SetBuildinKeyProperty bad Exportable Value ExportableOption 2 1"));
    EXPECT_TRUE(Logged("Key Usage = 2 10"));

    Key key = NewKey();
    EXPECT_EQ(Set(key.get(), L"Length", "\0\x10", 2), NTE_BAD_DATA);
    key->fFinished = 1;
    for (const wchar_t *name : {L"Length", L"Key Usage", L"Export Policy"})
        EXPECT_EQ(Set(key.get(), name, 2048), NTE_BAD_KEY_STATE);
}

TEST_F(KeyObjects, OtherBuiltinPropertiesLandInTheKey)
{
    Key key = NewKey();
    for (const wchar_t *name : {L"Use Context", L"HWND Handle", L"UI Policy", L"SmartCardKeyCertificate"}) {
        EXPECT_EQ(Set(key.get(), name, L"TLS server", 6), 0);
        EXPECT_EQ(flags_, 0u);
    }
    EXPECT_STREQ(key->pszUseContext, L"TLS"); // only the three characters given
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(key->hWnd), 0x53004C0054ull);

    SECURITY_DESCRIPTOR absolute;
    InitializeSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION);
    BYTE relative[64];
    DWORD cbRelative = sizeof(relative), flags = DACL_SECURITY_INFORMATION | NCRYPT_PERSIST_FLAG;
    ASSERT_TRUE(MakeSelfRelativeSD(&absolute, relative, &cbRelative));
    EXPECT_EQ(SetBuildinKeyProperty(key.get(), L"Security Descr", relative, cbRelative, &flags), 0);
    EXPECT_EQ(std::vector<BYTE>(key->pbSecurityDescr, key->pbSecurityDescr + key->cbSecurityDescr),
              std::vector<BYTE>(relative, relative + cbRelative));
    EXPECT_EQ(key->dwSecurityInfo, DACL_SECURITY_INFORMATION | NCRYPT_PERSIST_FLAG);
    EXPECT_EQ(Set(key.get(), L"Security Descr", relative, 8), NTE_BAD_DATA);
    EXPECT_EQ(Set(key.get(), L"length", 2048), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Set(key.get(), L"Name", 1), NTE_NOT_SUPPORTED);
    EXPECT_EQ(Set(key.get(), L"Length", nullptr, 4), NTE_INVALID_PARAMETER);
}

TEST_F(KeyObjects, PrivateBlobIsKeptOnlyUnderDpapi)
{
    for (ULONG magic : {BCRYPT_RSAPRIVATE_MAGIC, BCRYPT_RSAFULLPRIVATE_MAGIC}) {
        std::vector<BYTE> blob = RsaBlob(magic, magic == BCRYPT_RSAPRIVATE_MAGIC ? 131 : 131 + 160);
        Key key = NewKey();
        ASSERT_EQ(Set(key.get(), L"PRIVATEBLOB", blob.data(), static_cast<DWORD>(blob.size())), 0);
        EXPECT_EQ(flags_, 0u);
        std::string stored(reinterpret_cast<char *>(key->pbPrivateKey), key->cbPrivateKey);
        EXPECT_EQ(stored.find(std::string(blob.begin() + 24, blob.begin() + 40)), std::string::npos);
        DATA_BLOB in{static_cast<DWORD>(key->cbPrivateKey), key->pbPrivateKey}, out{};
        LPWSTR description = nullptr;
        ASSERT_TRUE(CryptUnprotectData(&in, &description, nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &out));
        EXPECT_STREQ(description, L"Private Key");
        EXPECT_EQ(std::vector<BYTE>(out.pbData, out.pbData + out.cbData), blob);
        LocalFree(description);
        LocalFree(out.pbData);
    }
    Key key = NewKey();
    std::vector<BYTE> shortBlob = RsaBlob(BCRYPT_RSAPRIVATE_MAGIC, 130);
    EXPECT_EQ(Set(key.get(), L"PRIVATEBLOB", shortBlob.data(), 154), NTE_BAD_DATA); // one byte short
    EXPECT_EQ(Set(key.get(), L"PRIVATEBLOB", shortBlob.data(), 4), NTE_BAD_DATA);
    EXPECT_EQ(Set(key.get(), L"PRIVATEBLOB", RsaBlob(BCRYPT_RSAPUBLIC_MAGIC, 131).data(), 155), NTE_BAD_DATA);
    EXPECT_EQ(key->pbPrivateKey, nullptr);
    key->fFinished = 1;
    EXPECT_EQ(Set(key.get(), L"PRIVATEBLOB", shortBlob.data(), 154), NTE_BAD_KEY_STATE);
}

TEST_F(KeyObjects, DeletingFreesEveryPropertyAndGivesTheSemaphoreBack)
{
    Key key = NewKey();
    for (const wchar_t *name : {L"one", L"two", L"three"}) {
        KSP_PROPERTY *pProperty = nullptr;
        ASSERT_EQ(CreateNewProperty(name, reinterpret_cast<const BYTE *>(name), 4, NCRYPT_PERSIST_FLAG, &pProperty), 0);
        pProperty->ListEntry.Flink = &key->PropertyList;
        pProperty->ListEntry.Blink = key->PropertyList.Blink;
        key->PropertyList.Blink = key->PropertyList.Blink->Flink = &pProperty->ListEntry;
    }
    EXPECT_EQ(DeleteKeyObject(key.release()), 0);
    std::vector<std::string> lines = Logged();
    EXPECT_EQ(std::ranges::count(lines, "DeleteKeyObject HeapFree pProperty 8"), 3);
    EXPECT_EQ(lines.back(), "DeleteKeyObject Complete 8");
    EXPECT_EQ(WaitForSingleObject(g_hKspSemaphore, 0), WAIT_OBJECT_0) << "count 1 again";
    ReleaseSemaphore(g_hKspSemaphore, 1, nullptr);

    HANDLE saved = std::exchange(g_hKspSemaphore, nullptr); // a wait that fails: logged, the key freed anyway
    EXPECT_EQ(DeleteKeyObject(NewKey().release()), 0);
    g_hKspSemaphore = saved;
    EXPECT_TRUE(Logged("DeleteKeyObject Failed to grab Semaphone - Result Error 0xffffffff 4"));
}

TEST_F(KeyObjects, EnumBuffersAreListedOnce)
{
    int a = 0, b = 0;
    KSP_BUFFER_NODE *first = AddEnumBuffer(&a);
    EXPECT_EQ(AddEnumBuffer(&a), nullptr);
    KSP_BUFFER_NODE *second = AddEnumBuffer(&b);
    ASSERT_TRUE(first && second);
    EXPECT_TRUE(g_EnumBufferList.Flink == first && first->Flink == second && second->Flink == &g_EnumBufferList);
    EXPECT_TRUE(g_EnumBufferList.Blink == second && second->Blink == first && first->pBuffer == &a);
    KspFree(first);
    KspFree(second);
    g_EnumBufferList.Flink = g_EnumBufferList.Blink = &g_EnumBufferList;
}
