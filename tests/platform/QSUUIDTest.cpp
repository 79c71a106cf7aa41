#include <gtest/gtest.h>

#include <set>
#include <string>
#include <string_view>

#include "platform/QSUUID.h"

namespace quillsift {
namespace {

TEST(QSUUIDTest, PrintsAsUpperCaseGroupsOfARandomUUID) {
  // X: any digit; Y: the variant, one of four digits.
  const std::string_view form = "XXXXXXXX-XXXX-4XXX-YXXX-XXXXXXXXXXXX";
  for (int i = 0; i < 1000; ++i) {
    const std::string text = QSUUID::random().text();
    ASSERT_EQ(text.size(), form.size());
    for (std::size_t at = 0; at < form.size(); ++at) {
      const std::string_view allowed = form[at] == 'X'   ? "0123456789ABCDEF"
                                       : form[at] == 'Y' ? "89AB"
                                                         : form.substr(at, 1);
      EXPECT_NE(allowed.find(text[at]), std::string_view::npos) << text << " at " << at;
    }
  }
}

TEST(QSUUIDTest, NoTwoAreEqual) {
  std::set<std::string> texts;
  for (int i = 0; i < 10000; ++i)
    texts.insert(QSUUID::random().text());
  EXPECT_EQ(texts.size(), 10000U);
}

TEST(QSUUIDTest, ACopyIsEqual) {
  const QSUUID one = QSUUID::random();
  const QSUUID copy = one;
  EXPECT_EQ(one, copy);
  EXPECT_FALSE(one == QSUUID::random());
}

}  // namespace
}  // namespace quillsift
