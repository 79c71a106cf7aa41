#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "platform/linux/FaultlessReader.h"
#include "platform/linux/NumberedEntries.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

TEST(FaultlessReaderTest, CopiesBytes) {
  const std::string first(10000, 'a');
  const std::string second(10000, 'b');
  const auto reader = FaultlessReader::make(first.size());
  ASSERT_NE(reader, nullptr);
  for (const std::string& bytes : {first, second}) {
    const std::byte* const copy = reader->read(reinterpret_cast<const std::byte*>(bytes.data()));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::memcmp(copy, bytes.data(), bytes.size()), 0);
  }
}

TEST(FaultlessReaderTest, FailsOnPagesThatWereTakenAway) {
  const FileDescriptor file(::memfd_create("device", MFD_CLOEXEC));
  ASSERT_EQ(::ftruncate(file.get(), 8192), 0);
  const MappedMemory mapping = MappedMemory::ofFile(file.get(), 8192);
  const auto reader = FaultlessReader::make(8192);
  ASSERT_NE(reader, nullptr);
  EXPECT_NE(reader->read(mapping.data()), nullptr);
  ASSERT_EQ(::ftruncate(file.get(), 4096), 0);
  EXPECT_EQ(reader->read(mapping.data()), nullptr);
}

TEST(NumberedEntriesTest, AreInTheOrderOfTheirNumbers) {
  const ScratchTree scratch;
  for (const char* name : {"X10", "X9", "X", "X1a", "Xa1", "Y1", "X99999999999999", "aX1"})
    scratch.write(name, "");
  const auto entries = numberedEntries(scratch.directory(), "X");
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0], std::pair(9U, scratch.at("X9")));
  EXPECT_EQ(entries[1], std::pair(10U, scratch.at("X10")));
  EXPECT_TRUE(numberedEntries(scratch.at("none"), "X").empty());
  EXPECT_TRUE(numberedEntries("", "X").empty());
}

}  // namespace
}  // namespace quillsift
