// The platform's CryptoAPI, as far as the library uses it: provider contexts of the base
// provider (PROV_RSA_FULL), MD5 hashes, RC4 keys derived from a hash, RC4 ciphering, and the
// two key pairs of a key container.
//
// MD5 comes from libcrypto, RC4 is the library's own (Rc4.h). A key derived from a hash is
// what the base provider derives: the first 5 bytes of the MD5 followed by 11 zero bytes,
// used as a 16-byte RC4 key. The provider counts as unavailable when libcrypto cannot give
// MD5 (its configuration loads no provider that has it): every context acquisition then fails
// with NTE_PROVIDER_DLL_FAIL.
//
// Key containers live in the process's memory: CRYPT_NEWKEYSET creates one, CRYPT_DELETEKEYSET
// removes it, and it lasts at most until the process ends. A container keeps only whether its
// signature and exchange key pairs were generated, no key material: their handles serve
// CryptGetUserKey and CryptDestroyKey, and ciphering with them fails with NTE_BAD_KEY. The
// default container is named after the effective user.
//
// Results: TRUE on success; FALSE with the reason as the last error (NTE_* values, or
// ERROR_INVALID_PARAMETER for a null out-parameter and ERROR_MORE_DATA for a short buffer).
// Handles are numbers checked on every call: an unknown or destroyed handle fails with
// NTE_BAD_UID (context), NTE_BAD_HASH or NTE_BAD_KEY. Releasing a context also destroys the
// hashes and keys made through it.
//
// Thread safety: every function may be called from any thread; one hash or key handle is for
// one thread at a time.
#pragma once

#include <cstdint>

#include "tessel/Export.h"
#include "tessel/platform/Types.h"

namespace Tessel::Platform {

using BYTE = unsigned char;
using ALG_ID = unsigned int;
using HCRYPTPROV = std::uintptr_t;
using HCRYPTHASH = std::uintptr_t;
using HCRYPTKEY = std::uintptr_t;

// The provider and its type.
inline constexpr const char* MS_DEF_PROV_A = "Microsoft Base Cryptographic Provider v1.0";
inline constexpr DWORD PROV_RSA_FULL = 1;

// Flags of CryptAcquireContextA.
inline constexpr DWORD CRYPT_VERIFYCONTEXT = 0xF0000000u;  // no container
inline constexpr DWORD CRYPT_NEWKEYSET = 0x00000008u;
inline constexpr DWORD CRYPT_DELETEKEYSET = 0x00000010u;
inline constexpr DWORD CRYPT_MACHINE_KEYSET = 0x00000020u;  // containers of their own
inline constexpr DWORD CRYPT_SILENT = 0x00000040u;          // accepted, changes nothing

// Algorithms and key specs.
inline constexpr ALG_ID CALG_MD5 = 0x8003;
inline constexpr ALG_ID CALG_RC4 = 0x6801;
inline constexpr ALG_ID AT_KEYEXCHANGE = 1;
inline constexpr ALG_ID AT_SIGNATURE = 2;

// Flags of CryptDeriveKey and CryptGenKey: the key length in bits in the upper 16 bits (0 or
// 40, the base provider's RC4 length), and these.
inline constexpr DWORD CRYPT_EXPORTABLE = 0x00000001u;
inline constexpr DWORD CRYPT_NO_SALT = 0x00000010u;

// Error numbers of the CryptoAPI.
inline constexpr DWORD NTE_BAD_UID = 0x80090001u;
inline constexpr DWORD NTE_BAD_HASH = 0x80090002u;
inline constexpr DWORD NTE_BAD_KEY = 0x80090003u;
inline constexpr DWORD NTE_BAD_LEN = 0x80090004u;
inline constexpr DWORD NTE_BAD_ALGID = 0x80090008u;
inline constexpr DWORD NTE_BAD_FLAGS = 0x80090009u;
inline constexpr DWORD NTE_BAD_HASH_STATE = 0x8009000Cu;
inline constexpr DWORD NTE_NO_KEY = 0x8009000Du;
inline constexpr DWORD NTE_EXISTS = 0x8009000Fu;
inline constexpr DWORD NTE_BAD_PROV_TYPE = 0x80090014u;
inline constexpr DWORD NTE_BAD_KEYSET = 0x80090016u;
inline constexpr DWORD NTE_KEYSET_NOT_DEF = 0x80090019u;
inline constexpr DWORD NTE_PROVIDER_DLL_FAIL = 0x8009001Du;

// Opens a context of provider (null or MS_DEF_PROV_A, any case; another name gives
// NTE_KEYSET_NOT_DEF) of type PROV_RSA_FULL (else NTE_BAD_PROV_TYPE) on container (null or
// empty: the default container). Without flags the container must exist (NTE_BAD_KEYSET);
// CRYPT_NEWKEYSET creates it (NTE_EXISTS if it exists); CRYPT_DELETEKEYSET removes it
// (NTE_BAD_KEYSET if missing) and sets *provider to 0; CRYPT_VERIFYCONTEXT opens no
// container. Other flag bits give NTE_BAD_FLAGS.
TESSEL_API BOOL CryptAcquireContextA(HCRYPTPROV* provider, const char* container,
                                     const char* providerName, DWORD type, DWORD flags);
// Closes the context and destroys its hashes and keys; flags must be 0 (NTE_BAD_FLAGS).
TESSEL_API BOOL CryptReleaseContext(HCRYPTPROV provider, DWORD flags);

// A fresh CALG_MD5 hash (another algorithm: NTE_BAD_ALGID); key and flags must be 0.
TESSEL_API BOOL CryptCreateHash(HCRYPTPROV provider, ALG_ID algorithm, HCRYPTKEY key, DWORD flags,
                                HCRYPTHASH* hash);
// Adds length bytes of data. A hash that a key was derived from is finished:
// NTE_BAD_HASH_STATE.
TESSEL_API BOOL CryptHashData(HCRYPTHASH hash, const BYTE* data, DWORD length, DWORD flags);
TESSEL_API BOOL CryptDestroyHash(HCRYPTHASH hash);

// A CALG_RC4 key from the hash's value (see above), which finishes the hash. flags:
// CRYPT_EXPORTABLE, CRYPT_NO_SALT and a length of 0 or 40 bits.
TESSEL_API BOOL CryptDeriveKey(HCRYPTPROV provider, ALG_ID algorithm, HCRYPTHASH hash, DWORD flags,
                               HCRYPTKEY* key);
// AT_SIGNATURE or AT_KEYEXCHANGE: marks the container's key pair generated (a context
// without container gives NTE_BAD_KEYSET). CALG_RC4: a session key of 5 random bytes and 11
// zero bytes. Other algorithms: NTE_BAD_ALGID. flags as for CryptDeriveKey.
TESSEL_API BOOL CryptGenKey(HCRYPTPROV provider, ALG_ID algorithm, DWORD flags, HCRYPTKEY* key);
// The container's key pair of keySpec (AT_SIGNATURE or AT_KEYEXCHANGE, else NTE_BAD_KEY);
// NTE_NO_KEY when it was never generated or the context has no container.
TESSEL_API BOOL CryptGetUserKey(HCRYPTPROV provider, DWORD keySpec, HCRYPTKEY* key);
TESSEL_API BOOL CryptDestroyKey(HCRYPTKEY key);

// Ciphers *length bytes of data in place with an RC4 key; the length stays. The stream goes
// on from call to call; final TRUE starts it afresh after this call. hash, if not 0, is fed
// the plain bytes. A null data asks for the size: *length stays and the result is TRUE.
// *length above bufferLength gives ERROR_MORE_DATA; flags must be 0.
TESSEL_API BOOL CryptEncrypt(HCRYPTKEY key, HCRYPTHASH hash, BOOL final, DWORD flags, BYTE* data,
                             DWORD* length, DWORD bufferLength);
// The same, deciphering: hash is fed the plain bytes that result; null data gives
// ERROR_INVALID_PARAMETER.
TESSEL_API BOOL CryptDecrypt(HCRYPTKEY key, HCRYPTHASH hash, BOOL final, DWORD flags, BYTE* data,
                             DWORD* length);

}  // namespace Tessel::Platform
