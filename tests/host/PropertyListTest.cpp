#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "host/PropertyList.h"

namespace quillsift {
namespace {

using Array = PropertyList::Array;
using Dictionary = PropertyList::Dictionary;

constexpr const char* kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";

std::string written(const PropertyList& list) {
  const auto xml = list.toXML();
  return xml ? std::string(xml->text()) : "(none)";
}

// Without what is the same in all.
std::string body(const PropertyList& list) {
  const std::string xml = written(list);
  const std::string end = "</plist>\n";
  if (!xml.starts_with(kHeader) || !xml.ends_with(end)) return xml;
  const std::size_t start = std::string_view(kHeader).size();
  return xml.substr(start, xml.size() - start - end.size());
}

std::optional<PropertyList> readBody(const std::string& xml) {
  return PropertyList::fromXML("<plist version=\"1.0\">" + xml + "</plist>");
}

// What a body reads as, written again; "(none)" when it cannot be read.
std::string again(const std::string& xml) {
  const auto list = readBody(xml);
  return list ? body(*list) : "(none)";
}

std::string nested(std::size_t arrays) {
  std::string xml;
  for (std::size_t i = 0; i < arrays; ++i)
    xml += "<array>";
  for (std::size_t i = 0; i < arrays; ++i)
    xml += "</array>";
  return xml;
}

TEST(PropertyListTest, WritesEveryType) {
  const PropertyList list(Dictionary{{"array", Array{1, "two", Array{}}},
                                     {"bytes", QSData(std::string("\0\xFF\x10zz", 5))},
                                     {"date", QSDate{1.5}},
                                     {"false", false},
                                     {"real", 0.25},
                                     {"true", true}});
  EXPECT_EQ(written(list), std::string(kHeader) +
                               "\t<dict>\n"
                               "\t\t<key>array</key>\n"
                               "\t\t<array>\n"
                               "\t\t\t<integer>1</integer>\n"
                               "\t\t\t<string>two</string>\n"
                               "\t\t\t<array />\n"
                               "\t\t</array>\n"
                               "\t\t<key>bytes</key>\n"
                               "\t\t<data>AP8Qeno=</data>\n"
                               "\t\t<key>date</key>\n"
                               "\t\t<date>1970-01-01T00:00:01Z</date>\n"
                               "\t\t<key>false</key>\n"
                               "\t\t<false />\n"
                               "\t\t<key>real</key>\n"
                               "\t\t<real>0.25</real>\n"
                               "\t\t<key>true</key>\n"
                               "\t\t<true />\n"
                               "\t</dict>\n"
                               "</plist>\n");
}

TEST(PropertyListTest, ReadsWhatItWrites) {
  const PropertyList list(
      Dictionary{{"", ""},
                 {"text", " <a> & \"b\"\t\n]]> \xC3\xA9 \xF0\x9F\x98\x80 "},
                 {"blank", "  \n "},
                 {"least", std::numeric_limits<std::int64_t>::min()},
                 {"most", std::numeric_limits<std::uint64_t>::max()},
                 {"real", 0.1},
                 {"huge", 1.7976931348623157e308},
                 {"infinite", Array{HUGE_VAL, -HUGE_VAL}},
                 {"bytes", Array{QSData(std::string("a")), QSData(std::string("ab")),
                                 QSData(std::string("abc")), QSData()}},
                 {"dates", Array{QSDate{-62135596800}, QSDate{253402300799}, QSDate{951782400}}},
                 {"nested", Dictionary{{"a", Array{Dictionary{{"b", true}}}}}}});
  const auto read = PropertyList::fromXML(written(list));
  ASSERT_TRUE(read);
  EXPECT_EQ(written(*read), written(list));
  EXPECT_EQ(*read->find("text")->get<std::string>(),
            " <a> & \"b\"\t\n]]> \xC3\xA9 \xF0\x9F\x98\x80 ");
  EXPECT_EQ(*read->find("blank")->get<std::string>(), "  \n ");
  EXPECT_EQ(*read->find("real")->get<double>(), 0.1);
  EXPECT_EQ(*read->find("most")->get<std::uint64_t>(), UINT64_MAX);
  EXPECT_EQ(*read->find("dates")->get<Array>()->at(2).get<QSDate>(), QSDate{951782400});
}

TEST(PropertyListTest, KeepsEachIntegerInOneType) {
  EXPECT_EQ(*PropertyList(std::uint64_t{7}).get<std::int64_t>(), 7);
  EXPECT_EQ(PropertyList(UINT64_MAX).get<std::int64_t>(), nullptr);
  EXPECT_EQ(*readBody("<integer>9223372036854775807</integer>")->get<std::int64_t>(), INT64_MAX);
  EXPECT_EQ(*readBody("<integer>9223372036854775808</integer>")->get<std::uint64_t>(),
            std::uint64_t{1} << 63);
}

TEST(PropertyListTest, FindsEntriesOfADictionaryOnly) {
  const PropertyList list(Dictionary{{"a", 1}});
  ASSERT_NE(list.find("a"), nullptr);
  EXPECT_EQ(*list.find("a")->get<std::int64_t>(), 1);
  EXPECT_EQ(list.find("b"), nullptr);
  EXPECT_EQ(PropertyList(Array{"a"}).find("a"), nullptr);
  EXPECT_EQ(list.find("a")->get<bool>(), nullptr);
}

TEST(PropertyListTest, WritesNoTextThatXMLCannotHold) {
  for (const std::string& text :
       {std::string("a\0b", 3), std::string("\x01"), std::string("\x1B"), std::string("\xFF"),
        std::string("\xC3"), std::string("\xED\xA0\x80"), std::string("\xEF\xBF\xBF")}) {
    EXPECT_FALSE(PropertyList(text).toXML());
    EXPECT_FALSE(PropertyList(Dictionary{{text, 1}}).toXML());
    EXPECT_FALSE(PropertyList(Array{Dictionary{{"deep", Array{text}}}}).toXML());
  }
}

TEST(PropertyListTest, WritesNoDateThatHasNoFourDigitYear) {
  for (const double seconds : {-62135596801.0, 253402300800.0, 1e300, -1e300, std::nan("")})
    EXPECT_FALSE(PropertyList(QSDate{seconds}).toXML()) << seconds;
}

TEST(PropertyListTest, WritesDatesBefore1970ToTheSecondBefore) {
  EXPECT_EQ(body(QSDate{-0.5}), "\t<date>1969-12-31T23:59:59Z</date>\n");
}

TEST(PropertyListTest, ReadsAndWritesAsManyLevelsAsItSays) {
  const auto deepest = readBody(nested(PropertyList::kMostLevels));
  ASSERT_TRUE(deepest);
  EXPECT_TRUE(deepest->toXML());
  EXPECT_FALSE(readBody(nested(PropertyList::kMostLevels + 1)));
  EXPECT_FALSE(readBody(nested(50000)));
  EXPECT_FALSE(PropertyList(Array{*deepest}).toXML());
}

TEST(PropertyListTest, ReadsNothingThatIsTooLong) {
  const std::string frame = "<plist><string></string></plist>";
  std::string longest = "<plist><string>";
  longest += std::string(PropertyList::kMostBytes - frame.size(), 'x') + "</string></plist>";
  ASSERT_EQ(longest.size(), PropertyList::kMostBytes);
  EXPECT_TRUE(PropertyList::fromXML(longest));
  EXPECT_FALSE(PropertyList::fromXML(longest + "\n"));
}

TEST(PropertyListTest, ReadsAFileWithEverythingAroundIt) {
  const auto list = PropertyList::fromXML(
      "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
      "<!DOCTYPE plist PUBLIC \"-//X//DTD PLIST 1.0//EN\" \"http://localhost/p.dtd\">\r\n"
      "<!-- a comment -->\r\n"
      "<plist version=\"1.0\">\r\n<dict>\r\n"
      "  <key>Product <!-- in a key -->URL</key><string><![CDATA[a & b]]>&#x41;&lt;</string>\r\n"
      "</dict></plist>\r\n");
  ASSERT_TRUE(list);
  ASSERT_NE(list->find("Product URL"), nullptr);
  EXPECT_EQ(*list->find("Product URL")->get<std::string>(), "a & bA<");
}

TEST(PropertyListTest, ReadsNumbersAndBytesWithWhiteSpaceAround) {
  EXPECT_EQ(again("<integer> +7\n</integer>"), "\t<integer>7</integer>\n");
  EXPECT_EQ(again("<integer>-7</integer>"), "\t<integer>-7</integer>\n");
  EXPECT_EQ(again("<real>\t+1e3 </real>"), "\t<real>1000</real>\n");
  EXPECT_EQ(again("<real>-Infinity</real>"), "\t<real>-infinity</real>\n");
  EXPECT_EQ(again("<real>nan</real>"), "\t<real>nan</real>\n");
  EXPECT_EQ(again("<data>\n\tYWJj\n\tZA==\n</data>"), "\t<data>YWJjZA==</data>\n");
  EXPECT_EQ(again("<date> 2024-02-29T23:59:59Z </date>"), "\t<date>2024-02-29T23:59:59Z</date>\n");
  EXPECT_EQ(again("<true> </true>"), "\t<true />\n");
  EXPECT_EQ(again("<string/>"), "\t<string></string>\n");
  EXPECT_EQ(again("<string>a\r\nb\rc</string>"), "\t<string>a\nb\nc</string>\n");
}

TEST(PropertyListTest, LetsTheLastOfTwoEntriesCount) {
  EXPECT_EQ(again("<dict><key>a</key><true/><key>a</key><false/></dict>"),
            "\t<dict>\n\t\t<key>a</key>\n\t\t<false />\n\t</dict>\n");
}

TEST(PropertyListTest, ExpandsNoEntity) {
  EXPECT_EQ(*readBody("<string>&lol;</string>")->get<std::string>(), "&lol;");
  EXPECT_FALSE(PropertyList::fromXML(
      "<!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;\">]>"
      "<plist><string>&b;</string></plist>"));
  EXPECT_FALSE(
      PropertyList::fromXML("<!DOCTYPE plist [<!ENTITY f SYSTEM \"file:///etc/passwd\">]>"
                            "<plist><string>&f;</string></plist>"));
}

TEST(PropertyListTest, ReadsNoValueOfABrokenForm) {
  for (const char* xml : {"",
                          " ",
                          "text",
                          "<string>a</string><string>b</string>",
                          "<key>a</key>",
                          "<String>a</String>",
                          "<null/>",
                          "<plist><true/></plist>",
                          "<string><true/></string>",
                          "<string>a<b/></string>",
                          "<integer></integer>",
                          "<integer>x</integer>",
                          "<integer>1.5</integer>",
                          "<integer>1 2</integer>",
                          "<integer>+-1</integer>",
                          "<integer>--1</integer>",
                          "<integer>+</integer>",
                          "<integer>18446744073709551616</integer>",
                          "<integer>-9223372036854775809</integer>",
                          "<integer><true/></integer>",
                          "<real></real>",
                          "<real>1,5</real>",
                          "<real>0x</real>",
                          "<real>1e999999</real>",
                          "<true>yes</true>",
                          "<false><true/></false>",
                          "<data>A</data>",
                          "<data>AAA</data>",
                          "<data>A===</data>",
                          "<data>AA=A</data>",
                          "<data>AA-_</data>",
                          "<data>====</data>",
                          "<data><a/></data>",
                          "<date></date>",
                          "<date>2024-02-30T00:00:00Z</date>",
                          "<date>2023-02-29T00:00:00Z</date>",
                          "<date>2024-13-01T00:00:00Z</date>",
                          "<date>2024-01-01T24:00:00Z</date>",
                          "<date>2024-01-01T00:60:00Z</date>",
                          "<date>2024-01-01T00:00:60Z</date>",
                          "<date>2024-01-01 00:00:00Z</date>",
                          "<date>2024-01-01T00:00:00</date>",
                          "<date>0000-01-01T00:00:00Z</date>",
                          "<date>-001-01-01T00:00:00Z</date>",
                          "<array>text</array>",
                          "<array><x/></array>",
                          "<array><true/>text</array>",
                          "<dict><key>a</key></dict>",
                          "<dict><true/></dict>",
                          "<dict><true/><key>a</key></dict>",
                          "<dict><key>a</key><key>b</key></dict>",
                          "<dict>text<key>a</key><true/></dict>",
                          "<dict><key><b/></key><true/></dict>",
                          "<dict><key>a</key><true/><key>b</key></dict>"}) {
    EXPECT_EQ(again(xml), "(none)") << xml;
  }
}

TEST(PropertyListTest, ReadsNoDocumentOfABrokenForm) {
  for (const std::string& xml : {std::string(),
                                 std::string("\0", 1),
                                 std::string("bplist00\xD1\x01\x02"),
                                 std::string("<"),
                                 std::string("<plist"),
                                 std::string("<plist>"),
                                 std::string("<plist/>"),
                                 std::string("<plist></plist>"),
                                 std::string("<true/>"),
                                 std::string("<dict></dict>"),
                                 std::string("<Plist><true/></Plist>"),
                                 std::string("<plist><true/>"),
                                 std::string("<plist><true></plist>"),
                                 std::string("<plist><true/></plist><plist/>"),
                                 std::string("<plist><string>a\0b</string></plist>", 35),
                                 std::string("<plist><string>\xFF</string></plist>"),
                                 std::string("<plist><string>a</strin"),
                                 std::string("<plist><string>a]]></plist>"),
                                 std::string("<plist><!-- <true/></plist>"),
                                 std::string("<plist><![CDATA[<true/></plist>"),
                                 std::string("<!DOCTYPE plist <plist><true/></plist>"),
                                 std::string("<plist><true/></plist attribute>"),
                                 std::string("<plist a=><true/></plist>"),
                                 std::string("\xFF\xFE<\0p\0l\0i\0s\0t\0/\0>\0", 16),
                                 std::string("{ \"Product URL\": \"x\" }")}) {
    EXPECT_FALSE(PropertyList::fromXML(xml)) << xml;
  }
}

// Every beginning, and every document with one byte changed, is read or refused; never worse.
TEST(PropertyListTest, SurvivesDamage) {
  const std::string whole = written(Dictionary{{"a", Array{1, 2.5, "x&y", true, QSDate{0}}},
                                               {"b", QSData(std::string("bytes"))}});
  for (std::size_t length = 0; length < whole.size() - 1; ++length)
    EXPECT_FALSE(PropertyList::fromXML(std::string_view(whole).substr(0, length))) << length;
  std::size_t readable = 0;
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const char byte : {'\0', '<', '>', '&', ';', '/', '!', '[', '"', '\x80', '9'}) {
      std::string damaged = whole;
      damaged[at] = byte;
      const auto list = PropertyList::fromXML(damaged);
      if (list && list->toXML()) ++readable;
    }
  }
  EXPECT_GT(readable, 0u);
}

}  // namespace
}  // namespace quillsift
