// `status`: what is installed and configured, what the provider last logged, and with --probe
// a sign-in and a key listing made the way the provider makes them. A probe that fails asks
// once more, outside the provider's own path, for the answer that tells the cause.
#include "admin/admin.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <wchar.h>

#include <algorithm>

#include "ksp/ksp.h"
#include "kvclient/kvjson.h"

namespace {

constexpr __time64_t kSyncIntervalSeconds = 600; // FromKVLastSyncTime holds the sync's time plus this
constexpr long kLogTailBytes = 256 * 1024;       // how much of today's log is searched for failures
constexpr size_t kFailureLines = 5;

// ---- What is configured ----------------------------------------------------------------

void PrintSignIn(BOOL fMachine)
{
    DWORD authn = ReadDwordSetting(fMachine, L"AuthenticationType", 0);
    std::wstring tenant = ReadStringSetting(fMachine, L"TenantId");
    std::wstring client = ReadStringSetting(fMachine, L"ClientId");
    bool fSecret = SecretSettingLength(fMachine, L"ClientDPAPISecret") || SecretSettingLength(fMachine, L"ClientSecret");
    Out(L"  %ls keys: ", fMachine ? L"machine" : L"user");
    if (authn & 2) {
        Out(L"client secret as app %ls in tenant %ls (%ls)%ls\n", client.empty() ? L"(ClientId not set)" : client.c_str(),
            tenant.empty() ? L"(TenantId not set)" : tenant.c_str(),
            fSecret ? L"secret stored" : L"no secret stored: run kestalksp set-secret", authn & 1 ? L"," : L"");
        if (!(authn & 1))
            return;
        Out(L"    then ");
    }
    wchar_t szEndpoint[512];
    DWORD cch = GetEnvironmentVariableW(L"IDENTITY_ENDPOINT", szEndpoint, ARRAYSIZE(szEndpoint));
    if (cch > 0 && cch < ARRAYSIZE(szEndpoint))
        Out(L"managed identity from the Azure Arc agent (IDENTITY_ENDPOINT %ls)\n", szEndpoint);
    else
        Out(L"managed identity from the instance metadata service (169.254.169.254)\n");
}

void PrintCertificateSync()
{
    if (ReadDwordSetting(TRUE, L"CertificatesOrKeys", 0) != 0) {
        Out(L"Certificate sync: off (CertificatesOrKeys is 1: plain vault keys)\n");
        return;
    }
    DWORD dwStamp = ReadDwordSetting(TRUE, L"FromKVLastSyncTime", 0);
    std::wstring certSync = ReadStringSetting(TRUE, L"CertSync");
    unsigned cPulled = static_cast<unsigned>(std::count(certSync.begin(), certSync.end(), L','));
    struct tm utc = {};
    __time64_t last = static_cast<__time64_t>(dwStamp) - kSyncIntervalSeconds;
    wchar_t szWhen[32] = L"";
    if (dwStamp && _gmtime64_s(&utc, &last) == 0)
        wcsftime(szWhen, ARRAYSIZE(szWhen), L"%Y-%m-%d %H:%M:%S UTC", &utc);
    Out(L"Certificate sync: %ls%ls; %u certificates recorded in CertSync. Run it now: kestalksp sync\n",
        szWhen[0] ? L"last run " : L"not run yet", szWhen, cPulled);
}

// Today's log file as the provider names it (by the UTC date).
std::wstring TodaysLogPath()
{
    std::wstring dir = ReadStringSetting(TRUE, L"LogfilePath");
    __time64_t now = KspTime();
    struct tm utc = {};
    _gmtime64_s(&utc, &now);
    wchar_t szName[64];
    _snwprintf_s(szName, ARRAYSIZE(szName), _TRUNCATE, L"\\%04d-%02d-%02d_KestalKeyVaultKSP.log", utc.tm_year + 1900,
                 utc.tm_mon + 1, utc.tm_mday);
    return dir + szName;
}

// The last failure lines (level 1: the line ends in " 1") of the end of the file.
std::vector<std::string> LastFailures(const std::wstring &path)
{
    std::vector<std::string> failures;
    FILE *pFile = nullptr;
    if (_wfopen_s(&pFile, path.c_str(), L"rb") != 0 || !pFile)
        return failures;
    if (fseek(pFile, 0, SEEK_END) == 0 && ftell(pFile) > kLogTailBytes)
        fseek(pFile, -kLogTailBytes, SEEK_END);
    else
        fseek(pFile, 0, SEEK_SET);
    char szLine[4096];
    while (fgets(szLine, sizeof(szLine), pFile)) {
        size_t cb = strcspn(szLine, "\r\n");
        szLine[cb] = 0;
        if (cb > 2 && strcmp(szLine + cb - 2, " 1") == 0) {
            failures.emplace_back(szLine);
            if (failures.size() > kFailureLines)
                failures.erase(failures.begin());
        }
    }
    fclose(pFile);
    return failures;
}

void PrintLog()
{
    DWORD dwLevel = ReadDwordSetting(TRUE, L"LoggingLevel", 0);
    DWORD dwEventLevel = ReadDwordSetting(TRUE, L"EVLoggingLevel", 0);
    if (dwLevel == 0 && dwEventLevel == 0) {
        Out(L"Log: off. To see failures: kestalksp config set LoggingLevel 1\n");
        return;
    }
    std::wstring path = TodaysLogPath();
    Out(L"Log: %ls%ls (LoggingLevel %lu, EVLoggingLevel %lu)\n", path.c_str(),
        path[0] == L'\\' ? L" on each program's current drive" : L"", static_cast<unsigned long>(dwLevel),
        static_cast<unsigned long>(dwEventLevel));
    std::vector<std::string> failures = LastFailures(path);
    if (failures.empty())
        Out(L"  no failures logged today\n");
    for (const std::string &line : failures) {
        wchar_t szLine[4096];
        int cch = MultiByteToWideChar(CP_ACP, 0, line.c_str(), -1, szLine, ARRAYSIZE(szLine));
        Out(L"  %ls\n", cch > 0 ? szLine : L"(unreadable line)");
    }
}

// ---- The probe: why sign-in failed ----------------------------------------------------------

const wchar_t *Text(const BldStr *pstr) { return pstr && pstr->cStr ? pstr->cStr : L""; }

// A form value as the token service decodes it: UTF-8, percent-encoded.
std::string FormValue(const wchar_t *pszValue)
{
    std::string utf8(static_cast<size_t>(WideCharToMultiByte(CP_UTF8, 0, pszValue, -1, nullptr, 0, nullptr, nullptr)), '\0');
    WideCharToMultiByte(CP_UTF8, 0, pszValue, -1, utf8.data(), static_cast<int>(utf8.size()), nullptr, nullptr);
    std::string encoded;
    encoded.reserve(utf8.size() * 3); // grown once: no partial copies of a secret left behind
    for (char c : utf8) {
        if (!c)
            break;
        if (isalnum(static_cast<unsigned char>(c)) || strchr("-._~", c)) {
            encoded += c;
        } else {
            char szHex[4];
            snprintf(szHex, sizeof(szHex), "%%%02X", static_cast<unsigned char>(c));
            encoded += szHex;
        }
    }
    SecureZeroMemory(utf8.data(), utf8.size());
    return encoded;
}

// The provider's sign-in host and token path, from its "https://<host>/<tenant>": the cloud's
// own authority, never another cloud's.
bool LoginTarget(KVC *kvc, std::wstring *pHost, std::wstring *pPath)
{
    constexpr wchar_t kScheme[] = L"https://";
    constexpr size_t cchScheme = ARRAYSIZE(kScheme) - 1;
    KVCGetLoginUrl(kvc);
    const std::wstring url = Text(kvc->loginUrl);
    const size_t slash = url.find(L'/', cchScheme);
    if (_wcsnicmp(url.c_str(), kScheme, cchScheme) != 0 || slash == std::wstring::npos || slash == cchScheme)
        return false;
    *pHost = url.substr(cchScheme, slash - cchScheme);
    *pPath = url.substr(slash) + L"/oauth2/token";
    return true;
}

// Asks the token endpoint once more and reads its error: the AADSTS code, or 0 and the status.
long TokenError(KVC *kvc, const std::wstring &host, const std::wstring &path, DWORD *pdwStatus, std::string *pError)
{
    std::string secret = FormValue(Text(kvc->clientSecret));
    std::string body = "resource=" + FormValue(Text(kvc->resource)) + "&grant_type=client_credentials&client_id=" +
                       FormValue(Text(kvc->clientId)) + "&client_secret=";
    body.reserve(body.size() + secret.size() + 1);
    body += secret;
    SecureZeroMemory(secret.data(), secret.size());
    KVC_WEB_RESPONSE *resp = KVCDoWebCall(kvc, 443, host.c_str(), path.c_str(), L"POST",
                                          L"Content-Type: application/x-www-form-urlencoded\r\n"
                                          L"Accept: application/json\r\n",
                                          body.c_str());
    SecureZeroMemory(body.data(), body.size());
    *pdwStatus = resp ? resp->status : 0;
    long code = 0;
    if (resp && resp->body) {
        KVCJsonDoc doc = KVCJsonParse(resp->body);
        json_object *codes = KVCJsonMember(doc.get(), "error_codes", json_type_array);
        if (codes && json_object_array_length(codes) > 0)
            code = static_cast<long>(json_object_get_int64(json_object_array_get_idx(codes, 0)));
        const char *pszError = KVCJsonGetString(doc.get(), "error");
        *pError = pszError ? pszError : "";
    }
    KVCFreeWebResponse(resp);
    return code;
}

void ExplainClientSecretFailure(BOOL fMachine, KVC *kvc)
{
    const wchar_t *pszUser = fMachine ? L"" : L" --user";
    if (!Text(kvc->tenantId)[0] || !Text(kvc->clientId)[0]) {
        Out(L"Sign-in failed: %ls is not set. Run: kestalksp config set %ls <id>%ls\n",
            Text(kvc->tenantId)[0] ? L"ClientId" : L"TenantId", Text(kvc->tenantId)[0] ? L"ClientId" : L"TenantId",
            pszUser);
        return;
    }
    if (!Text(kvc->clientSecret)[0]) {
        if (!SecretSettingLength(fMachine, L"ClientDPAPISecret"))
            Out(L"Sign-in failed: no client secret is stored. Run: kestalksp set-secret%ls\n", pszUser);
        else
            Out(L"Sign-in failed: the stored client secret cannot be decrypted here (it was protected on another\n"
                L"machine or by another user). Run: kestalksp set-secret%ls\n",
                pszUser);
        return;
    }
    std::wstring host, path;
    if (!LoginTarget(kvc, &host, &path)) {
        Out(L"Sign-in failed: no sign-in address could be made from TenantId. Check TenantId.\n");
        return;
    }
    DWORD dwStatus = 0;
    std::string error;
    long code = TokenError(kvc, host, path, &dwStatus, &error);
    if (dwStatus == 0)
        Out(L"Sign-in failed: %ls did not answer. Check DNS, the proxy and the firewall.\n", host.c_str());
    else if (code == 90002)
        Out(L"Sign-in failed: the tenant %ls is unknown to Entra ID (AADSTS90002). Check TenantId: it is the\n"
            L"directory (tenant) id of the app registration. Run: kestalksp config set TenantId <id>%ls\n",
            Text(kvc->tenantId), pszUser);
    else if (code == 700016)
        Out(L"Sign-in failed: no application %ls in tenant %ls (AADSTS700016). Check ClientId and TenantId.\n",
            Text(kvc->clientId), Text(kvc->tenantId));
    else if (code == 7000215)
        Out(L"Sign-in failed: the client secret is wrong (AADSTS7000215). Use the secret's value, not its id:\n"
            L"kestalksp set-secret%ls\n",
            pszUser);
    else if (code == 7000222)
        Out(L"Sign-in failed: the client secret has expired (AADSTS7000222). Make a new one for the app, then:\n"
            L"kestalksp set-secret%ls\n",
            pszUser);
    else
        Out(L"Sign-in failed: Entra ID answered HTTP %lu %hs (AADSTS%ld).\n", static_cast<unsigned long>(dwStatus),
            error.c_str(), code);
}

int ExplainSignInFailure(BOOL fMachine, KVC *kvc)
{
    if (kvc->authn & 2)
        ExplainClientSecretFailure(fMachine, kvc);
    if (kvc->authn & 1)
        Out(L"Sign-in failed: no token from the managed identity endpoint. Assign a managed identity to this\n"
            L"machine (Azure VM or Azure Arc), or sign in with a client secret: kestalksp config set\n"
            L"AuthenticationType 2%ls\n",
            fMachine ? L"" : L" --user");
    return KSPADM_SIGNIN;
}

// ---- The probe: why the vault refused -------------------------------------------------------

void PrintPermissions(const KVC *kvc)
{
    Out(L"  Key permissions: get, list, sign, verify, encrypt, decrypt, create, delete, purge\n");
    if (kvc->fCertMode)
        Out(L"  Certificate permissions (certificate mode): get, list, create, update, delete, purge\n");
    Out(L"  With Azure RBAC: the role \"Key Vault Crypto Officer\"%ls on the vault.\n",
        kvc->fCertMode ? L" and \"Key Vault Certificates Officer\"" : L"");
}

// "https://<host>" of the vault the client calls, in whichever cloud and kind it is.
std::wstring VaultUrl(const KVC *kvc)
{
    WCHAR *pszHost = KVCNewVaultHost(kvc);
    std::wstring url = std::wstring(L"https://") + (pszHost ? pszHost : L"");
    free(pszHost);
    return url;
}

int ExplainVaultFailure(KVC *kvc)
{
    ScopedAnswer answer;
    KVCDoKVRESTCall(kvc, &answer, nullptr, KVC_COLLECTION_KEYS, nullptr, L"GET", nullptr, nullptr, nullptr);
    const std::wstring vault = VaultUrl(kvc);
    const wchar_t *pszVault = vault.c_str();
    KVCJsonDoc doc = KVCJsonParse(answer.body);
    const char *pszMessage = KVCJsonGetString(KVCJsonMember(doc.get(), "error", json_type_object), "message");
    switch (answer.status) {
    case 0:
        Out(L"The vault %ls did not answer. Check the vault's name (KeyVault), DNS,\n"
            L"the proxy and the firewall.\n",
            pszVault);
        break;
    case 401:
        Out(L"The vault %ls refused the token (HTTP 401): the vault belongs to another tenant than the one\n"
            L"signed in to. Check TenantId and KeyVault.\n",
            pszVault);
        break;
    case 403:
        Out(L"Signed in, but the identity (%ls) has no access to the keys of vault %ls (HTTP 403).\n"
            L"Grant it these data-plane permissions in the vault's access policy:\n",
            kvc->authn & 2 ? Text(kvc->clientId) : L"this machine's managed identity", pszVault);
        PrintPermissions(kvc);
        break;
    default:
        Out(L"The vault %ls answered HTTP %lu: %hs\n", pszVault, static_cast<unsigned long>(answer.status),
            pszMessage ? pszMessage : "(no message)");
    }
    return KSPADM_VAULT;
}

struct CoreProvider {
    NCRYPT_PROV_HANDLE h = 0;
    ~CoreProvider()
    {
        if (h)
            KestalKeyVaultKSPFreeProvider(h);
    }
};

// Opens a provider from the core linked into this tool, so that the settings, the DPAPI secret
// and the vault client are exactly the provider's, and then asks for a token and the key list.
int Probe(BOOL fMachine)
{
    Out(L"\nProbe of the %ls scope:\n", ScopeName(fMachine));
    CoreProvider provider;
    SECURITY_STATUS status = KestalKeyVaultKSPOpenProvider(&provider.h, KSP_PROVIDER_NAME, 0);
    KSP_PROVIDER *pProvider = status == 0 ? KspProviderFromHandle(provider.h) : nullptr;
    KVC *kvc = pProvider ? (fMachine ? pProvider->kvcMachine : pProvider->kvcUser) : nullptr;
    if (status != 0) {
        Out(L"The provider could not be opened (%ls).\n", StatusText(status).c_str());
        return KSPADM_FAILED;
    }
    if (!kvc) {
        Out(L"The %ls scope has no vault: KeyVault, AzureCloud or VaultType holds a value the provider does\n"
            L"not accept (kestalksp config show; the log names the value).\n",
            ScopeName(fMachine));
        return KSPADM_FAILED;
    }
    if (!KVCAuthenticate(kvc, nullptr))
        return ExplainSignInFailure(fMachine, kvc);
    Out(L"  Signed in.\n");
    WCHAR **ppNames = nullptr;
    DWORD cNames = 0;
    if (!KVCGetKeys(kvc, &ppNames, &cNames))
        return ExplainVaultFailure(kvc);
    Out(L"  Vault %ls lists %lu keys.\n", VaultUrl(kvc).c_str(), static_cast<unsigned long>(cNames));
    for (DWORD i = 0; i < cNames; ++i)
        free(ppNames[i]);
    free(ppNames);
    Out(L"Sign-in and the vault work. Next: kestalksp keys%ls, then kestalksp test <key>%ls\n",
        fMachine ? L"" : L" --user", fMachine ? L"" : L" --user");
    return KSPADM_OK;
}

} // namespace

int CmdStatus(const KSPADM_ARGS *pArgs)
{
    wchar_t szExe[MAX_PATH] = L"";
    GetModuleFileNameW(nullptr, szExe, MAX_PATH);
    Out(L"kestalksp %ls\n", FileVersion(szExe).c_str());
    KSPADM_REGISTRATION reg;
    ReadRegistration(&reg);
    PrintRegistration(&reg);
    PrintSettings(TRUE);
    PrintSettings(FALSE);
    Out(L"Sign-in:\n");
    PrintSignIn(TRUE);
    PrintSignIn(FALSE);
    PrintCertificateSync();
    PrintLog();
    int rc = KSPADM_OK;
    if (!IsRegistered(&reg)) {
        Out(L"The provider is not registered: run kestalksp register\n");
        rc = KSPADM_FAILED;
    }
    if (pArgs->fProbe) {
        int probe = Probe(pArgs->fMachine);
        if (probe != KSPADM_OK)
            rc = probe;
    }
    return rc;
}
