#include "tests/harness/harness.h"

#include <gtest/gtest.h>
#include <wincrypt.h>

#include "kvclient/kvc.h"
#include "tests/support/logfolder.h"

using namespace kestal_test;

namespace {

constexpr char kTenant[] = "72f988bf-86f1-41af-91ab-2d7cd011db47";
constexpr char kClientId[] = "6a1f7e0e-2c8b-4f4e-9a51-0c3f7b1d2e11";
constexpr char kList[] = "GET /certificates?api-version=2016-10-01";

BYTE *Bytes(std::string &s) { return reinterpret_cast<BYTE *>(s.data()); }
std::string Base64(std::string bytes, bool url = false)
{
    WCHAR *psz = KVCKKVKSP_ToBase64(Bytes(bytes), static_cast<DWORD>(bytes.size()));
    std::string out = Narrow(psz);
    free(psz);
    for (char &c : out)
        c = url && c == '+' ? '-' : url && c == '/' ? '_' : c;
    return url ? out.substr(0, out.find('=')) : out;
}
std::string Hex(std::string bytes)
{
    BldStr *p = BldStrNewHexStr(Bytes(bytes), static_cast<DWORD>(bytes.size()));
    std::string out = Narrow(p->cStr);
    BldStrFree(p);
    return out;
}
std::string Sha1(std::string der)
{
    BYTE hash[20];
    DWORD cb = sizeof(hash);
    CryptHashCertificate(0, CALG_SHA1, 0, Bytes(der), static_cast<DWORD>(der.size()), hash, &cb);
    return std::string(reinterpret_cast<char *>(hash), cb);
}

std::vector<std::string> g_made; // every certificate made by the running test

// A self-signed DER certificate valid from 1 January of the given year.
std::string MakeCert(const std::wstring &cn, WORD year)
{
    BYTE name[256];
    DWORD cbName = sizeof(name);
    CertStrToNameW(X509_ASN_ENCODING, (L"CN=" + cn + L", O=Kestal").c_str(), CERT_X500_NAME_STR, nullptr, name, &cbName,
                   nullptr);
    CERT_NAME_BLOB subject = {cbName, name};
    SYSTEMTIME from = {year, 1, 0, 1}, to = {static_cast<WORD>(year + 30), 1, 0, 1};
    PCCERT_CONTEXT cert = CertCreateSelfSignCertificate(0, &subject, 0, nullptr, nullptr, &from, &to, nullptr);
    g_made.push_back(cert ? std::string(reinterpret_cast<char *>(cert->pbCertEncoded), cert->cbCertEncoded) : "");
    CertFreeCertificateContext(cert);
    return g_made.back();
}

// LocalMachine\My, opened afresh for each use: Wine reads a system store from the registry
// when it is opened and writes it back when it is closed.
struct Store {
    HCERTSTORE h = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"My");
    ~Store() { CertCloseStore(h, 0); }
};
// How the store binds a certificate to its key: container, provider, flags, and the sum of
// provider type, key spec and parameter count; "" when the certificate is not there.
std::string Binding(std::string der)
{
    std::string hash = Sha1(der);
    CRYPT_HASH_BLOB blob = {20, Bytes(hash)};
    PCCERT_CONTEXT cert =
        CertFindCertificateInStore(Store().h, X509_ASN_ENCODING, 0, CERT_FIND_SHA1_HASH, &blob, nullptr);
    alignas(CRYPT_KEY_PROV_INFO) BYTE bytes[1000];
    DWORD cb = sizeof(bytes);
    const auto *info = reinterpret_cast<const CRYPT_KEY_PROV_INFO *>(bytes);
    std::string out = !cert ? ""
                      : !CertGetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, bytes, &cb)
                          ? "unbound"
                          : Narrow(info->pwszContainerName) + "|" + Narrow(info->pwszProvName) + "|" +
                                std::to_string(info->dwFlags) + "|" +
                                std::to_string(info->dwProvType + info->dwKeySpec + info->cProvParam);
    CertFreeCertificateContext(cert);
    return out;
}
void AddToStore(std::string der, const wchar_t *container, const wchar_t *provider = KSP_PROVIDER_NAME)
{
    PCCERT_CONTEXT cert = nullptr;
    CertAddEncodedCertificateToStore(Store().h, X509_ASN_ENCODING, Bytes(der), static_cast<DWORD>(der.size()),
                                     CERT_STORE_ADD_REPLACE_EXISTING, &cert);
    CRYPT_KEY_PROV_INFO info = {const_cast<LPWSTR>(container), const_cast<LPWSTR>(provider), 0, 0x20};
    CertSetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, 0, &info);
    CertFreeCertificateContext(cert);
}
// Wine 8 reports a deletion from a system store as done but never writes it back, so the
// certificates are removed where the store keeps them: one registry key per SHA-1.
void RemoveMadeCerts()
{
    for (const std::string &der : g_made)
        RegDeleteKeyW(HKEY_LOCAL_MACHINE,
                      (L"Software\\Microsoft\\SystemCertificates\\My\\Certificates\\" + Widen(Hex(Sha1(der)))).c_str());
    g_made.clear();
}

// One listing's two tables, released as a caller releases them.
struct Listing {
    WCHAR **names = nullptr, **thumbprints = nullptr;
    DWORD count = 0;
    BOOL ok = FALSE;
    ~Listing() { EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, names) && HeapFree(GetProcessHeap(), 0, thumbprints)); }
    std::vector<std::string> Entries() const
    {
        std::vector<std::string> out;
        for (DWORD i = 0; i < count; i++) {
            // Each pointer leads to its own 128-character slot behind the pointers.
            EXPECT_EQ(names[i], reinterpret_cast<WCHAR *>(names + count) + 128 * i);
            EXPECT_EQ(thumbprints[i], reinterpret_cast<WCHAR *>(thumbprints + count) + 128 * i);
            out.push_back(Narrow(names[i]) + "=" + Narrow(thumbprints[i]));
        }
        return out;
    }
};

std::string Item(const std::string &name, const std::string &x5t)
{
    return R"({"id":"https://kestaltest.vault.azure.net/certificates/)" + name + R"(","x5t":")" + x5t + "\"}";
}
std::string Page(const std::string &items, const std::string &next = "null")
{
    return R"({"status":200,"body":{"value":[)" + items + R"(],"nextLink":)" + next + "}}";
}
std::string Answer(const std::string &member, const std::string &bytes)
{
    return R"({"status":200,"body":{")" + member + R"(":")" + Base64(bytes) + "\"}}";
}
std::string VaultName(const wchar_t *clear)
{
    WCHAR encoded[KVC_ENCODED_NAME_CHARS];
    return KVCConvertClearKeyNameToEncoded(clear, encoded, nullptr) ? Narrow(encoded) : "";
}

class Certs : public LogFolderTest {
protected:
    void SetUp() override
    {
        LogFolderTest::SetUp();
        emulator.Reset();
        Attach(10, 0);
        emulator.Call(L"POST", L"/apps",
                      R"({"tenant":")" + std::string(kTenant) + R"(","clientId":")" + kClientId + R"(","secret":"s"})");
        ASSERT_EQ(KVCAuthenticate(kvc.get(), nullptr), 1);
    }
    void TearDown() override
    {
        RemoveMadeCerts();
        LogFolderTest::TearDown();
    }
    void Script(const std::string &responses, const std::string &path = "/certificates")
    {
        ScriptAnswers(emulator, "vault", "[" + responses + "]", "GET", path);
    }
    void List(Listing *l) { l->ok = KVCGetCerts(kvc.get(), &l->names, &l->thumbprints, &l->count); }
    std::vector<std::string> VaultRequests() const
    {
        std::vector<std::string> seen;
        for (const SeenRequest &r : SeenRequests(emulator, L"vault"))
            seen.push_back(r.method + " " + r.url + (r.host == "kestaltest.vault.azure.net" ? "" : " @" + r.host));
        return seen;
    }
    size_t Logged(std::string_view prefix) const
    {
        return MessagesStartingWith(LogMessages(ReadLog(L"2023-11-14")), prefix).size();
    }
    FakeTime time;
    Emulator emulator;
    std::unique_ptr<KVC, void (*)(KVC *)> kvc{
        KVCNew(L"kestaltest", 2, Widen(kTenant).c_str(), Widen(kClientId).c_str(), L"s", L"", TRUE, 1, 1, 0),
        KVCDelete};
};

} // namespace

TEST_F(Certs, EmptyVaultListsNothingInTwoAllocatedTables)
{
    Script(Page(""));
    Listing l;
    List(&l);
    EXPECT_TRUE(l.ok);
    EXPECT_EQ(l.count, 0u);
    EXPECT_EQ(VaultRequests(), std::vector<std::string>{kList});
}

TEST_F(Certs, ListingFollowsNextLinkTailsAndLeavesOutUnusableItems)
{
    std::string encoded = VaultName(L"web tls"), undecodable(50, 'a');
    Script(Page(Item("alpha", "x5tA") + "," + Item("beta", "x5tB"),
                R"("https://elsewhere.example:8443/certificates?api-version=2016-10-01&$skiptoken=p2")") + "," +
           Page(Item(encoded, "x5tC") + "," + Item(undecodable, "x5tD") + R"(,{"id":"no-slash","x5t":"x"},)" +
                    R"({"id":"https://v/certificates/e"},{"id":7,"x5t":"x"})",
                R"("https://kestaltest.vault.azure.net/certificates?$skiptoken=p3")") + "," +
           Page(Item("gamma", "x5tE")));
    Listing l;
    List(&l);
    EXPECT_TRUE(l.ok);
    EXPECT_EQ(l.Entries(), (std::vector<std::string>{"alpha=x5tA", "beta=x5tB", "web tls=x5tC", "gamma=x5tE"}));
    EXPECT_EQ(VaultRequests(), (std::vector<std::string>{kList, std::string(kList) + "&$skiptoken=p2",
                                                         "GET /certificates?$skiptoken=p3"}));
    EXPECT_EQ(Logged("KVCGetCerts kids KVCConvertEncodedKeyNameToClear FAILED " + undecodable + " InvalidName 1"), 1u);
    for (const char *skipped : {"strrchr / failed", "json_object_object_get id or x5t NULL",
                                "json_object_get_string iditem or x5t failed"})
        EXPECT_EQ(Logged(std::string("KVCGetCerts kids ") + skipped), 1u) << skipped;
}

TEST_F(Certs, PersistingThrottleEndsListingWithEarlierPagesAndOtherErrorsLeaveOutputsAlone)
{
    std::string throttled = R"(,{"status":429,"body":{"error":{"code":"Throttled"}}})";
    Script(Page(Item("alpha", "x5tA"), R"("https://x/certificates?$skiptoken=p2")") + throttled + throttled +
           throttled + throttled + throttled);
    Listing l;
    List(&l);
    EXPECT_FALSE(l.ok);
    EXPECT_EQ(l.Entries(), std::vector<std::string>{"alpha=x5tA"});
    EXPECT_EQ(VaultRequests().size(), 6u);
    EXPECT_EQ(time.waits, (std::vector<DWORD>{1000, 2000, 4000, 8000, 16000}));

    Script(R"({"status":500,"body":{}})");
    WCHAR **untouched = l.names;
    DWORD count = 99;
    EXPECT_FALSE(KVCGetCerts(kvc.get(), &untouched, &untouched, &count));
    EXPECT_TRUE(untouched == l.names && count == 99);
    EXPECT_EQ(Logged("KVCGetCerts REST Call Error Error 0x1f4"), 2u);
}

TEST_F(Certs, GetCertDecodesValueBeforeCerFromTheConfiguredCollection)
{
    Script(R"({"status":200,"body":{"cer":")" + Base64("cer bytes") + R"(","value":")" +
               Base64("value bytes", true) + R"("}})",
           "/certificates/web");
    DATA_BLOB blob = {};
    ASSERT_TRUE(KVCGetCert(kvc.get(), L"web", &blob));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(blob.pbData), blob.cbData), "value bytes");
    free(blob.pbData);

    // Key mode reads the keys collection, here into the caller's buffer: too small, then enough.
    kvc->fCertMode = 0;
    Script(Answer("cer", "cer bytes") + "," + Answer("cer", "cer bytes"), "/keys/web");
    BYTE buffer[9];
    blob = {8, buffer};
    EXPECT_FALSE(KVCGetCert(kvc.get(), L"web", &blob));
    EXPECT_EQ(blob.cbData, 9u);
    ASSERT_TRUE(KVCGetCert(kvc.get(), L"web", &blob));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), blob.cbData), "cer bytes");
    EXPECT_EQ(VaultRequests(), (std::vector<std::string>{"GET /certificates/web?api-version=2016-10-01",
                                                         "GET /keys/web?api-version=2016-10-01",
                                                         "GET /keys/web?api-version=2016-10-01"}));
}

TEST_F(Certs, SyncRunsOnlyOnceTheStampIsMoreThan600SecondsOldAndStampsFirst)
{
    const __time64_t s = time.now - 600;
    SetSettingDword(HKEY_LOCAL_MACHINE, L"FromKVLastSyncTime", static_cast<DWORD>(s));
    KVCSyncCertsFromKVToMachine(kvc.get());
    EXPECT_TRUE(VaultRequests().empty());

    time.now = s + 601;
    Script(R"({"status":500,"body":{}})"); // a failing vault does not undo the stamp
    KVCSyncCertsFromKVToMachine(kvc.get());
    EXPECT_EQ(VaultRequests(), std::vector<std::string>{kList});
    DWORD stamp = 0, cb = sizeof(stamp);
    RegGetValueW(HKEY_LOCAL_MACHINE, KSP_SETTINGS_KEY, L"FromKVLastSyncTime", RRF_RT_REG_DWORD, nullptr, &stamp, &cb);
    EXPECT_EQ(stamp, static_cast<DWORD>(time.now + 600));
}

TEST_F(Certs, SyncPullsEachNewCertificateOnceBoundToTheProvider)
{
    std::string known = MakeCert(L"known", 2021), fresh = MakeCert(L"fresh", 2022);
    std::string dummy = MakeCert(L"Dummy Certificate Name", 2023), vaultName = VaultName(L"Web Server 1");
    SetSetting(HKEY_LOCAL_MACHINE, L"CertSync", Widen(Hex(Sha1(known)) + ","));
    Script(Page(Item("known", Base64(Sha1(known), true)) + "," + Item(vaultName, Base64(Sha1(fresh), true)) + "," +
                Item("placeholder", Base64(Sha1(dummy), true))));
    Script(Answer("cer", fresh), "/certificates/" + vaultName);
    Script(Answer("cer", dummy), "/certificates/placeholder");

    KVCSyncCertsFromKVToMachine(kvc.get());
    EXPECT_EQ(VaultRequests(), (std::vector<std::string>{kList,
                                                         "GET /certificates/" + vaultName + "?api-version=2016-10-01",
                                                         "GET /certificates/placeholder?api-version=2016-10-01"}));
    EXPECT_EQ(Narrow(GetSetting(HKEY_LOCAL_MACHINE, L"CertSync")),
              Hex(Sha1(known)) + "," + Hex(Sha1(fresh)) + "," + Hex(Sha1(dummy)) + ",");
    EXPECT_EQ(Binding(fresh), "Web Server 1|Kestal Key Vault Key Storage Provider|32|0");
    EXPECT_EQ(Binding(dummy) + Binding(known), "");

    time.now += 1199; // the stamp is the sync time + 600: nothing more for 1,200 s
    KVCSyncCertsFromKVToMachine(kvc.get());
    EXPECT_EQ(VaultRequests().size(), 3u);
}

TEST_F(Certs, EvaluateFindsTheLatestBoundCertificateShorterThanTheBuffer)
{
    std::string later = MakeCert(L"later", 2022), exact = MakeCert(L"exact", 2021);
    AddToStore(MakeCert(L"older", 2020), L"eval-key");
    AddToStore(later, L"eval-key");
    AddToStore(MakeCert(L"other key", 2024), L"eval-key2");
    AddToStore(MakeCert(L"other provider", 2025), L"eval-key", L"Microsoft Software Key Storage Provider");
    AddToStore(exact, L"exact-key");
    BYTE cert[4096], hash[64];
    DWORD cbCert = sizeof(cert), cbHash = sizeof(hash);
    std::vector<WCHAR> subject(8000);
    ASSERT_TRUE(KVCEvaluateCertsInStore(FALSE, L"eval-key", cert, &cbCert, hash, &cbHash, subject.data()));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(cert), cbCert), later);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(hash), cbHash), Sha1(later));
    EXPECT_EQ(Narrow(subject.data()), "CN=later, O=Kestal");

    cbCert = static_cast<DWORD>(exact.size());
    EXPECT_FALSE(KVCEvaluateCertsInStore(FALSE, L"exact-key", cert, &cbCert, hash, &cbHash, subject.data()));
    cbCert += 1;
    EXPECT_TRUE(KVCEvaluateCertsInStore(FALSE, L"exact-key", cert, &cbCert, hash, &cbHash, subject.data()));
    EXPECT_FALSE(KVCEvaluateCertsInStore(TRUE, L"exact-key", cert, &cbCert, hash, &cbHash, subject.data()));
}
