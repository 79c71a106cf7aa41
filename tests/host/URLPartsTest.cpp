#include <gtest/gtest.h>

#include "host/URLParts.h"

namespace quillsift {
namespace {

std::string split(const std::string& url) {
  const auto parts = splitURL(url);
  return parts ? parts->host + " | " + parts->path : "(none)";
}

TEST(URLPartsTest, KeepsTheHostAsItIsWritten) {
  EXPECT_EQ(split("x-ostra://7F3B0C11-1A2B-4C3D-8E4F-0123456789AB/Install"),
            "7F3B0C11-1A2B-4C3D-8E4F-0123456789AB | /Install");
  EXPECT_EQ(split("x://Some%20Host/"), "Some%20Host | ");
  EXPECT_EQ(split("x://HOST"), "HOST | ");
  EXPECT_EQ(split("//HOST/a"), "HOST | /a");
}

TEST(URLPartsTest, LeavesUserAndPortOut) {
  EXPECT_EQ(split("x://user:word@host:80/a"), "host | /a");
  EXPECT_EQ(split("x://a@b@host/a"), "host | /a");
  EXPECT_EQ(split("x://[fe80::1]:80/a"), "[fe80::1] | /a");
}

TEST(URLPartsTest, DecodesThePathAndDropsTheSlashAtItsEnd) {
  EXPECT_EQ(split("file:///a%20b/%C3%A9%2f%25"), " | /a b/\xC3\xA9/%");
  EXPECT_EQ(split("file:///a/b//"), " | /a/b");
  EXPECT_EQ(split("x://host/"), "host | ");
  EXPECT_EQ(split("file:a/b"), " | a/b");
  EXPECT_EQ(split("/a:b/c"), " | /a:b/c");
  EXPECT_EQ(split("a b"), " | a b");
  EXPECT_EQ(split("1x://a/b"), " | 1x://a/b");
}

TEST(URLPartsTest, LeavesQueryAndFragmentOut) {
  EXPECT_EQ(split("x://host/a?b=/c#d"), "host | /a");
  EXPECT_EQ(split("x://host/a#b?c"), "host | /a");
  EXPECT_EQ(split("x://host?a"), "host | ");
}

TEST(URLPartsTest, IsNoneForWhatIsNoPlace) {
  for (const std::string& url :
       {std::string(), std::string("x://h/%"), std::string("x://h/%4"), std::string("x://h/%zz"),
        std::string("x://h/%-1"), std::string("x://h/%00"), std::string("x://h/a\0b", 9)}) {
    EXPECT_EQ(split(url), "(none)") << url;
  }
}

}  // namespace
}  // namespace quillsift
