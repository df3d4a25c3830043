#include <gtest/gtest.h>

#include "common/QuorvelAES128Crypto.h"
#include "support/Decrypt.h"
#include "support/TestPlatform.h"

namespace quorvel {
namespace {

using test::decryptIndependently;

class CryptoTest : public ::testing::Test {
 protected:
  test::TestPlatform fakes;
};

// Every message of one object carries that object's IV in its last 24 bytes; objects differ.
TEST_F(CryptoTest, ReceiverDecryptsWithTheDeveloperKeyAloneAndOneObjectKeepsOneIv) {
  Bytes previousIv;
  for (const std::string key : {"0123456789A", "short", "a much longer developer key \xc3\xa9"}) {
    const QuorvelAES128Crypto crypto(key, fakes.random, fakes.log());
    const std::string payload = R"({"event":"Launched","counter":"1"})";
    const auto sealed = crypto.encrypt(Bytes(payload.begin(), payload.end()));
    const auto other = crypto.encrypt(Bytes(100, 7));
    ASSERT_TRUE(sealed && other);
    EXPECT_TRUE(std::equal(crypto.iv().begin(), crypto.iv().end(), sealed->end() - 24));
    EXPECT_TRUE(std::equal(sealed->end() - 24, sealed->end(), other->end() - 24));
    EXPECT_NE(crypto.iv(), previousIv);
    previousIv = crypto.iv();
    const auto plain = decryptIndependently(key, *sealed);
    ASSERT_TRUE(plain) << key;
    EXPECT_EQ(std::string(plain->begin(), plain->end()), payload);
  }
}

TEST_F(CryptoTest, SaltComesFromLongKeysOnly) {
  const QuorvelAES128Crypto eleven(std::string("ABCDEFGHIJK"), fakes.random, fakes.log());
  EXPECT_EQ(eleven.salt(), (Bytes{'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'}));

  const Bytes defaultSalt = {0x66, 0xde, 0x26, 0x42, 0x9f, 0x4b, 0xc5, 0x1d};
  const QuorvelAES128Crypto ten(std::string("ABCDEFGHIJ"), fakes.random, fakes.log());
  EXPECT_EQ(ten.salt(), defaultSalt);
  const QuorvelAES128Crypto none(std::nullopt, fakes.random, fakes.log());
  EXPECT_EQ(none.salt(), defaultSalt);
}

TEST_F(CryptoTest, RandomFailureGivesZeroIvAndStillEncrypts) {
  fakes.logSwitches->setDebug(true);
  fakes.random->failWithError = 5;
  const QuorvelAES128Crypto crypto(std::string("0123456789AB"), fakes.random, fakes.log());
  EXPECT_EQ(crypto.iv(), Bytes(16, 0));
  EXPECT_EQ(fakes.systemLog->count("Unable to generate random bytes: 5"), 1U);
  const auto sealed = crypto.encrypt(Bytes{'x'});
  ASSERT_TRUE(sealed);
  EXPECT_EQ(decryptIndependently("0123456789AB", *sealed), Bytes{'x'});
}

}  // namespace
}  // namespace quorvel
