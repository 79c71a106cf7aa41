// The reader of the log from before the operating system. Input: 16 bits, little-endian, that the
// first size query answers, whatever is really there; the rest is what there is.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>

#include "host/PreOSLogBuffer.h"
#include "platform/linux/LittleEndian.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

// A host that first errs about the size of its log.
class ErringLog : public FakeHostInformation {
 public:
  void set(std::size_t claimed, std::span<const std::uint8_t> log) {
    claimed_ = claimed;
    log_ = log;
  }
  int systemControl(const char*, void* out, std::size_t* outLength, const void*,
                    std::size_t) override {
    if (out == nullptr) {
      *outLength = claimed_;
      claimed_ = log_.size();
      return 0;
    }
    if (*outLength < log_.size()) {
      errno = ENOMEM;
      return -1;
    }
    if (!log_.empty()) std::memcpy(out, log_.data(), log_.size());
    *outLength = log_.size();
    return 0;
  }

 private:
  std::size_t claimed_ = 0;
  std::span<const std::uint8_t> log_;
};

class Machine {
 public:
  Machine() {
    auto host = std::make_unique<ErringLog>();
    log_ = host.get();
    Platform::current().hostInformation = std::move(host);
  }
  ErringLog& log() { return *log_; }
  void forgetLines() { platform_.systemLog().clear(); }

 private:
  TestPlatform platform_;
  ErringLog* log_;
};

void require(bool condition) {
  if (!condition) std::abort();
}

std::size_t numberAt(std::span<const std::uint8_t> bytes, std::size_t offset) {
  return littleEndianNumber(bytes.subspan(offset, 4));
}

// Byte by byte what the reader copies in blocks.
void checkBlock(std::span<const std::uint8_t> block, std::span<const std::uint8_t> log) {
  require(log.size() >= 14 && std::memcmp(log.data(), "POSL", 4) == 0);
  require(numberAt(log, 4) == log.size() && numberAt(log, 8) <= log.size());
  const std::span<const std::uint8_t> ring = log.subspan(14);
  const std::size_t written = numberAt(log, 8) + 1;
  const bool wrapped = log[13] != 0;
  require(block.size() == (wrapped ? ring.size() : written));
  const std::size_t start = wrapped && written < ring.size() ? written : 0;
  for (std::size_t i = 0; i < block.size(); ++i) {
    const std::size_t from = wrapped ? (start + i) % ring.size() : i;
    require(block[i] == (from < ring.size() ? ring[from] : 0));
  }
}

}  // namespace
}  // namespace quillsift

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillsift;
  static Machine machine;
  if (size < 2) return 0;
  const std::span<const std::uint8_t> log(data + 2, size - 2);
  machine.log().set(static_cast<std::size_t>(data[0] | data[1] << 8), log);
  std::size_t length = 0;
  const std::unique_ptr<std::uint8_t, decltype(&std::free)> block(collect_pre_log_buffer(&length),
                                                                  std::free);
  if (block) checkBlock({block.get(), length}, log);
  machine.forgetLines();
  return 0;
}
