// One owner type per kind of Windows handle or block, each released by its own function on every
// way out. Use these rather than a holder of one's own.
#pragma once

#include <windows.h>

#include <bcrypt.h>
#include <ncrypt.h>
#include <wincrypt.h>
#include <winhttp.h>

#include <memory>

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

// Owns one handle of type H, released by Release unless it is Empty. Move-only.
template <typename H, auto Release, H Empty = H{}> class UniqueHandle {
public:
    UniqueHandle() = default;
    explicit UniqueHandle(H h) : h_(h) {}
    ~UniqueHandle() { reset(); }
    UniqueHandle(UniqueHandle &&other) noexcept : h_(other.release()) {}
    UniqueHandle &operator=(UniqueHandle &&other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueHandle(const UniqueHandle &) = delete;
    UniqueHandle &operator=(const UniqueHandle &) = delete;

    H get() const { return h_; }
    // For out-parameters: releases what is held and hands out the slot.
    H *put()
    {
        reset();
        return &h_;
    }
    H release()
    {
        H h = h_;
        h_ = Empty;
        return h;
    }
    void reset(H h = Empty)
    {
        if (h_ != Empty)
            Release(h_);
        h_ = h;
    }
    explicit operator bool() const { return h_ != Empty; }

private:
    H h_ = Empty;
};

// Release functions whose signature is not one argument.
namespace handle_release {
inline void CertStore(HCERTSTORE h) { CertCloseStore(h, 0); }
inline void BCryptAlgorithm(BCRYPT_ALG_HANDLE h) { BCryptCloseAlgorithmProvider(h, 0); }
inline void ProcessHeap(void *p) { HeapFree(GetProcessHeap(), 0, p); }
inline void Calloc(void *p) { free(p); }
// Text that may hold a secret: zeroed before its memory goes back.
inline void WipedWide(WCHAR *psz)
{
    SecureZeroMemory(psz, wcslen(psz) * sizeof(WCHAR));
    free(psz);
}
inline void WipedNarrow(char *psz)
{
    SecureZeroMemory(psz, strlen(psz));
    free(psz);
}
} // namespace handle_release

using UniqueRegKey = UniqueHandle<HKEY, &RegCloseKey>;
using UniqueInternet = UniqueHandle<HINTERNET, &WinHttpCloseHandle>; // WinHTTP sessions, connections, requests
using UniqueCertStore = UniqueHandle<HCERTSTORE, &handle_release::CertStore>;
using UniqueCertContext = UniqueHandle<PCCERT_CONTEXT, &CertFreeCertificateContext>;
using UniqueNCrypt = UniqueHandle<NCRYPT_HANDLE, &NCryptFreeObject>; // NCrypt providers and keys
using UniqueBCryptKey = UniqueHandle<BCRYPT_KEY_HANDLE, &BCryptDestroyKey>;
using UniqueBCryptAlgorithm = UniqueHandle<BCRYPT_ALG_HANDLE, &handle_release::BCryptAlgorithm>;
using UniqueLocal = UniqueHandle<HLOCAL, &LocalFree>; // what CryptoAPI hands back with LocalAlloc
using UniqueHeapBlock = UniqueHandle<void *, &handle_release::ProcessHeap>;
using UniqueCallocText = UniqueHandle<WCHAR *, &handle_release::Calloc>;
using UniqueWipedText = UniqueHandle<WCHAR *, &handle_release::WipedWide>;
using UniqueWipedBytes = UniqueHandle<char *, &handle_release::WipedNarrow>;

// A typed block that crypt32 hands out with CRYPT_DECODE_ALLOC_FLAG or CRYPT_ENCODE_ALLOC_FLAG.
struct LocalFreeDelete {
    void operator()(void *p) const { LocalFree(p); }
};
template <typename T> using LocalPtr = std::unique_ptr<T, LocalFreeDelete>;
