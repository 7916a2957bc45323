#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/Bytes.h"
#include "tessel/crypto/CryptFunctions.h"
#include "tessel/crypto/CryptRC4V2.h"
#include "tessel/crypto/EncryptDecrypt.h"
#include "tessel/host/Registry.h"
#include "tessel/platform/Sockets.h"

namespace {

using TesselTest::Bytes;

const std::string kKey = "SOFTWARE\\Tarvo Works\\GPS Velkor\\CipherTest";

// The MakeTest functions are public for the tests here.
class Rc4V2 : public CCryptRC4V2 {
  public:
    Bytes V2(const Bytes& key, Bytes data) {
        EncryptDataV2(key.data(), static_cast<int>(key.size()), data.data(), data.size());
        return data;
    }
    Bytes Padded(const Bytes& key, Bytes data) {
        EncryptData(key.data(), static_cast<int>(key.size()), data.data(), data.size());
        return data;
    }
};

}  // namespace

TEST(CryptRC4V2, PublishedVectorsAndKeyLengths) {
    Rc4V2 cipher;
    EXPECT_TRUE(cipher.MakeTest1());
    EXPECT_TRUE(cipher.MakeTest2());
    EXPECT_TRUE(cipher.MakeTest3());
    EXPECT_TRUE(cipher.MakeTest4());
    EXPECT_TRUE(cipher.MakeTest5());

    const Bytes plain = TesselTest::Pattern(40000);  // beyond one 16-bit count
    const Bytes four = {0xEF, 0x01, 0x23, 0x45};
    Bytes padded = four;
    padded.resize(16, 0);
    EXPECT_EQ(cipher.Padded(four, plain), cipher.V2(padded, plain));
    EXPECT_NE(cipher.Padded(four, plain), cipher.V2(four, plain));
    const Bytes twenty = TesselTest::Pattern(20);
    EXPECT_EQ(cipher.V2(twenty, plain),
              cipher.V2(Bytes(twenty.begin(), twenty.begin() + 16), plain));
    EXPECT_EQ(cipher.Padded(twenty, plain), cipher.V2(twenty, plain));
    // Every call starts afresh, so ciphering twice restores the data.
    EXPECT_EQ(cipher.V2(four, cipher.V2(four, plain)), plain);
    EXPECT_EQ(cipher.V2({}, plain), plain);
}

TEST(EncryptDecrypt, ScramblesAndRestoresText) {
    EncryptDecrypt scrambler;
    for (const std::string& text :
         {std::string("K#4%d&9#"), std::string(300, 'x'), std::string()}) {
        std::string copy = text;
        EXPECT_EQ(scrambler.Encrypt(copy.data()), 1);
        EXPECT_TRUE(text.empty() || copy != text);
        EXPECT_EQ(scrambler.Decrypt(copy.data()), 1);
        EXPECT_EQ(copy, text);
    }
    EXPECT_EQ(scrambler.Encrypt(nullptr), 0);
    // A byte that becomes zero ends the text for the next call.
    char text[] = {'a', static_cast<char>(256 - 13 - 1), 'b', '\0'};
    EXPECT_EQ(scrambler.Encrypt(text), 1);
    EXPECT_EQ(std::strlen(text), 1u);
    EXPECT_EQ(scrambler.Decrypt(text), 1);
    EXPECT_EQ(text[0], 'a');
    EXPECT_EQ(text[2], 'b' + 2 + 13);
}

TEST(CryptFunctions, CipherWithTheMachinePassword) {
    const std::string password = CCryptBase::GenerateMachinePassword(nullptr);
    EXPECT_EQ(password, "K#4%d&9#" + Tessel::Platform::GetHostName());
    EXPECT_EQ(CCryptBase::GenerateMachinePassword("more"), "K#4%d&9#more");

    Bytes buffer(24, 0xAA);
    std::size_t size = buffer.size();
    ASSERT_EQ(Crypt2("secret", reinterpret_cast<char*>(buffer.data()), &size), 1);
    Rc4V2 cipher;
    Bytes expected(24, 0xAA);
    std::memcpy(expected.data(), "secret", 7);
    EXPECT_EQ(buffer, cipher.Padded(Bytes(password.begin(), password.end()), expected));
    ASSERT_EQ(Crypt(reinterpret_cast<char*>(buffer.data()), buffer.size()), 1);
    EXPECT_EQ(buffer, expected);
}

TEST(CryptFunctions, WriteThenGetThroughTheRegistry) {
    char text[] = "service password";
    ASSERT_EQ(WriteCrypt(kKey.c_str(), "Secret", text), 1);
    EXPECT_STRNE(text, "service password");
    unsigned char stored[64] = {};
    unsigned long storedSize = sizeof stored;
    ASSERT_EQ(REG::Get(kKey, "Secret", stored, &storedSize), 1);
    EXPECT_EQ(Bytes(stored, stored + storedSize), Bytes(text, text + 16));

    unsigned char buffer[64];
    std::memset(buffer, 0xFF, sizeof buffer);
    std::size_t size = sizeof buffer - 2;
    ASSERT_EQ(GetCrypt(kKey.c_str(), "Secret", buffer, &size), 1);
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(Bytes(buffer, buffer + 19),
              Bytes("service password\0\0\xFF", "service password\0\0\xFF" + 19));
    // With an empty key the buffer's content is taken: deciphering again gives the stored bytes.
    ASSERT_EQ(GetCrypt("", "Secret", buffer, &size), 1);
    EXPECT_EQ(Bytes(buffer, buffer + 16), Bytes(stored, stored + 16));
}

TEST(CryptFunctions, DamagedOrMissingValues) {
    char text[] = "service password";
    ASSERT_EQ(WriteCrypt(kKey.c_str(), "Secret", text), 1);
    // No check of integrity: a flipped bit comes back as the same flipped bit.
    text[3] ^= 0x20;
    ASSERT_TRUE(REG::Write(kKey, "Secret", reinterpret_cast<const unsigned char*>(text), 16));
    unsigned char buffer[64] = {};
    std::size_t size = sizeof buffer - 2;
    ASSERT_EQ(GetCrypt(kKey.c_str(), "Secret", buffer, &size), 1);
    EXPECT_STREQ(reinterpret_cast<char*>(buffer), "serVice password");
    // A value longer than the buffer, or none at all, gives 0.
    size = 8;
    EXPECT_EQ(GetCrypt(kKey.c_str(), "Secret", buffer, &size), 0);
    size = sizeof buffer - 2;
    EXPECT_EQ(GetCrypt(kKey.c_str(), "Missing", buffer, &size), 0);
}
