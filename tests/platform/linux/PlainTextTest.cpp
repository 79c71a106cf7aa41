#include <gtest/gtest.h>

#include <string>

#include "platform/linux/PlainText.h"

namespace quillsift {
namespace {

TEST(PlainTextTest, FindsAControlCharacterWhereverItStands) {
  for (int c = 0; c < 256; ++c) {
    const bool control = c < 0x20 || c == 0x7F;
    for (std::size_t place = 0; place < 20; ++place) {
      std::string text(20, 'x');
      text[place] = static_cast<char>(c);
      const bool plain = c < 0x80 && (!control || c == '\t');
      EXPECT_EQ(isPlainText(text), plain) << c << " at " << place;
    }
  }
}

TEST(PlainTextTest, KnowsWellFormedText) {
  for (const char* good : {"", "~", " ", "\xC2\xA0", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF",
                           "\xEE\x80\x80", "\xEF\xBF\xBD", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBD",
                           "1234567\xC3\xBC"
                           "12345678"}) {
    EXPECT_TRUE(isPlainText(good)) << good;
  }
  for (const char* bad : {"\xC2\x80",
                          "\xC2\x9F",  // controls beyond ASCII
                          "\xC0\x80",
                          "\xC1\xBF",
                          "\xE0\x80\x80",
                          "\xE0\x9F\xBF",
                          "\xF0\x8F\xBF\xBF",  // too long
                          "\xED\xA0\x80",
                          "\xED\xBF\xBF",  // surrogates
                          "\xF4\x90\x80\x80",
                          "\xF5\x80\x80\x80",
                          "\xFF",
                          "\xFE",  // beyond the last character
                          "\xEF\xBF\xBE",
                          "\xEF\xBF\xBF",
                          "\xEF\xB7\x90",
                          "\xF0\x9F\xBF\xBE",  // never characters
                          "\x80",
                          "\xBF",
                          "\xC3",
                          "\xC3(",
                          "\xE2\x82",
                          "\xE2\x82(",
                          "\xF0\x9F\x93",
                          "\xF0(\x9F\x93",
                          "12345678\xC3"}) {
    EXPECT_FALSE(isPlainText(bad)) << bad;
  }
}

}  // namespace
}  // namespace quillsift
