#include "platform/data_encrypt/data_encrypt.h"

#include <gtest/gtest.h>

namespace {

constexpr std::string_view kPassword = "one line of a key file";

TEST(DataEncrypt, AnyTextComesBackNeverLooksTheSameTwiceAndToleratesNoChange) {
  for (const std::string& text : {std::string(), std::string("a\0b\xFF", 4), std::string(1024, 'x')}) {
    const std::string hex = encryptToHexString(text, kPassword).value();
    EXPECT_NE(encryptToHexString(text, kPassword), hex);
    EXPECT_EQ(hex.find_first_not_of("0123456789ABCDEF"), std::string::npos);
    EXPECT_EQ(decryptHexString(hex, kPassword), text);
  }
  const std::string hex = encryptToHexString("secret", kPassword).value();
  for (size_t i = 0; i < hex.size(); ++i) {
    std::string changed = hex;
    changed[i] = changed[i] == '0' ? '1' : '0';
    EXPECT_FALSE(decryptHexString(changed, kPassword)) << "digit " << i;
  }
  for (const std::string& text : {std::string(), hex.substr(1), hex.substr(2), hex + "00"}) {
    EXPECT_FALSE(decryptHexString(text, kPassword)) << text;
  }
  EXPECT_FALSE(decryptHexString(hex, "another line"));
  EXPECT_FALSE(encryptToHexString("secret", ""));
}

}  // namespace
