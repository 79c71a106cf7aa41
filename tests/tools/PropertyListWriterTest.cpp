#include <gtest/gtest.h>

#include <functional>

#include "tests/tools/ScratchMachine.h"
#include "tools/PropertyListWriter.h"

namespace quillsift::tools {
namespace {

std::string written(const std::function<void(PropertyListWriter&)>& write) {
  OutputPipe pipe;
  {
    Output output(pipe.writing());
    PropertyListWriter list(output);
    write(list);
    list.finish();
  }
  return pipe.printed();
}

TEST(PropertyListWriterTest, WritesHeaderRootAndNothingBetween) {
  EXPECT_EQ(written([](PropertyListWriter& list) { list.integer(-7); }),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<plist version=\"1.0\">\n"
            "<integer>-7</integer>\n"
            "</plist>\n");
}

TEST(PropertyListWriterTest, NestsDictionariesAndArrays) {
  const std::string text = written([](PropertyListWriter& list) {
    list.beginDictionary();
    list.key("a<b");
    list.beginArray();
    list.text("x & y");
    list.boolean(true);
    list.endArray();
    list.key("bytes");
    list.data("abcd");
    list.endDictionary();
  });
  EXPECT_NE(text.find("<dict>\n"
                      "\t<key>a&lt;b</key>\n"
                      "\t<array>\n"
                      "\t\t<string>x &amp; y</string>\n"
                      "\t\t<true/>\n"
                      "\t</array>\n"
                      "\t<key>bytes</key>\n"
                      "\t<data>YWJjZA==</data>\n"
                      "</dict>\n"),
            std::string::npos)
      << text;
}

TEST(PropertyListWriterTest, WritesWhatXMLCannotHoldAsData) {
  using namespace std::string_literals;
  EXPECT_NE(written([](PropertyListWriter& list) { list.text("a\0b"s); }).find("<data>YQBi</data>"),
            std::string::npos);
  EXPECT_NE(written([](PropertyListWriter& list) {
              list.key(
                  "a\x01"
                  "b");
            }).find("<key>a?b</key>"),
            std::string::npos);
}

TEST(TextForXMLTest, IsValidTextWithoutControlCharacters) {
  EXPECT_TRUE(isTextForXML(""));
  EXPECT_TRUE(isTextForXML("tab\tline\n\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
  EXPECT_FALSE(isTextForXML("\r"));
  EXPECT_FALSE(isTextForXML("\x1B[1m"));
  EXPECT_FALSE(isTextForXML("\xC3"));              // cut
  EXPECT_FALSE(isTextForXML("\xC0\xAF"));          // longer than it need be
  EXPECT_FALSE(isTextForXML("\xE0\x80\xAF"));      // the same
  EXPECT_FALSE(isTextForXML("\xED\xA0\x80"));      // half of a pair
  EXPECT_FALSE(isTextForXML("\xEF\xBF\xBF"));      // no character
  EXPECT_FALSE(isTextForXML("\xF4\x90\x80\x80"));  // behind the last
  EXPECT_FALSE(isTextForXML("\x80"));
}

TEST(Base64Test, PadsToFours) {
  EXPECT_EQ(base64(""), "");
  EXPECT_EQ(base64("f"), "Zg==");
  EXPECT_EQ(base64("fo"), "Zm8=");
  EXPECT_EQ(base64("foo"), "Zm9v");
  EXPECT_EQ(base64("\xFF\xFE\xFD\xFC"), "//79/A==");
}

}  // namespace
}  // namespace quillsift::tools
