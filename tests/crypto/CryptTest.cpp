#include "tessel/crypto/Crypt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "support/Bytes.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "tessel/platform/CryptoApi.h"

namespace {

using TesselTest::Bytes;

Bytes Ciphered(CCrypt& crypt, Bytes data) {
    unsigned long length = data.size();
    EXPECT_EQ(crypt.Encrypt(data.data(), &length), 1);
    EXPECT_EQ(length, data.size());
    return data;
}

}  // namespace

TEST(Crypt, CiphersAsRc4WithTheBaseProvidersKeyFromThePassword) {
    const Bytes plain = TesselTest::Pattern(100000);
    // The key as the base provider derives it: 5 bytes of the MD5, 11 zero bytes.
    const TesselTest::RunResult oracle = TesselTest::Run(
        {"/bin/sh", "-c",
         "key=$(printf '%s' 'K#4%d&9#' | openssl md5 -r | cut -c1-10)0000000000000000000000 && "
         "openssl enc -rc4 -K \"$key\" -provider legacy -provider default"},
        std::string(plain.begin(), plain.end()));
    if (oracle.status != 0) {
        GTEST_SKIP() << "openssl's RC4 (legacy provider) is not available: " << oracle.err;
    }
    CCrypt crypt("extra");
    const Bytes ciphered = Ciphered(crypt, plain);
    EXPECT_EQ(std::string(ciphered.begin(), ciphered.end()), oracle.out);
    // Another extra text, the same key; each call starts the stream afresh.
    CCrypt other;
    EXPECT_EQ(Ciphered(other, plain), ciphered);
    Bytes back = ciphered;
    unsigned long length = back.size();
    EXPECT_EQ(other.Decrypt(back.data(), &length), 1);
    EXPECT_EQ(back, plain);
    EXPECT_EQ(crypt.Encrypt(nullptr, &length), 0);
}

TEST(Crypt, SetupPreparesTheUsersContainerWithBothKeyPairs) {
    namespace P = Tessel::Platform;
    P::HCRYPTPROV prov = 0;
    EXPECT_FALSE(P::CryptAcquireContextA(&prov, nullptr, nullptr, P::PROV_RSA_FULL, 0));
    EXPECT_EQ(CCrypt::SetupCryptoClient(), 1);
    EXPECT_EQ(CCrypt::SetupCryptoClient(), 1);
    ASSERT_TRUE(P::CryptAcquireContextA(&prov, nullptr, nullptr, P::PROV_RSA_FULL, 0));
    for (const P::DWORD spec : {P::AT_SIGNATURE, P::AT_KEYEXCHANGE}) {
        P::HCRYPTKEY key = 0;
        EXPECT_TRUE(P::CryptGetUserKey(prov, spec, &key)) << spec;
    }
    P::CryptReleaseContext(prov, 0);
}

TEST(Crypt, WithoutAProviderDataStaysPlainAndCallsSucceed) {
    // A libcrypto configuration whose only provider has no MD5: the provider is unavailable.
    const std::string config = std::string(std::getenv("TMPDIR")) + "/openssl-null.cnf";
    std::ofstream(config) << "openssl_conf = init\n[init]\nproviders = providers\n"
                             "[providers]\nnull = null\n[null]\nactivate = 1\n";
    ASSERT_EQ(setenv("OPENSSL_CONF", config.c_str(), 1), 0);
    TesselTest::LogCapture log;
    EXPECT_EQ(CCrypt::SetupCryptoClient(), 0);
    EXPECT_THAT(log.text(),
                testing::HasSubstr(" error [CCrypt::SetupCryptoClient] key container corrupted"));
    CCrypt crypt;
    const Bytes plain = TesselTest::Pattern(64);
    Bytes data = plain;
    unsigned long length = data.size();
    EXPECT_EQ(crypt.Encrypt(data.data(), &length), 1);
    EXPECT_EQ(crypt.Decrypt(data.data(), &length), 1);
    EXPECT_EQ(data, plain);
}
