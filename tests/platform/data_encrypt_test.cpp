#include "platform/data_encrypt/data_encrypt.h"

#include <gtest/gtest.h>

namespace {

constexpr std::string_view kPassword = "one line of a key file";

TEST(DataEncrypt, AnyTextComesBackAndNeverLooksTheSameTwice) {
  for (const std::string& text :
       {std::string(), std::string("secret"), std::string("a\0b\xFF", 4), std::string(1024, 'x')}) {
    const std::optional<std::string> first = encryptToHexString(text, kPassword);
    const std::optional<std::string> second = encryptToHexString(text, kPassword);
    ASSERT_TRUE(first && second);
    EXPECT_NE(*first, *second);
    EXPECT_EQ(first->find_first_not_of("0123456789ABCDEF"), std::string::npos);
    EXPECT_EQ(decryptHexString(*first, kPassword), text);
  }
}

TEST(DataEncrypt, EveryChangedDigitIsNoticed) {
  const std::string hex = encryptToHexString("secret", kPassword).value();
  for (size_t i = 0; i < hex.size(); ++i) {
    std::string changed = hex;
    changed[i] = changed[i] == '0' ? '1' : '0';
    EXPECT_FALSE(decryptHexString(changed, kPassword)) << "digit " << i;
  }
}

TEST(DataEncrypt, WhatIsNoCipherTextOfThisPasswordGivesNothing) {
  const std::string hex = encryptToHexString("secret", kPassword).value();
  EXPECT_FALSE(decryptHexString(hex, "another line"));
  EXPECT_FALSE(decryptHexString(hex, ""));
  EXPECT_FALSE(encryptToHexString("secret", ""));
  for (const std::string& text : {std::string(), std::string("01"), std::string("no hex"), hex.substr(1), hex.substr(2),
                                  hex + "00", hex.substr(0, hex.size() - 2)}) {
    EXPECT_FALSE(decryptHexString(text, kPassword)) << text;
  }
}

}  // namespace
