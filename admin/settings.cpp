// Settings under Software\Kestal\KestalKeyVaultKSP: shown with secrets masked, changed only with
// the type and range the provider accepts (it ignores a value of the wrong type or length, so a
// mistake here would silently fall back to a default), and the client secret stored in the
// DPAPI form the provider reads.
#include "admin/admin.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>
#include <wctype.h>

#include <algorithm>

#include "ksp/ksp.h"

namespace {

enum SETTING_KIND { kOrdinary, kSecret, kKeptByProvider };
constexpr DWORD kMachine = 1, kUser = 2, kBoth = 3;

// One setting as the provider reads it.
struct KSPADM_SETTING {
    const wchar_t *pszName;
    DWORD dwType;     // REG_SZ or REG_DWORD
    DWORD dwScopes;   // kMachine, kUser or kBoth
    SETTING_KIND kind;
    DWORD dwMax;      // REG_DWORD: largest allowed value (from 0); REG_SZ: most characters
    const wchar_t *pszDefault;
    const wchar_t *pszValues; // what the numbers mean, for messages
};

// String lengths are what fits the provider's buffers with the terminator: 1024 bytes for the
// connection settings, 512 for LogfilePath, 256 for EventLog.
constexpr KSPADM_SETTING kSettings[] = {
    {L"KeyVault", REG_SZ, kBoth, kOrdinary, 511, L"%G (the identity's own vault)", nullptr},
    {L"AuthenticationType", REG_DWORD, kBoth, kOrdinary, 3, L"0 (managed identity)",
     L"1 managed identity, 2 client secret, 3 client secret then managed identity (0 counts as 1)"},
    {L"TenantId", REG_SZ, kBoth, kOrdinary, 511, L"empty", nullptr},
    {L"ClientId", REG_SZ, kBoth, kOrdinary, 511, L"empty", nullptr},
    {L"ClientSecret", REG_SZ, kBoth, kSecret, 511, L"empty", nullptr},
    {L"ClientDPAPISecret", REG_SZ, kBoth, kSecret, 4095, L"empty", nullptr},
    {L"ClientCertID", REG_SZ, kBoth, kOrdinary, 511, L"empty", nullptr},
    {L"DoDeletePurge", REG_DWORD, kBoth, kOrdinary, 1, L"0 (deleted keys are purged)",
     L"0 purge every deleted key, 1 keep deleted keys recoverable"},
    {L"CertificatesOrKeys", REG_DWORD, kBoth, kOrdinary, 1, L"0 (certificate mode)",
     L"0 new keys are vault certificates, 1 plain vault keys"},
    {L"ExportableOption", REG_DWORD, kBoth, kOrdinary, 1, L"0", L"0 or 1: exportable flag of new certificate keys"},
    {L"AzureCloud", REG_SZ, kBoth, kOrdinary, 511, L"AzurePublicCloud",
     L"AzurePublicCloud, AzureChinaCloud or AzureUSGovernment"},
    {L"VaultType", REG_SZ, kBoth, kOrdinary, 511, L"KeyVault", L"KeyVault or ManagedHSM"},
    {L"ReuseConnections", REG_DWORD, kMachine, kOrdinary, 1, L"0 (a new connection per call)",
     L"0 a new connection per call, 1 kept-alive connections shared by the process"},
    {L"LogfilePath", REG_SZ, kMachine, kOrdinary, 255, L"empty (the root of the current drive)", nullptr},
    {L"LoggingLevel", REG_DWORD, kMachine, kOrdinary, 10, L"0 (off)",
     L"0 off, 1 failures, 2 warnings, 4 CNG calls, 8 steps, 10 trace"},
    {L"EVLoggingLevel", REG_DWORD, kMachine, kOrdinary, 10, L"0 (off)",
     L"0 off, 1 failures, 2 warnings, 4 CNG calls, 8 steps, 10 trace"},
    {L"EventLog", REG_SZ, kMachine, kOrdinary, 127, L"Application", nullptr},
    {L"FromKVLastSyncTime", REG_DWORD, kMachine, kKeptByProvider, 0xFFFFFFFF, L"none (no sync yet)", nullptr},
    {L"CertSync", REG_SZ, kBoth, kKeptByProvider, 0xFFFF, L"empty", nullptr},
};

bool InScope(const KSPADM_SETTING *pSetting, BOOL fMachine) { return pSetting->dwScopes & (fMachine ? kMachine : kUser); }

// Edit distance, ignoring case: how the closest known name is found for a mistyped one.
size_t Distance(const wchar_t *a, const wchar_t *b)
{
    size_t cb = wcslen(b);
    std::vector<size_t> row(cb + 1);
    for (size_t j = 0; j <= cb; ++j)
        row[j] = j;
    for (size_t i = 1; *a; ++a, ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= cb; ++j) {
            size_t above = row[j];
            bool same = towlower(*a) == towlower(b[j - 1]);
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[cb];
}

// The setting by name (any case, as the registry compares names); prints the closest known
// name and returns null for an unknown one.
const KSPADM_SETTING *FindSetting(const std::wstring &name)
{
    const KSPADM_SETTING *pClosest = &kSettings[0];
    for (const KSPADM_SETTING &setting : kSettings) {
        if (_wcsicmp(setting.pszName, name.c_str()) == 0)
            return &setting;
        if (Distance(name.c_str(), setting.pszName) < Distance(name.c_str(), pClosest->pszName))
            pClosest = &setting;
    }
    Err(L"Unknown setting \"%ls\". Did you mean \"%ls\"? (kestalksp config show lists them all)\n", name.c_str(),
        pClosest->pszName);
    return nullptr;
}

// A setting as stored: its type and raw bytes; FALSE when absent. The bytes are wiped on release:
// they may be a secret, whatever type it was stored with.
struct STORED_VALUE {
    DWORD dwType = REG_NONE;
    std::vector<BYTE> data;
    STORED_VALUE() = default;
    STORED_VALUE(const STORED_VALUE &) = delete;
    STORED_VALUE &operator=(const STORED_VALUE &) = delete;
    ~STORED_VALUE() { SecureZeroMemory(data.data(), data.size()); }
};

BOOL ReadStored(BOOL fMachine, const wchar_t *pszName, STORED_VALUE *pValue)
{
    HKEY hive = fMachine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
    DWORD cb = 0;
    // The registry view the provider reads, also when this tool is a 32-bit build.
    const DWORD dwFlags = RRF_RT_ANY | RRF_NOEXPAND | KSP_SETTINGS_RRF_VIEW;
    if (RegGetValueW(hive, KSP_SETTINGS_KEY, pszName, dwFlags, &pValue->dwType, nullptr, &cb) != ERROR_SUCCESS)
        return FALSE;
    pValue->data.assign(cb + sizeof(wchar_t), 0); // room for a terminator the value may lack
    return RegGetValueW(hive, KSP_SETTINGS_KEY, pszName, dwFlags, &pValue->dwType, pValue->data.data(), &cb) ==
           ERROR_SUCCESS;
}

const wchar_t *TypeName(DWORD dwType)
{
    switch (dwType) {
    case REG_SZ: return L"REG_SZ";
    case REG_DWORD: return L"REG_DWORD";
    case REG_EXPAND_SZ: return L"REG_EXPAND_SZ";
    case REG_MULTI_SZ: return L"REG_MULTI_SZ";
    case REG_BINARY: return L"REG_BINARY";
    case REG_QWORD: return L"REG_QWORD";
    default: return L"another type";
    }
}

// The value as `config show` and `get` print it: secrets only as their length.
std::wstring Shown(const KSPADM_SETTING *pSetting, BOOL fMachine)
{
    STORED_VALUE value;
    if (!ReadStored(fMachine, pSetting->pszName, &value))
        return std::wstring(L"(not set: ") + pSetting->pszDefault + L")";
    if (value.dwType != pSetting->dwType)
        return std::wstring(L"(") + TypeName(value.dwType) + L" found, " + TypeName(pSetting->dwType) +
               L" expected: the provider ignores it and uses " + pSetting->pszDefault + L")";
    wchar_t szText[64];
    if (value.dwType == REG_DWORD) {
        DWORD dw = 0;
        memcpy(&dw, value.data.data(), std::min<size_t>(sizeof(dw), value.data.size()));
        _snwprintf_s(szText, ARRAYSIZE(szText), _TRUNCATE, L"%lu", static_cast<unsigned long>(dw));
        return szText;
    }
    const wchar_t *pszText = reinterpret_cast<const wchar_t *>(value.data.data());
    size_t cch = wcslen(pszText);
    if (pSetting->kind == kSecret) {
        if (cch == 0)
            return L"(empty)";
        _snwprintf_s(szText, ARRAYSIZE(szText), _TRUNCATE, L"set (%u characters)", static_cast<unsigned>(cch));
        return szText;
    }
    if (cch > pSetting->dwMax)
        return std::wstring(pszText) + L"  (too long: the provider ignores it)";
    return cch ? std::wstring(pszText) : std::wstring(L"(empty)");
}

// A decimal or 0x-hexadecimal number within the setting's range.
BOOL ParseDword(const KSPADM_SETTING *pSetting, const std::wstring &text, DWORD *pdw)
{
    wchar_t *pszEnd = nullptr;
    errno = 0;
    unsigned long long n = wcstoull(text.c_str(), &pszEnd, 0);
    if (text.empty() || text[0] == L'-' || *pszEnd || errno || n > pSetting->dwMax)
        return FALSE;
    *pdw = static_cast<DWORD>(n);
    return TRUE;
}

// A REG_SZ whose values are listed ("A, B or C") takes one of them, or nothing (the default).
bool AllowedText(const KSPADM_SETTING *pSetting, const std::wstring &text)
{
    if (pSetting->dwType != REG_SZ || !pSetting->pszValues || text.empty())
        return true;
    std::wstring words = std::wstring(L" ") + pSetting->pszValues + L" ";
    for (wchar_t &ch : words)
        if (ch == L',')
            ch = L' ';
    for (size_t at = words.find(L' '); at + 1 < words.size(); at = words.find(L' ', at + 1)) {
        const std::wstring word = words.substr(at + 1, words.find(L' ', at + 1) - at - 1);
        if (word != L"or" && _wcsicmp(word.c_str(), text.c_str()) == 0)
            return true;
    }
    return false;
}

// Prints why and returns 0 when the value cannot be stored as the provider would read it.
int CheckValue(const KSPADM_SETTING *pSetting, BOOL fMachine, const std::wstring &text, DWORD *pdw)
{
    if (pSetting->kind == kSecret) {
        Err(L"%ls is not given on the command line, where it would stay in the shell's history.\n"
            L"Run: kestalksp set-secret%ls   (it reads the secret without showing it)\n",
            pSetting->pszName, fMachine ? L"" : L" --user");
        return 0;
    }
    if (pSetting->kind == kKeptByProvider) {
        Err(L"%ls is kept by the provider itself. To run the certificate sync now: kestalksp sync\n",
            pSetting->pszName);
        return 0;
    }
    if (!InScope(pSetting, fMachine)) {
        Err(L"%ls is a setting of the whole machine: it lives only under HKEY_LOCAL_MACHINE (leave out --user).\n",
            pSetting->pszName);
        return 0;
    }
    if (pSetting->dwType == REG_DWORD && !ParseDword(pSetting, text, pdw)) {
        Err(L"%ls is a REG_DWORD number from 0 to %lu%ls%ls; \"%ls\" is not.\n", pSetting->pszName,
            static_cast<unsigned long>(pSetting->dwMax), pSetting->pszValues ? L": " : L"",
            pSetting->pszValues ? pSetting->pszValues : L"", text.c_str());
        return 0;
    }
    if (!AllowedText(pSetting, text)) {
        Err(L"%ls takes %ls; \"%ls\" is none of them.\n", pSetting->pszName, pSetting->pszValues, text.c_str());
        return 0;
    }
    if (pSetting->dwType == REG_SZ && text.size() > pSetting->dwMax) {
        Err(L"%ls is a REG_SZ text of at most %lu characters; the provider would ignore a longer one.\n",
            pSetting->pszName, static_cast<unsigned long>(pSetting->dwMax));
        return 0;
    }
    return 1;
}

LSTATUS OpenSettingsForWrite(BOOL fMachine, RegKeyOwner *pKey)
{
    return RegCreateKeyExW(fMachine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER, KSP_SETTINGS_KEY, 0, nullptr, 0,
                           KEY_SET_VALUE | KSP_SETTINGS_VIEW, nullptr, &pKey->h, nullptr);
}

LSTATUS WriteString(HKEY hKey, const wchar_t *pszName, const wchar_t *pszValue)
{
    return RegSetValueExW(hKey, pszName, 0, REG_SZ, reinterpret_cast<const BYTE *>(pszValue),
                          static_cast<DWORD>((wcslen(pszValue) + 1) * sizeof(wchar_t)));
}

int ReportWriteFailure(LSTATUS rc, BOOL fMachine)
{
    if (rc == ERROR_ACCESS_DENIED && fMachine)
        Err(L"Access to HKEY_LOCAL_MACHINE was denied: run this from an elevated (Administrator) prompt.\n");
    else
        Err(L"The registry refused the change (error %ld).\n", static_cast<long>(rc));
    return KSPADM_FAILED;
}

// Sets NAME VALUE pairs (words from index 1): every pair is checked before any is written, so
// a mistake anywhere leaves the registry as it was.
int ConfigSet(BOOL fMachine, const std::vector<std::wstring> &words)
{
    std::vector<const KSPADM_SETTING *> settings;
    std::vector<DWORD> numbers;
    for (size_t i = 1; i + 1 < words.size(); i += 2) {
        const KSPADM_SETTING *pSetting = FindSetting(words[i]);
        DWORD dw = 0;
        if (!pSetting || !CheckValue(pSetting, fMachine, words[i + 1], &dw))
            return KSPADM_USAGE;
        settings.push_back(pSetting);
        numbers.push_back(dw);
    }
    RegKeyOwner key;
    LSTATUS rc = OpenSettingsForWrite(fMachine, &key);
    for (size_t i = 0; rc == ERROR_SUCCESS && i < settings.size(); ++i) {
        const KSPADM_SETTING *pSetting = settings[i];
        rc = pSetting->dwType == REG_DWORD ? RegSetValueExW(key.h, pSetting->pszName, 0, REG_DWORD,
                                                            reinterpret_cast<const BYTE *>(&numbers[i]), sizeof(DWORD))
                                           : WriteString(key.h, pSetting->pszName, words[2 * i + 2].c_str());
        if (rc == ERROR_SUCCESS)
            Out(L"%ls = %ls (%ls)\n", pSetting->pszName, Shown(pSetting, fMachine).c_str(), HiveName(fMachine));
    }
    if (rc != ERROR_SUCCESS)
        return ReportWriteFailure(rc, fMachine);
    bool fModule = std::any_of(settings.begin(), settings.end(), [](const KSPADM_SETTING *p) { return p->dwScopes == kMachine; });
    Out(fModule ? L"Logging settings are read when a program loads the provider: restart the programs that use it.\n"
                : L"Programs read these settings each time they open the provider.\n");
    Out(L"Next: kestalksp status --probe%ls\n", fMachine ? L"" : L" --user");
    return KSPADM_OK;
}

// The secret typed at the console without echo, or piped in; one line, line end removed. The
// buffers never grow (growth would leave copies of a partial secret behind): a line longer than
// they hold keeps only its start, which is still too long for the provider and so is refused.
BOOL ReadSecret(std::wstring *pSecret)
{
    constexpr size_t kMaxChars = 1024, kMaxBytes = 4096;
    HANDLE hIn = GetStdHandle(STD_INPUT_HANDLE);
    DWORD dwMode = 0;
    pSecret->reserve(kMaxChars);
    if (GetConsoleMode(hIn, &dwMode)) {
        Err(L"Client secret (not shown): ");
        SetConsoleMode(hIn, dwMode & ~ENABLE_ECHO_INPUT);
        wchar_t ch = 0;
        DWORD cRead = 0;
        while (ReadConsoleW(hIn, &ch, 1, &cRead, nullptr) && cRead == 1 && ch != L'\r' && ch != L'\n')
            if (pSecret->size() < kMaxChars)
                pSecret->push_back(ch);
        ch = 0;
        SetConsoleMode(hIn, dwMode);
        Err(L"\n");
        return TRUE;
    }
    std::string bytes;
    bytes.reserve(kMaxBytes);
    char c = 0;
    DWORD cRead = 0;
    while (ReadFile(hIn, &c, 1, &cRead, nullptr) && cRead == 1 && c != '\n')
        if (bytes.size() < kMaxBytes)
            bytes.push_back(c);
    c = 0;
    if (!bytes.empty() && bytes.back() == '\r')
        bytes.pop_back();
    int cch = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
    BOOL fOk = bytes.empty() || cch > 0;
    if (cch > 0) {
        pSecret->assign(static_cast<size_t>(cch), L'\0');
        MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), pSecret->data(), cch);
    }
    SecureZeroMemory(bytes.data(), bytes.size());
    return fOk;
}

// Stores the DPAPI text and blanks ClientSecret; then checks it reads back as the secret.
int StoreSecret(BOOL fMachine, const std::wstring &secret)
{
    std::vector<wchar_t> dpapi(4096, L'\0');
    if (!KspProtectClientSecret(fMachine, secret.c_str(), dpapi.data(), static_cast<DWORD>(dpapi.size()))) {
        Err(L"DPAPI could not protect the secret (error %lu).\n", GetLastError());
        return KSPADM_FAILED;
    }
    RegKeyOwner key;
    LSTATUS rc = OpenSettingsForWrite(fMachine, &key);
    if (rc == ERROR_SUCCESS)
        rc = WriteString(key.h, L"ClientDPAPISecret", dpapi.data());
    if (rc == ERROR_SUCCESS)
        rc = WriteString(key.h, L"ClientSecret", L"");
    std::vector<wchar_t> check(512, L'\0'); // the provider's 1024-byte buffer
    BOOL fSame = rc == ERROR_SUCCESS &&
                 GetSecretFromDPAPI(dpapi.data(), reinterpret_cast<BYTE *>(check.data()),
                                    static_cast<DWORD>(check.size() * sizeof(wchar_t))) &&
                 check.back() == 0 && secret == check.data();
    SecureZeroMemory(check.data(), check.size() * sizeof(wchar_t));
    SecureZeroMemory(dpapi.data(), dpapi.size() * sizeof(wchar_t));
    if (rc != ERROR_SUCCESS)
        return ReportWriteFailure(rc, fMachine);
    if (!fSame) {
        Err(L"The stored secret does not read back as the one given.\n");
        return KSPADM_FAILED;
    }
    Out(L"Stored the client secret (%u characters) in ClientDPAPISecret under %ls, DPAPI-protected for %ls;\n"
        L"ClientSecret is blank.\n",
        static_cast<unsigned>(secret.size()), HiveName(fMachine), fMachine ? L"this machine" : L"the current user");
    if (!(ReadDwordSetting(fMachine, L"AuthenticationType", 0) & 2))
        Out(L"AuthenticationType does not include the client secret: kestalksp config set AuthenticationType 2%ls\n",
            fMachine ? L"" : L" --user");
    Out(L"Next: kestalksp status --probe%ls\n", fMachine ? L"" : L" --user");
    return KSPADM_OK;
}

} // namespace

DWORD ReadDwordSetting(BOOL fMachine, const wchar_t *pszName, DWORD dwDefault)
{
    STORED_VALUE value;
    if (!ReadStored(fMachine, pszName, &value) || value.dwType != REG_DWORD || value.data.size() < sizeof(DWORD))
        return dwDefault;
    DWORD dw = 0;
    memcpy(&dw, value.data.data(), sizeof(dw));
    return dw;
}

size_t SecretSettingLength(BOOL fMachine, const wchar_t *pszName)
{
    STORED_VALUE value;
    if (!ReadStored(fMachine, pszName, &value) || value.dwType != REG_SZ)
        return 0;
    return wcslen(reinterpret_cast<const wchar_t *>(value.data.data()));
}

std::wstring ReadStringSetting(BOOL fMachine, const wchar_t *pszName)
{
    STORED_VALUE value;
    if (!ReadStored(fMachine, pszName, &value) || value.dwType != REG_SZ)
        return L"";
    return reinterpret_cast<const wchar_t *>(value.data.data());
}

void PrintSettings(BOOL fMachine)
{
    Out(L"Settings of the %ls scope (%ls\\%ls):\n", ScopeName(fMachine), HiveName(fMachine), KSP_SETTINGS_KEY);
    for (const KSPADM_SETTING &setting : kSettings)
        if (InScope(&setting, fMachine))
            Out(L"  %-20ls %-10ls %ls\n", setting.pszName, TypeName(setting.dwType), Shown(&setting, fMachine).c_str());
}

int CmdConfig(const KSPADM_ARGS *pArgs)
{
    const std::wstring &verb = pArgs->words[0];
    size_t cWords = pArgs->words.size();
    if (_wcsicmp(verb.c_str(), L"show") == 0 && cWords == 1) {
        PrintSettings(pArgs->fMachine);
        return KSPADM_OK;
    }
    if (_wcsicmp(verb.c_str(), L"get") == 0 && cWords == 2) {
        const KSPADM_SETTING *pSetting = FindSetting(pArgs->words[1]);
        if (!pSetting)
            return KSPADM_USAGE;
        Out(L"%ls\n", Shown(pSetting, pArgs->fMachine).c_str());
        return KSPADM_OK;
    }
    if (_wcsicmp(verb.c_str(), L"set") == 0 && cWords >= 3 && cWords % 2 == 1)
        return ConfigSet(pArgs->fMachine, pArgs->words);
    Err(L"Usage: kestalksp config show | get NAME | set NAME VALUE [NAME VALUE ...] [--machine | --user]\n");
    return KSPADM_USAGE;
}

int CmdSetSecret(const KSPADM_ARGS *pArgs)
{
    std::wstring secret;
    if (!ReadSecret(&secret)) {
        Err(L"The secret could not be read from standard input (it must be UTF-8 text).\n");
        return KSPADM_USAGE;
    }
    int rc = KSPADM_USAGE;
    if (secret.empty())
        Err(L"No secret was given: type it (or pipe it) on one line.\n");
    else if (secret.size() > 511)
        Err(L"The secret is longer than the provider's 511 characters.\n");
    else
        rc = StoreSecret(pArgs->fMachine, secret);
    SecureZeroMemory(secret.data(), secret.size() * sizeof(wchar_t));
    return rc;
}
