// The provider as the bench drives it: copies of the DLL loaded as the CNG router loads them,
// the registry settings they read, SignHash, and signatures checked with BCrypt.
#include "tools/bench/bench.h"

#include <stdexcept>

namespace bench {

namespace {

constexpr wchar_t kProviderName[] = L"Kestal Key Vault Key Storage Provider";
constexpr wchar_t kSettingsKey[] = L"Software\\Kestal\\KestalKeyVaultKSP";
constexpr DWORD kMaxSignature = 512;

void SetText(const wchar_t *name, const std::wstring &value)
{
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettingsKey, name, REG_SZ, value.c_str(),
                    static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

void SetDword(const wchar_t *name, DWORD value)
{
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, kSettingsKey, name, REG_DWORD, &value, sizeof(value));
}

std::wstring ExeDir()
{
    wchar_t path[MAX_PATH];
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring dir(path, n);
    return dir.substr(0, dir.find_last_of(L"\\/"));
}

std::string Status(SECURITY_STATUS status)
{
    char text[16];
    snprintf(text, sizeof(text), "0x%08lX", static_cast<unsigned long>(status));
    return text;
}

} // namespace

void ClearSettings() { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kSettingsKey); }

void WriteConnectionSettings(const std::string &tenant, const std::string &clientId, const std::string &secret)
{
    SetDword(L"AuthenticationType", 2); // client secret
    SetText(L"TenantId", Widen(tenant));
    SetText(L"ClientId", Widen(clientId));
    SetText(L"ClientSecret", Widen(secret));
    SetDword(L"CertificatesOrKeys", 1); // plain vault keys: no certificate sync on OpenKey
}

ProviderCopy::ProviderCopy(const std::wstring &tag, const Config &config, const std::wstring &workDir)
{
    SetDword(L"ReuseConnections", config.reuseConnections);
    SetDword(L"LoggingLevel", config.loggingLevel);
    SetText(L"LogfilePath", workDir);
    SetText(L"KeyVault", config.vault);
    const std::wstring copy = workDir + L"\\KestalKeyVaultKSP-" + tag + L".dll";
    if (!CopyFileW((ExeDir() + L"\\KestalKeyVaultKSP.dll").c_str(), copy.c_str(), FALSE))
        throw std::runtime_error("cannot copy the provider DLL: " + std::to_string(GetLastError()));
    module_ = LoadLibraryW(copy.c_str());
    using GetInterfaceFn = NTSTATUS(WINAPI *)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE **, DWORD);
    auto getInterface = module_ ? reinterpret_cast<GetInterfaceFn>(
                                      reinterpret_cast<void *>(GetProcAddress(module_, "GetKeyStorageInterface")))
                                : nullptr;
    if (!getInterface || getInterface(kProviderName, &table_, 0) != 0 || !table_)
        throw std::runtime_error("cannot load the provider copy " + Narrow(tag));
}

ProviderCopy::~ProviderCopy()
{
    for (const auto &[provider, key] : keys_)
        table_->FreeKey(provider, key);
    for (NCRYPT_PROV_HANDLE provider : providers_)
        table_->FreeProvider(provider);
    if (module_)
        FreeLibrary(module_);
}

NCRYPT_PROV_HANDLE ProviderCopy::OpenProvider()
{
    NCRYPT_PROV_HANDLE provider = 0;
    SECURITY_STATUS status = table_->OpenProvider(&provider, kProviderName, 0);
    if (status != 0)
        throw std::runtime_error("OpenProvider: " + Status(status));
    providers_.push_back(provider);
    return provider;
}

OpenedKey ProviderCopy::OpenKey(NCRYPT_PROV_HANDLE provider, const BenchKey &benchKey)
{
    NCRYPT_KEY_HANDLE key = 0;
    SECURITY_STATUS status = table_->OpenKey(provider, &key, Widen(benchKey.name).c_str(), 0, NCRYPT_MACHINE_KEY_FLAG);
    if (status != 0)
        throw std::runtime_error("OpenKey " + std::string(benchKey.name) + ": " + Status(status));
    keys_.emplace_back(provider, key);
    return OpenedKey{table_, provider, key, &benchKey};
}

SECURITY_STATUS Sign(const OpenedKey &key, const std::vector<BYTE> &hash, std::vector<BYTE> *signature)
{
    BCRYPT_PKCS1_PADDING_INFO pkcs1 = {BCRYPT_SHA256_ALGORITHM};
    const bool ec = key.benchKey->ec;
    signature->resize(kMaxSignature);
    DWORD cb = 0;
    SECURITY_STATUS status = key.ksp->SignHash(key.provider, key.key, ec ? nullptr : &pkcs1,
                                               const_cast<BYTE *>(hash.data()), static_cast<DWORD>(hash.size()),
                                               signature->data(), kMaxSignature, &cb, ec ? 0 : BCRYPT_PAD_PKCS1);
    signature->resize(status == 0 ? cb : 0);
    return status;
}

Verifier::Verifier(const OpenedKey &key) : ec_(key.benchKey->ec)
{
    const wchar_t *blobType = ec_ ? BCRYPT_ECCPUBLIC_BLOB : BCRYPT_RSAPUBLIC_BLOB;
    DWORD cb = 0;
    SECURITY_STATUS status = key.ksp->ExportKey(key.provider, key.key, 0, blobType, nullptr, nullptr, 0, &cb, 0);
    std::vector<BYTE> blob(cb);
    if (status == 0)
        status = key.ksp->ExportKey(key.provider, key.key, 0, blobType, nullptr, blob.data(), cb, &cb, 0);
    if (status != 0 || blob.size() < sizeof(ULONG))
        throw std::runtime_error("ExportKey " + std::string(key.benchKey->name) + ": " + Status(status));
    if (ec_) {
        // A P-256 key may come out as an ECDH blob; BCrypt checks signatures only with ECDSA's.
        const ULONG magic = BCRYPT_ECDSA_PUBLIC_P256_MAGIC;
        memcpy(blob.data(), &magic, sizeof(magic));
    }
    BCRYPT_ALG_HANDLE alg = nullptr;
    NTSTATUS rc =
        BCryptOpenAlgorithmProvider(&alg, ec_ ? BCRYPT_ECDSA_P256_ALGORITHM : BCRYPT_RSA_ALGORITHM, nullptr, 0);
    if (rc == 0) {
        rc = BCryptImportKeyPair(alg, nullptr, blobType, &key_, blob.data(), static_cast<ULONG>(blob.size()), 0);
        BCryptCloseAlgorithmProvider(alg, 0);
    }
    if (rc != 0)
        throw std::runtime_error("BCryptImportKeyPair " + std::string(key.benchKey->name) + ": " + Status(rc));
}

Verifier::~Verifier()
{
    if (key_)
        BCryptDestroyKey(key_);
}

bool Verifier::Check(const std::vector<BYTE> &hash, const std::vector<BYTE> &signature) const
{
    BCRYPT_PKCS1_PADDING_INFO pkcs1 = {BCRYPT_SHA256_ALGORITHM};
    return !signature.empty() &&
           BCryptVerifySignature(key_, ec_ ? nullptr : &pkcs1, const_cast<BYTE *>(hash.data()),
                                 static_cast<ULONG>(hash.size()), const_cast<BYTE *>(signature.data()),
                                 static_cast<ULONG>(signature.size()), ec_ ? 0 : BCRYPT_PAD_PKCS1) == 0;
}

} // namespace bench
