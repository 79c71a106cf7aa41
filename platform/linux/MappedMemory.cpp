#include "platform/linux/MappedMemory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace quillsift {

namespace {

std::size_t wholePages(std::size_t length) {
  static const auto pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  return (length + pageSize - 1) / pageSize * pageSize;
}

}  // namespace

MappedMemory::MappedMemory(void* address, std::size_t length)
    : data_(static_cast<std::byte*>(address)), length_(length) {
  if (address == MAP_FAILED) throw std::bad_alloc();
}

MappedMemory::~MappedMemory() {
  if (length_ != 0) ::munmap(data_, length_);
}

MappedMemory::MappedMemory(MappedMemory&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), length_(std::exchange(other.length_, 0)) {}

MappedMemory& MappedMemory::operator=(MappedMemory&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(length_, other.length_);
  return *this;
}

MappedMemory MappedMemory::anonymous(std::size_t length) {
  const std::size_t size = wholePages(length);
  // Not reserved: the room in front of the bytes may be as big as they are and is never touched.
  constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
  return {::mmap(nullptr, size, PROT_READ | PROT_WRITE, kFlags, -1, 0), size};
}

MappedMemory MappedMemory::ofFile(int descriptor, std::size_t length) {
  const std::size_t size = wholePages(length);
  return {::mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0), size};
}

void MappedMemory::resize(std::size_t length) {
  const std::size_t size = wholePages(length);
  if (size == length_) return;
#ifdef __SANITIZE_THREAD__
  // The thread sanitizer does not follow mremap and takes moved pages for those of their last user.
  MappedMemory moved = anonymous(size);
  std::memcpy(moved.data_, data_, std::min(size, length_));
  *this = std::move(moved);
#else
  void* const address = ::mremap(data_, length_, size, MREMAP_MAYMOVE);
  if (address == MAP_FAILED) throw std::bad_alloc();
  data_ = static_cast<std::byte*>(address);
  length_ = size;
#endif
}

}  // namespace quillsift
