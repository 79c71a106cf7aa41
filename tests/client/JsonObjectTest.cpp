#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "client/JsonObject.h"

namespace quillsift {
namespace {

std::string json(std::string_view text) {
  return JsonObject().add("t", text).text();
}

TEST(JsonObjectTest, PrintsMembersInTheOrderOfAddition) {
  EXPECT_EQ(JsonObject().add("b", 1).add("a", true).add("c", "x").text(),
            R"({"b":1,"a":true,"c":"x"})");
  EXPECT_EQ(JsonObject().text(), "{}");
}

TEST(JsonObjectTest, EscapesQuotesBackslashesAndControls) {
  EXPECT_EQ(json("say \"hi\" \\ now"), R"({"t":"say \"hi\" \\ now"})");
  EXPECT_EQ(json("a\nb\rc\td\be\f"), R"({"t":"a\nb\rc\td\be\f"})");
  EXPECT_EQ(json(std::string_view("\0\x1b\x1f\x7f", 4)), R"({"t":"\u0000\u001b\u001f\u007f"})");
}

TEST(JsonObjectTest, KeepsUTF8AndReplacesWhatIsNot) {
  EXPECT_EQ(json("Gr\xC3\xBC\xC3\x9F"
                 "e \xF0\x9F\x98\x80"),
            "{\"t\":\"Gr\xC3\xBC\xC3\x9F"
            "e \xF0\x9F\x98\x80\"}");
  EXPECT_EQ(json("a\xFF"
                 "b\xC3"),
            "{\"t\":\"a\xEF\xBF\xBD"
            "b\xEF\xBF\xBD\"}");
}

TEST(JsonObjectTest, EscapesKeysToo) {
  EXPECT_EQ(JsonObject().add("a\"b", 1).text(), R"({"a\"b":1})");
}

TEST(JsonObjectTest, PrintsWholeNumbersInFull) {
  EXPECT_EQ(JsonObject()
                .add("u", std::numeric_limits<std::uint64_t>::max())
                .add("i", std::numeric_limits<std::int64_t>::min())
                .text(),
            R"({"u":18446744073709551615,"i":-9223372036854775808})");
}

TEST(JsonObjectTest, PrintsFractionsThatReadBackTheSame) {
  EXPECT_EQ(JsonObject().add("d", 1700000000.25).text(), R"({"d":1700000000.25})");
  EXPECT_EQ(JsonObject().add("d", 0.1).add("e", -1.0).text(), R"({"d":0.1,"e":-1})");
  EXPECT_EQ(JsonObject().add("d", 1700000000.0).add("e", 1e300).text(),
            R"({"d":1700000000,"e":1e+300})");
}

TEST(JsonObjectTest, PrintsNoneAndNumbersThatJsonLacksAsNull) {
  EXPECT_EQ(JsonObject()
                .add("n", std::optional<std::string>())
                .add("i", std::numeric_limits<double>::infinity())
                .add("q", std::numeric_limits<double>::quiet_NaN())
                .add("s", std::optional<std::string>("s"))
                .text(),
            R"({"n":null,"i":null,"q":null,"s":"s"})");
}

TEST(JsonObjectTest, NestsListsAndAppends) {
  const std::vector<JsonObject> list = {JsonObject().add("a", 1), JsonObject().add("a", 2)};
  EXPECT_EQ(JsonObject().add("l", list).add("e", std::vector<JsonObject>()).text(),
            R"({"l":[{"a":1},{"a":2}],"e":[]})");
  EXPECT_EQ(JsonObject().add("a", 1).append(JsonObject().add("b", 2)).text(), R"({"a":1,"b":2})");
  EXPECT_EQ(JsonObject().append(JsonObject().add("b", 2)).append(JsonObject()).text(),
            R"({"b":2})");
}

}  // namespace
}  // namespace quillsift
