#include "platform/linux/OutputBuffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

namespace quillsift {

namespace {

constexpr std::size_t kHeapLength = std::size_t{64} * 1024;  // a full pipe
constexpr std::size_t kFirstMappingLength = 4 * kHeapLength;
// From here on the memory file's cost (a descriptor, two calls, a copy) is lost in the rest.
constexpr std::size_t kMappingLimit = std::size_t{1024} * 1024;
// What is read at a time on the way to the file: stays in the processor's cache.
constexpr std::size_t kFileChunkLength = std::size_t{256} * 1024;

void writeAll(int file, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(written));
    } else if (errno == ENOMEM || errno == ENOSPC || errno == EFBIG) {
      throw std::bad_alloc();
    } else if (errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "write to a memory file");
    }
  }
}

QSData dataOf(MappedMemory mapping, std::size_t length) {
  const std::span<const std::byte> bytes(mapping.data(), length);
  return {std::make_shared<const MappedMemory>(std::move(mapping)), bytes};
}

}  // namespace

std::span<std::byte> OutputBuffer::room() {
  if (memory().empty()) heap_ = std::make_unique_for_overwrite<std::byte[]>(kHeapLength);
  return memory().subspan(filled_);
}

void OutputBuffer::commit(std::size_t count) {
  length_ += count;
  filled_ += count;
  if (file_.valid()) {
    writeAll(file_.get(), memory().first(std::exchange(filled_, 0)));
  } else if (filled_ == memory().size()) {
    makeRoom();
  }
}

QSData OutputBuffer::take() {
  OutputBuffer taken = std::move(*this);
  length_ = filled_ = 0;
  if (taken.length_ == 0) return {};
  if (taken.file_.valid()) {
    return dataOf(MappedMemory::ofFile(taken.file_.get(), taken.length_), taken.length_);
  }
  if (taken.heap_) return QSData::copyOf(taken.memory().first(taken.length_));
  taken.mapping_.resize(taken.length_);
  return dataOf(std::move(taken.mapping_), taken.length_);
}

std::span<std::byte> OutputBuffer::memory() const {
  if (heap_) return {heap_.get(), kHeapLength};
  return {mapping_.data(), mapping_.length()};
}

void OutputBuffer::makeRoom() {
  if (heap_) {
    mapping_ = MappedMemory::anonymous(kFirstMappingLength);
    std::memcpy(mapping_.data(), heap_.get(), filled_);
    heap_.reset();
    return;
  }
  if (mapping_.length() >= kMappingLimit) {
    FileDescriptor file(::memfd_create("output", MFD_CLOEXEC));
    if (file.valid()) return moveToFile(std::move(file));
  }
  mapping_.resize(2 * mapping_.length());
}

void OutputBuffer::moveToFile(FileDescriptor file) {
  file_ = std::move(file);
  writeAll(file_.get(), memory().first(std::exchange(filled_, 0)));
  mapping_.resize(kFileChunkLength);
}

}  // namespace quillsift
