// kestalksp.exe: the command line, the commands' help, and the output helpers.
#include "admin/admin.h"

#include <stdarg.h>
#include <stdio.h>
#include <wchar.h>

#include <new>

namespace {

constexpr DWORD kOptMachineUser = 1, kOptProbe = 2, kOptDll = 4;

struct KSPADM_COMMAND {
    const wchar_t *pszName;
    int (*pfnRun)(const KSPADM_ARGS *pArgs);
    DWORD dwOptions;  // the options it takes
    size_t cMinWords; // positional arguments it needs
    size_t cMaxWords;
    const wchar_t *pszHelp; // usage line first, then what it does and what follows
};

constexpr KSPADM_COMMAND kCommands[] = {
    {L"register", CmdRegister, kOptDll, 0, 0,
     L"kestalksp register [--dll PATH]\n"
     L"  Registers \"Kestal Key Vault Key Storage Provider\" with CNG as a key storage provider\n"
     L"  (image KestalKeyVaultKSP.dll in System32, or the DLL at PATH), then reads the registration\n"
     L"  back and prints it. Running it again changes nothing. Needs an elevated prompt.\n"
     L"  Next: kestalksp config set KeyVault <vault name>\n"},
    {L"unregister", CmdUnregister, 0, 0, 0,
     L"kestalksp unregister\n"
     L"  Removes this provider's registration; every other provider and their order stay as they\n"
     L"  are, and the settings are kept. Running it again changes nothing. Needs an elevated prompt.\n"},
    {L"config", CmdConfig, kOptMachineUser, 1, 41,
     L"kestalksp config show | get NAME | set NAME VALUE [NAME VALUE ...] [--machine | --user]\n"
     L"  Shows or changes the settings under Software\\Kestal\\KestalKeyVaultKSP of\n"
     L"  HKEY_LOCAL_MACHINE (--machine, the default: machine keys and the module's own settings)\n"
     L"  or HKEY_CURRENT_USER (--user: the current user's keys). Values are checked for their\n"
     L"  type and range, all of them before any is written; secrets are shown only as\n"
     L"  \"set (N characters)\". The client secret is stored with kestalksp set-secret.\n"
     L"  Example: kestalksp config set KeyVault myvault AuthenticationType 1\n"},
    {L"set-secret", CmdSetSecret, kOptMachineUser, 0, 0,
     L"kestalksp set-secret [--machine | --user]\n"
     L"  Reads the application's client secret from standard input (not shown on screen) and\n"
     L"  stores it DPAPI-protected in ClientDPAPISecret, bound to this machine (--machine) or to\n"
     L"  the current user (--user), and blanks ClientSecret.\n"
     L"  Next: kestalksp status --probe\n"},
    {L"status", CmdStatus, kOptProbe | kOptMachineUser, 0, 0,
     L"kestalksp status [--probe [--machine | --user]]\n"
     L"  Prints the registration (DLL path and version), the settings of both scopes with secrets\n"
     L"  masked, which sign-in each scope uses, the last certificate sync, and today's log file\n"
     L"  with its last failure lines. --probe also signs in and lists the vault's keys for one\n"
     L"  scope (machine by default), and names the likely cause of a failure.\n"},
    {L"keys", CmdKeys, kOptMachineUser, 0, 0,
     L"kestalksp keys [--user]\n"
     L"  Lists the vault's keys as CNG programs see them (name, algorithm, bits), through the\n"
     L"  registered provider as the CNG router calls it. Machine keys unless --user.\n"
     L"  Next: kestalksp test <name>\n"},
    {L"test", CmdTest, kOptMachineUser, 1, 1,
     L"kestalksp test KEY [--user]\n"
     L"  Signs a fresh hash with the key through the registered provider (the vault signs),\n"
     L"  verifies the signature locally with BCrypt against the key's exported public key, and\n"
     L"  prints the time taken. Machine keys unless --user.\n"},
    {L"sync", CmdSync, 0, 0, 0,
     L"kestalksp sync\n"
     L"  Runs the certificate sync now: forgets the last sync time, opens a machine key as\n"
     L"  programs do (which starts the sync), and lists the certificates it added to the local\n"
     L"  machine's \"My\" store. Only in certificate mode (CertificatesOrKeys 0).\n"},
};

void Write(FILE *pStream, const wchar_t *pszFormat, va_list args)
{
    wchar_t szText[8192];
    if (_vsnwprintf_s(szText, ARRAYSIZE(szText), _TRUNCATE, pszFormat, args) < 0)
        szText[ARRAYSIZE(szText) - 1] = 0;
    char szUtf8[ARRAYSIZE(szText) * 3];
    int cb = WideCharToMultiByte(CP_UTF8, 0, szText, -1, szUtf8, sizeof(szUtf8), nullptr, nullptr);
    if (cb > 1)
        fwrite(szUtf8, 1, static_cast<size_t>(cb - 1), pStream);
    fflush(pStream);
}

void Print(FILE *pStream, const wchar_t *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    Write(pStream, pszFormat, args);
    va_end(args);
}

// The first line of each command's help.
void PrintUsage(FILE *pStream)
{
    Print(pStream, L"Usage: kestalksp COMMAND [OPTIONS]   (kestalksp COMMAND --help tells more)\n");
    for (const KSPADM_COMMAND &command : kCommands)
        Print(pStream, L"  %.*ls\n", static_cast<int>(wcscspn(command.pszHelp, L"\n")), command.pszHelp);
    Print(pStream, L"Exit codes: 0 success, 1 failed, 2 wrong command line or value, 3 sign-in failed,\n"
                   L"4 vault unreachable or access refused, 5 key not found.\n");
}

const KSPADM_COMMAND *FindCommand(const wchar_t *pszName)
{
    for (const KSPADM_COMMAND &command : kCommands)
        if (_wcsicmp(command.pszName, pszName) == 0)
            return &command;
    return nullptr;
}

bool IsHelp(const wchar_t *psz)
{
    return wcscmp(psz, L"--help") == 0 || wcscmp(psz, L"-h") == 0 || wcscmp(psz, L"/?") == 0;
}

// Fills pArgs from argv[2..]; prints what is wrong and returns 0 for a bad command line.
int ParseArgs(const KSPADM_COMMAND *pCommand, int argc, wchar_t **argv, KSPADM_ARGS *pArgs)
{
    for (int i = 2; i < argc; ++i) {
        const wchar_t *psz = argv[i];
        DWORD dwNeeded = 0;
        if (wcscmp(psz, L"--machine") == 0 || wcscmp(psz, L"--user") == 0) {
            dwNeeded = kOptMachineUser;
            pArgs->fMachine = psz[2] == L'm';
        } else if (wcscmp(psz, L"--probe") == 0) {
            dwNeeded = kOptProbe;
            pArgs->fProbe = TRUE;
        } else if (wcscmp(psz, L"--dll") == 0) {
            dwNeeded = kOptDll;
            if (i + 1 >= argc) {
                Err(L"--dll needs a path: kestalksp register --dll C:\\path\\KestalKeyVaultKSP.dll\n");
                return 0;
            }
            pArgs->dllPath = argv[++i];
        } else if (psz[0] == L'-' && psz[1] == L'-') {
            Err(L"Unknown option %ls for %ls. See: kestalksp %ls --help\n", psz, pCommand->pszName, pCommand->pszName);
            return 0;
        } else {
            pArgs->words.emplace_back(psz);
        }
        if (dwNeeded && !(pCommand->dwOptions & dwNeeded)) {
            Err(L"%ls does not take %ls. See: kestalksp %ls --help\n", pCommand->pszName, psz, pCommand->pszName);
            return 0;
        }
    }
    if (pArgs->words.size() < pCommand->cMinWords || pArgs->words.size() > pCommand->cMaxWords) {
        Err(L"Wrong number of arguments. Usage: %.*ls\n", static_cast<int>(wcscspn(pCommand->pszHelp, L"\n")),
            pCommand->pszHelp);
        return 0;
    }
    return 1;
}

int Run(int argc, wchar_t **argv)
{
    if (argc < 2 || IsHelp(argv[1]) || _wcsicmp(argv[1], L"help") == 0) {
        bool fAsked = argc >= 2;
        PrintUsage(fAsked ? stdout : stderr);
        return fAsked ? KSPADM_OK : KSPADM_USAGE;
    }
    const KSPADM_COMMAND *pCommand = FindCommand(argv[1]);
    if (!pCommand) {
        Err(L"Unknown command \"%ls\".\n", argv[1]);
        PrintUsage(stderr);
        return KSPADM_USAGE;
    }
    for (int i = 2; i < argc; ++i) {
        if (IsHelp(argv[i])) {
            Out(L"%ls", pCommand->pszHelp);
            return KSPADM_OK;
        }
    }
    KSPADM_ARGS args;
    if (!ParseArgs(pCommand, argc, argv, &args))
        return KSPADM_USAGE;
    return pCommand->pfnRun(&args);
}

} // namespace

void Out(const wchar_t *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    Write(stdout, pszFormat, args);
    va_end(args);
}

void Err(const wchar_t *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    Write(stderr, pszFormat, args);
    va_end(args);
}

const wchar_t *ScopeName(BOOL fMachine) { return fMachine ? L"machine" : L"user"; }
const wchar_t *HiveName(BOOL fMachine) { return fMachine ? L"HKEY_LOCAL_MACHINE" : L"HKEY_CURRENT_USER"; }

std::wstring StatusText(SECURITY_STATUS status)
{
    static const struct {
        SECURITY_STATUS status;
        const wchar_t *pszName;
    } kNames[] = {
        {SEC_E_LOGON_DENIED, L"SEC_E_LOGON_DENIED"},     {NTE_NOT_FOUND, L"NTE_NOT_FOUND"},
        {NTE_BAD_KEYSET, L"NTE_BAD_KEYSET"},             {NTE_INTERNAL_ERROR, L"NTE_INTERNAL_ERROR"},
        {NTE_INVALID_PARAMETER, L"NTE_INVALID_PARAMETER"}, {NTE_INVALID_HANDLE, L"NTE_INVALID_HANDLE"},
        {NTE_NOT_SUPPORTED, L"NTE_NOT_SUPPORTED"},       {NTE_BAD_FLAGS, L"NTE_BAD_FLAGS"},
        {NTE_BAD_SIGNATURE, L"NTE_BAD_SIGNATURE"},       {NTE_NO_MEMORY, L"NTE_NO_MEMORY"},
        {NTE_BUFFER_TOO_SMALL, L"NTE_BUFFER_TOO_SMALL"}, {NTE_BAD_DATA, L"NTE_BAD_DATA"},
        {NTE_BAD_KEY_STATE, L"NTE_BAD_KEY_STATE"},       {NTE_PERM, L"NTE_PERM"},
        {NTE_FAIL, L"NTE_FAIL"},                         {NTE_EXISTS, L"NTE_EXISTS"},
    };
    wchar_t szText[64];
    const wchar_t *pszName = L"status";
    for (const auto &entry : kNames)
        if (entry.status == status)
            pszName = entry.pszName;
    _snwprintf_s(szText, ARRAYSIZE(szText), _TRUNCATE, L"%ls (0x%08lX)", pszName, static_cast<unsigned long>(status));
    return szText;
}

int wmain(int argc, wchar_t **argv)
{
    SetConsoleOutputCP(CP_UTF8);
    try {
        return Run(argc, argv);
    } catch (const std::bad_alloc &) {
        Err(L"Out of memory.\n");
        return KSPADM_FAILED;
    }
}
