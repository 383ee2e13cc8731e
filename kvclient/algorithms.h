// Every CNG algorithm this provider serves, with what the vault and CNG call it: one row each.
// The lookups below are the only way the rest of the code maps names, curves and sizes.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>
#include <wchar.h>

struct KVC_ALGORITHM {
    const WCHAR *pszName;        // CNG algorithm name, as CreatePersistedKey takes it
    const WCHAR *pszCurve;       // JSON Web Key "crv"; null for RSA
    const WCHAR *pszSize;        // the curve size as algorithm names spell it; null for RSA
    BOOL fEcdh;                  // a key agreement name (ECDH_*), as opposed to ECDSA_* or RSA
    DWORD dwMinBits, dwMaxBits, dwIncrementBits, dwDefaultBits; // the "Lengths" property
    const WCHAR *pszEsAlgorithm; // the vault's signing algorithm for the curve; null for RSA
    DWORD cbEsHash;              // the hash length that algorithm signs
    ULONG ulPublicMagic;         // the magic of the key's public blob
    DWORD dwInterface;           // what EnumAlgorithms reports
    DWORD dwOperations;
};

inline constexpr DWORD KVC_RSA_OPERATIONS = NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION;
inline constexpr DWORD KVC_ECDH_OPERATIONS = NCRYPT_SECRET_AGREEMENT_OPERATION | NCRYPT_SIGNATURE_OPERATION;

// In the order EnumAlgorithms lists them.
inline constexpr KVC_ALGORITHM KVC_ALGORITHMS[] = {
    // name           curve     size    ECDH   lengths (min, max, step, default)  ES      hash  magic
    {L"RSA", nullptr, nullptr, FALSE, 2048, 4096, 8, 2048, nullptr, 0, BCRYPT_RSAPUBLIC_MAGIC,
     NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE, KVC_RSA_OPERATIONS},
    {L"ECDSA_P256", L"P-256", L"256", FALSE, 256, 256, 0, 256, L"ES256", 32, BCRYPT_ECDSA_PUBLIC_P256_MAGIC,
     NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P384", L"P-384", L"384", FALSE, 384, 384, 0, 384, L"ES384", 48, BCRYPT_ECDSA_PUBLIC_P384_MAGIC,
     NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDSA_P521", L"P-521", L"521", FALSE, 521, 521, 0, 521, L"ES512", 64, BCRYPT_ECDSA_PUBLIC_P521_MAGIC,
     NCRYPT_SIGNATURE_INTERFACE, NCRYPT_SIGNATURE_OPERATION},
    {L"ECDH_P256", L"P-256", L"256", TRUE, 256, 256, 0, 256, L"ES256", 32, BCRYPT_ECDH_PUBLIC_P256_MAGIC,
     NCRYPT_SECRET_AGREEMENT_INTERFACE, KVC_ECDH_OPERATIONS},
    {L"ECDH_P384", L"P-384", L"384", TRUE, 384, 384, 0, 384, L"ES384", 48, BCRYPT_ECDH_PUBLIC_P384_MAGIC,
     NCRYPT_SECRET_AGREEMENT_INTERFACE, KVC_ECDH_OPERATIONS},
    {L"ECDH_P521", L"P-521", L"521", TRUE, 521, 521, 0, 521, L"ES512", 64, BCRYPT_ECDH_PUBLIC_P521_MAGIC,
     NCRYPT_SECRET_AGREEMENT_INTERFACE, KVC_ECDH_OPERATIONS},
};

// By exact name (case-sensitive, as CNG compares them; fIgnoreCase for the checks that have
// always taken any case). Null for names not served.
inline const KVC_ALGORITHM *KVCAlgorithmByName(const WCHAR *pszName, BOOL fIgnoreCase = FALSE)
{
    for (const KVC_ALGORITHM &alg : KVC_ALGORITHMS)
        if (pszName && (fIgnoreCase ? _wcsicmp(pszName, alg.pszName) : wcscmp(pszName, alg.pszName)) == 0)
            return &alg;
    return nullptr;
}

// The ECDSA or ECDH row of a JSON Web Key curve, matched exactly; null for other curves.
inline const KVC_ALGORITHM *KVCAlgorithmByCurve(const WCHAR *pszCurve, BOOL fEcdh)
{
    for (const KVC_ALGORITHM &alg : KVC_ALGORITHMS)
        if (pszCurve && alg.pszCurve && alg.fEcdh == fEcdh && wcscmp(pszCurve, alg.pszCurve) == 0)
            return &alg;
    return nullptr;
}

// The ECDSA or ECDH row of the first curve size ("256", "384", "521", in that order) found
// anywhere in the text: how curve sizes are read out of algorithm names and tags. Null when
// none is there.
inline const KVC_ALGORITHM *KVCAlgorithmBySizeIn(const WCHAR *pszText, BOOL fEcdh)
{
    for (const KVC_ALGORITHM &alg : KVC_ALGORITHMS)
        if (pszText && alg.pszSize && alg.fEcdh == fEcdh && wcsstr(pszText, alg.pszSize))
            return &alg;
    return nullptr;
}
