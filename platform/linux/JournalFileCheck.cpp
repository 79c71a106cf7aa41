#include "platform/linux/JournalFileCheck.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <span>
#include <vector>

#include "platform/linux/LittleEndian.h"

namespace quillsift {

namespace {

// Of the documented layout of journal files. All numbers are little-endian.
constexpr std::array<char, 8> kSignature = {'L', 'P', 'K', 'S', 'H', 'H', 'R', 'H'};
constexpr std::size_t kHeaderSizeOffset = 88;
constexpr std::size_t kArenaSizeOffset = 96;
constexpr std::size_t kTailObjectOffset = 136;
constexpr std::size_t kEntriesOffset = 152;
constexpr std::size_t kSmallestHeader = 208;
constexpr std::size_t kObjectHeaderSize = 16;  // type, flags, six bytes of nothing, 64 bits of size
constexpr std::size_t kObjectSizeOffset = 8;
constexpr unsigned char kHighestObjectType = 7;

// A file through a window that only moves forward.
class Window {
 public:
  explicit Window(int descriptor) : descriptor_(descriptor), bytes_(kLength) {}

  // `count` bytes at `offset`; null where the file ends before them.
  const unsigned char* at(std::uint64_t offset, std::size_t count) {
    if (offset < start_ || offset - start_ > filled_ || filled_ - (offset - start_) < count) {
      fill(offset);
    }
    return filled_ - (offset - start_) < count ? nullptr : bytes_.data() + (offset - start_);
  }

 private:
  static constexpr std::size_t kLength = std::size_t{256} * 1024;

  void fill(std::uint64_t offset) {
    start_ = offset;
    filled_ = 0;
    while (filled_ < kLength) {
      const ssize_t count = ::pread(descriptor_, bytes_.data() + filled_, kLength - filled_,
                                    static_cast<off_t>(offset + filled_));
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return;
      filled_ += static_cast<std::size_t>(count);
    }
  }

  const int descriptor_;
  std::vector<unsigned char> bytes_;
  std::uint64_t start_ = 0;
  std::size_t filled_ = 0;
};

std::uint64_t numberAt(const unsigned char* bytes) {
  return littleEndianNumber(std::span<const unsigned char, 8>(bytes, 8));
}

struct Range {
  std::uint64_t start, end;
};

// Follows the objects of the arena to the last.
std::optional<std::uint64_t> firstGap(Window& file, Range arena, std::uint64_t lastObject) {
  std::uint64_t offset = arena.start;
  while (offset < lastObject) {
    const unsigned char* const object = file.at(offset, kObjectHeaderSize);
    if (object == nullptr || object[0] == 0 || object[0] > kHighestObjectType) return offset;
    const std::uint64_t size = numberAt(object + kObjectSizeOffset);
    if (size < kObjectHeaderSize || size > arena.end - offset) return offset;
    offset += (size + 7) / 8 * 8;
  }
  // In a journal without an object the last one is said to be at 0.
  return offset == lastObject || lastObject < arena.start ? std::nullopt
                                                          : std::optional(lastObject);
}

}  // namespace

JournalFileFacts inspectJournalFile(int descriptor, bool wholeFile) {
  constexpr std::uint64_t kMost = std::uint64_t{1} << 60;  // far above any file, far from overflow
  JournalFileFacts facts;
  Window file(descriptor);
  const unsigned char* const header = file.at(0, kSmallestHeader);
  if (header == nullptr || std::memcmp(header, kSignature.data(), kSignature.size()) != 0) {
    return facts;
  }
  facts.entries = numberAt(header + kEntriesOffset);
  const std::uint64_t start = numberAt(header + kHeaderSizeOffset);
  const std::uint64_t arena = numberAt(header + kArenaSizeOffset);
  const std::uint64_t tail = numberAt(header + kTailObjectOffset);
  if (start < kSmallestHeader || start > kMost || arena > kMost || tail > start + arena) {
    return facts;
  }
  if (wholeFile) facts.firstDamage = firstGap(file, {.start = start, .end = start + arena}, tail);
  return facts;
}

}  // namespace quillsift
