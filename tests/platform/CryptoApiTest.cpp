#include "tessel/platform/CryptoApi.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "platform/PlatformTest.h"
#include "support/Bytes.h"

namespace {

namespace P = Tessel::Platform;
using PlatformTest::failureOf;
using TesselTest::Bytes;

P::HCRYPTKEY DeriveKey(P::HCRYPTPROV prov, const char* password) {
    P::HCRYPTHASH hash = 0;
    EXPECT_TRUE(P::CryptCreateHash(prov, P::CALG_MD5, 0, 0, &hash));
    EXPECT_TRUE(P::CryptHashData(hash, reinterpret_cast<const P::BYTE*>(password),
                                 static_cast<P::DWORD>(std::strlen(password)), 0));
    P::HCRYPTKEY key = 0;
    EXPECT_TRUE(P::CryptDeriveKey(prov, P::CALG_RC4, hash, P::CRYPT_EXPORTABLE, &key));
    EXPECT_EQ(failureOf(P::CryptHashData(hash, nullptr, 0, 0)), P::NTE_BAD_HASH_STATE);
    return key;
}

}  // namespace

TEST(CryptoApi, KeyContainerLifecycle) {
    P::HCRYPTPROV prov = 0;
    const char* name = "tessel-test";
    EXPECT_EQ(failureOf(P::CryptAcquireContextA(&prov, name, nullptr, P::PROV_RSA_FULL, 0)),
              P::NTE_BAD_KEYSET);
    ASSERT_TRUE(P::CryptAcquireContextA(&prov, name, P::MS_DEF_PROV_A, 1, P::CRYPT_NEWKEYSET));
    P::HCRYPTPROV again = 0;
    EXPECT_EQ(
        failureOf(P::CryptAcquireContextA(&again, "TESSEL-TEST", nullptr, 1, P::CRYPT_NEWKEYSET)),
        P::NTE_EXISTS);
    P::HCRYPTKEY key = 0;
    EXPECT_EQ(failureOf(P::CryptGetUserKey(prov, P::AT_SIGNATURE, &key)), P::NTE_NO_KEY);
    ASSERT_TRUE(P::CryptGenKey(prov, P::AT_SIGNATURE, 0, &key));
    EXPECT_TRUE(P::CryptDestroyKey(key));
    ASSERT_TRUE(P::CryptGetUserKey(prov, P::AT_SIGNATURE, &key));
    EXPECT_EQ(failureOf(P::CryptGetUserKey(prov, P::AT_KEYEXCHANGE, &key)), P::NTE_NO_KEY);
    // A key pair has no material here: it ciphers nothing.
    P::BYTE data[4] = {};
    P::DWORD length = sizeof data;
    EXPECT_EQ(failureOf(P::CryptEncrypt(key, 0, P::TRUE, 0, data, &length, length)),
              P::NTE_BAD_KEY);
    // Releasing the context destroys its keys.
    EXPECT_TRUE(P::CryptReleaseContext(prov, 0));
    EXPECT_EQ(failureOf(P::CryptDestroyKey(key)), P::NTE_BAD_KEY);
    EXPECT_EQ(failureOf(P::CryptReleaseContext(prov, 0)), P::NTE_BAD_UID);
    ASSERT_TRUE(P::CryptAcquireContextA(&prov, name, nullptr, 1, P::CRYPT_DELETEKEYSET));
    EXPECT_EQ(prov, 0u);
    EXPECT_EQ(failureOf(P::CryptAcquireContextA(&prov, name, nullptr, 1, 0)), P::NTE_BAD_KEYSET);
}

TEST(CryptoApi, RefusesWhatTheBaseProviderDoesNot) {
    P::HCRYPTPROV prov = 0;
    const std::tuple<const char*, P::DWORD, P::DWORD, P::DWORD> acquisitions[] = {
        {nullptr, 24, P::CRYPT_VERIFYCONTEXT, P::NTE_BAD_PROV_TYPE},
        {"Another Provider", 1, P::CRYPT_VERIFYCONTEXT, P::NTE_KEYSET_NOT_DEF},
        {nullptr, 1, P::CRYPT_VERIFYCONTEXT | P::CRYPT_NEWKEYSET, P::NTE_BAD_FLAGS},
        {nullptr, 1, 0x4000, P::NTE_BAD_FLAGS},
    };
    for (const auto& [name, type, flags, error] : acquisitions) {
        EXPECT_EQ(failureOf(P::CryptAcquireContextA(&prov, nullptr, name, type, flags)), error)
            << std::hex << flags;
    }
    ASSERT_TRUE(P::CryptAcquireContextA(&prov, nullptr, nullptr, 1, P::CRYPT_VERIFYCONTEXT));
    P::HCRYPTHASH hash = 0;
    EXPECT_EQ(failureOf(P::CryptCreateHash(prov, 0x8004, 0, 0, &hash)), P::NTE_BAD_ALGID);
    ASSERT_TRUE(P::CryptCreateHash(prov, P::CALG_MD5, 0, 0, &hash));
    P::HCRYPTKEY key = 0;
    EXPECT_EQ(failureOf(P::CryptDeriveKey(prov, 0x6602, hash, 0, &key)), P::NTE_BAD_ALGID);
    EXPECT_EQ(failureOf(P::CryptDeriveKey(prov, P::CALG_RC4, hash, 128u << 16, &key)),
              P::NTE_BAD_FLAGS);
    EXPECT_EQ(failureOf(P::CryptGenKey(prov, P::AT_SIGNATURE, 0, &key)), P::NTE_BAD_KEYSET);
    EXPECT_TRUE(P::CryptReleaseContext(prov, 0));
    EXPECT_EQ(failureOf(P::CryptDestroyHash(hash)), P::NTE_BAD_HASH);
}

TEST(CryptoApi, StreamRunsOnUntilAFinalCall) {
    P::HCRYPTPROV prov = 0;
    ASSERT_TRUE(P::CryptAcquireContextA(&prov, nullptr, nullptr, 1, P::CRYPT_VERIFYCONTEXT));
    const P::HCRYPTKEY key = DeriveKey(prov, "password");
    const Bytes plain = TesselTest::Pattern(32);
    Bytes once = plain;
    P::DWORD length = 32;
    ASSERT_TRUE(P::CryptEncrypt(key, 0, P::TRUE, 0, once.data(), &length, 32));
    EXPECT_EQ(length, 32u);
    // Two halves, the first not final, give the same bytes; the final call then restarts.
    Bytes halves = plain;
    length = 16;
    ASSERT_TRUE(P::CryptEncrypt(key, 0, P::FALSE, 0, halves.data(), &length, 16));
    ASSERT_TRUE(P::CryptEncrypt(key, 0, P::TRUE, 0, halves.data() + 16, &length, 16));
    EXPECT_EQ(halves, once);
    length = 32;
    EXPECT_EQ(failureOf(P::CryptEncrypt(key, 0, P::TRUE, 0, halves.data(), &length, 31)),
              P::ERROR_MORE_DATA);
    // Deciphering with a hash: the hash gets the plain text, as a fresh one fed with it.
    P::HCRYPTHASH hash = 0;
    ASSERT_TRUE(P::CryptCreateHash(prov, P::CALG_MD5, 0, 0, &hash));
    ASSERT_TRUE(P::CryptDecrypt(key, hash, P::TRUE, 0, halves.data(), &length));
    EXPECT_EQ(halves, plain);
    P::HCRYPTKEY fromHash = 0, fromPlain = 0;
    ASSERT_TRUE(P::CryptDeriveKey(prov, P::CALG_RC4, hash, 0, &fromHash));
    P::HCRYPTHASH direct = 0;
    ASSERT_TRUE(P::CryptCreateHash(prov, P::CALG_MD5, 0, 0, &direct));
    ASSERT_TRUE(P::CryptHashData(direct, plain.data(), 32, 0));
    ASSERT_TRUE(P::CryptDeriveKey(prov, P::CALG_RC4, direct, 0, &fromPlain));
    Bytes a(8, 0), b(8, 0);
    length = 8;
    ASSERT_TRUE(P::CryptEncrypt(fromHash, 0, P::TRUE, 0, a.data(), &length, 8));
    ASSERT_TRUE(P::CryptEncrypt(fromPlain, 0, P::TRUE, 0, b.data(), &length, 8));
    EXPECT_EQ(a, b);
    EXPECT_TRUE(P::CryptReleaseContext(prov, 0));
}
