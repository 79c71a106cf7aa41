#include <gtest/gtest.h>

#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/QSData.h"

namespace quillsift {
namespace {

TEST(QSDataTest, IsEmptyByItself) {
  const QSData data;
  EXPECT_EQ(data.length(), 0U);
  EXPECT_TRUE(data.bytes().empty());
  EXPECT_EQ(data.text(), "");
}

TEST(QSDataTest, HoldsATextWithEveryByteOfIt) {
  const std::string text("a\0\xFF", 3);
  const QSData data(text);
  EXPECT_EQ(data.length(), 3U);
  EXPECT_EQ(data.text(), text);
}

TEST(QSDataTest, TakesOverALongTextWithoutCopying) {
  std::string text(1000, 'x');
  const char* const bytes = text.data();
  EXPECT_EQ(QSData(std::move(text)).text().data(), bytes);
}

TEST(QSDataTest, HoldsBytes) {
  std::vector<std::byte> bytes{std::byte{1}, std::byte{2}};
  const std::byte* const address = bytes.data();
  const QSData data(std::move(bytes));
  EXPECT_EQ(data.bytes().data(), address);
  EXPECT_EQ(data.text(), "\1\2");
}

TEST(QSDataTest, CopiesShareTheBytes) {
  const QSData data(std::string(100, 'x'));
  const QSData copy = data;
  EXPECT_EQ(copy.bytes().data(), data.bytes().data());
}

TEST(QSDataTest, KeepsItsStorageUntilTheLastCopyGoes) {
  auto storage = std::make_shared<std::string>("bytes");
  const std::weak_ptr<std::string> watched = storage;
  QSData data(storage, std::as_bytes(std::span(*storage)).subspan(1, 3));
  storage.reset();
  QSData copy = data;
  data = QSData();
  EXPECT_FALSE(watched.expired());
  EXPECT_EQ(copy.text(), "yte");
  copy = QSData();
  EXPECT_TRUE(watched.expired());
}

TEST(QSDataTest, CopyOfIsIndependentOfItsSource) {
  std::string source = "abc";
  const QSData data = QSData::copyOf(std::as_bytes(std::span(source)));
  source[0] = 'x';
  EXPECT_EQ(data.text(), "abc");
  EXPECT_EQ(QSData::copyOf({}).length(), 0U);
}

}  // namespace
}  // namespace quillsift
