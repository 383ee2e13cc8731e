#include "tests/harness/harness.h"

#include <wincrypt.h>

#include "kvclient/kvc.h"

using namespace kestal_test;

namespace {

constexpr char kList[] = "GET /certificates?api-version=2016-10-01";

BYTE *Ptr(const std::string &s) { return reinterpret_cast<BYTE *>(const_cast<char *>(s.data())); }
std::string Base64(const std::string &bytes, bool url = false)
{
    return url ? ToBase64Url(ToBytes(bytes)) : ToBase64(ToBytes(bytes));
}
std::string Sha1(const std::string &der)
{
    Bytes hash = HashOf(BCRYPT_SHA1_ALGORITHM, der);
    return ToStr(hash.data(), hash.size());
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
    g_made.push_back(cert ? ToStr(cert->pbCertEncoded, cert->cbCertEncoded) : "");
    CertFreeCertificateContext(cert);
    return g_made.back();
}

// LocalMachine\My, opened afresh for each use: Wine reads a system store from the registry
// when it is opened and writes it back when it is closed.
struct Store {
    HCERTSTORE h = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"My");
    ~Store() { CertCloseStore(h, 0); }
};
// "container|provider|flags|dwProvType|dwKeySpec|cProvParam"; "" when not in the store.
std::string Binding(const std::string &der)
{
    std::string hash = Sha1(der);
    CRYPT_HASH_BLOB blob = {20, Ptr(hash)};
    PCCERT_CONTEXT cert = CertFindCertificateInStore(Store().h, X509_ASN_ENCODING, 0, CERT_FIND_SHA1_HASH, &blob, 0);
    alignas(CRYPT_KEY_PROV_INFO) BYTE bytes[1000];
    DWORD cb = sizeof(bytes);
    auto *i = reinterpret_cast<const CRYPT_KEY_PROV_INFO *>(bytes);
    std::string out = !cert ? "" : "unbound";
    if (cert && CertGetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, bytes, &cb))
        out = Narrow(i->pwszContainerName) + "|" + Narrow(i->pwszProvName) + "|" + std::to_string(i->dwFlags) + "|" +
              std::to_string(i->dwProvType) + "|" + std::to_string(i->dwKeySpec) + "|" + std::to_string(i->cProvParam);
    CertFreeCertificateContext(cert);
    return out;
}
void AddToStore(const std::string &der, const wchar_t *container, const wchar_t *provider = KSP_PROVIDER_NAME)
{
    PCCERT_CONTEXT cert = nullptr;
    CertAddEncodedCertificateToStore(Store().h, X509_ASN_ENCODING, Ptr(der), static_cast<DWORD>(der.size()),
                                     CERT_STORE_ADD_REPLACE_EXISTING, &cert);
    CRYPT_KEY_PROV_INFO info = {const_cast<LPWSTR>(container), const_cast<LPWSTR>(provider), 0, 0x20};
    CertSetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, 0, &info);
    CertFreeCertificateContext(cert);
}

// One listing's two tables, released as a caller releases them.
struct Listing {
    WCHAR **names = nullptr, **thumbprints = nullptr;
    DWORD count = 0;
    ~Listing()
    {
        EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, names));
        EXPECT_TRUE(HeapFree(GetProcessHeap(), 0, thumbprints));
    }
    std::vector<std::string> Entries() const
    {
        std::vector<std::string> out;
        for (DWORD i = 0; i < count; i++) {
            EXPECT_EQ(names[i], reinterpret_cast<WCHAR *>(names + count) + 128 * i); // slots behind the pointers
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

// A signed-in machine client in certificate mode for the vault "kestaltest".
class Certs : public VaultProviderTest {
protected:
    void SetUp() override
    {
        VaultProviderTest::SetUp();
        UseVault(HKEY_LOCAL_MACHINE, L"kestaltest", 0);
        kvc = SignedInMachineClient();
    }
    // Wine 8 reports a deletion from a system store as done but never writes it back, so the
    // certificates are removed where the store keeps them: one registry key per SHA-1.
    void TearDown() override
    {
        const std::wstring certificates = L"Software\\Microsoft\\SystemCertificates\\My\\Certificates\\";
        for (const std::string &der : g_made)
            RegDeleteKeyW(HKEY_LOCAL_MACHINE, (certificates + Widen(Hex(Sha1(der)))).c_str());
        g_made.clear();
        VaultProviderTest::TearDown();
    }
    void Script(const std::string &responses, const std::string &path = "/certificates")
    {
        ScriptAnswers(emulator, "vault", "[" + responses + "]", "GET", path);
    }
    BOOL List(Listing *l) { return KVCGetCerts(kvc, &l->names, &l->thumbprints, &l->count); }
    std::vector<std::string> Calls() const
    {
        std::vector<std::string> seen;
        for (const SeenRequest &r : VaultRequests())
            seen.push_back(r.method + " " + r.url + (r.host == "kestaltest.vault.azure.net" ? "" : " @" + r.host));
        return seen;
    }
    KVC *kvc = nullptr;
};

} // namespace

TEST_F(Certs, ListingFollowsNextLinkTailsAndLeavesOutUnusableItems)
{
    Script(Page(""));
    Listing empty;
    EXPECT_TRUE(List(&empty));
    EXPECT_EQ(empty.count, 0u);
    EXPECT_TRUE(empty.names && empty.thumbprints); // allocated all the same, and freed by ~Listing

    std::string encoded = VaultName(L"web tls"), undecodable(50, 'a');
    Script(Page(Item("alpha", "x5tA") + "," + Item("beta", "x5tB"),
                R"("https://elsewhere.example:8443/certificates?api-version=2016-10-01&$skiptoken=p2")") + "," +
           Page(Item(encoded, "x5tC") + "," + Item(undecodable, "x5tD") + R"(,{"id":"no-slash","x5t":"x"},)" +
                    R"({"id":"https://v/certificates/e"},{"id":7,"x5t":"x"})",
                R"("https://kestaltest.vault.azure.net/certificates?$skiptoken=p3")") + "," +
           Page(Item("gamma", "x5tE")));
    Listing l;
    EXPECT_TRUE(List(&l));
    EXPECT_EQ(l.Entries(), (std::vector<std::string>{"alpha=x5tA", "beta=x5tB", "web tls=x5tC", "gamma=x5tE"}));
    EXPECT_EQ(Calls(), (std::vector<std::string>{kList, kList, std::string(kList) + "&$skiptoken=p2",
                                                 "GET /certificates?$skiptoken=p3"}));
    EXPECT_EQ(Log("KVCGetCerts kids KVCConvertEncodedKeyNameToClear FAILED " + undecodable + " InvalidName 1").size(),
              1u);
}

TEST_F(Certs, PersistingThrottleEndsListingWithEarlierPagesAndOtherErrorsLeaveOutputsAlone)
{
    Script(Page(Item("alpha", "x5tA"), R"("https://x/certificates?$skiptoken=p2")") +
           R"(,{"status":429,"repeat":5})");
    Listing l;
    EXPECT_FALSE(List(&l));
    EXPECT_EQ(l.Entries(), std::vector<std::string>{"alpha=x5tA"});
    EXPECT_EQ(Calls().size(), 6u);
    EXPECT_EQ(time.waits, (std::vector<DWORD>{1000, 2000, 4000, 8000, 16000}));

    Script(R"({"status":500,"body":{}})");
    WCHAR **untouched = l.names;
    DWORD count = 99;
    EXPECT_FALSE(KVCGetCerts(kvc, &untouched, &untouched, &count));
    EXPECT_EQ(untouched, l.names);
    EXPECT_EQ(count, 99u);
}

TEST_F(Certs, GetCertPrefersValueOverCerAndReadsTheKeysCollectionInKeyMode)
{
    Script(R"({"status":200,"body":{"cer":")" + Base64("cer bytes") + R"(","value":")" +
               Base64("value bytes", true) + R"("}})",
           "/certificates/web");
    Script(Answer("cer", "cer bytes"), "/keys/web");
    SetSettingDword(HKEY_LOCAL_MACHINE, L"CertificatesOrKeys", 1);
    KVC *keyMode = SignedInMachineClient();
    for (KVC *client : {kvc, keyMode}) {
        DATA_BLOB blob = {};
        ASSERT_TRUE(KVCGetCert(client, L"web", &blob)); // only these paths are scripted
        EXPECT_EQ(ToStr(blob.pbData, blob.cbData), client == kvc ? "value bytes" : "cer bytes");
        free(blob.pbData);
    }
}

TEST_F(Certs, SyncRunsOnlyOnceTheStampIsMoreThan600SecondsOldAndStampsFirst)
{
    const __time64_t s = time.now - 600;
    SetSettingDword(HKEY_LOCAL_MACHINE, L"FromKVLastSyncTime", static_cast<DWORD>(s));
    KVCSyncCertsFromKVToMachine(kvc);
    EXPECT_TRUE(Calls().empty());

    time.now = s + 601;
    Script(R"({"status":500,"body":{}})"); // a failing vault does not undo the stamp
    KVCSyncCertsFromKVToMachine(kvc);
    EXPECT_EQ(Calls(), std::vector<std::string>{kList});
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

    KVCSyncCertsFromKVToMachine(kvc);
    EXPECT_EQ(Calls(), (std::vector<std::string>{kList, "GET /certificates/" + vaultName + "?api-version=2016-10-01",
                                                 "GET /certificates/placeholder?api-version=2016-10-01"}));
    EXPECT_EQ(Narrow(GetSetting(HKEY_LOCAL_MACHINE, L"CertSync")),
              Hex(Sha1(known)) + "," + Hex(Sha1(fresh)) + "," + Hex(Sha1(dummy)) + ",");
    EXPECT_EQ(Binding(fresh), "Web Server 1|Kestal Key Vault Key Storage Provider|32|0|0|0");
    EXPECT_EQ(Binding(dummy), "");
    EXPECT_EQ(Binding(known), "");

    time.now += 1199; // the stamp is the sync time + 600: nothing more for 1,200 s
    KVCSyncCertsFromKVToMachine(kvc);
    EXPECT_EQ(Calls().size(), 3u);
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
    EXPECT_EQ(ToStr(cert, cbCert), later);
    EXPECT_EQ(ToStr(hash, cbHash), Sha1(later));
    EXPECT_EQ(Narrow(subject.data()), "CN=later, O=Kestal");

    cbCert = static_cast<DWORD>(exact.size());
    EXPECT_FALSE(KVCEvaluateCertsInStore(FALSE, L"exact-key", cert, &cbCert, hash, &cbHash, subject.data()));
    cbCert += 1;
    EXPECT_TRUE(KVCEvaluateCertsInStore(FALSE, L"exact-key", cert, &cbCert, hash, &cbHash, subject.data()));
    EXPECT_FALSE(KVCEvaluateCertsInStore(TRUE, L"exact-key", cert, &cbCert, hash, &cbHash, subject.data()));
}
