#include "platform/linux/FaultlessReader.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

namespace quillsift {

std::unique_ptr<FaultlessReader> FaultlessReader::make(std::size_t length) {
  FileDescriptor file(::memfd_create("quillsift-row", MFD_CLOEXEC));
  if (!file.valid() || ::ftruncate(file.get(), static_cast<off_t>(length)) != 0) return nullptr;
  try {
    MappedMemory copy = MappedMemory::ofFile(file.get(), length);
    return std::unique_ptr<FaultlessReader>(
        new FaultlessReader(std::move(file), std::move(copy), length));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

FaultlessReader::FaultlessReader(FileDescriptor file, MappedMemory copy, std::size_t length)
    : file_(std::move(file)), copy_(std::move(copy)), length_(length) {}

const std::byte* FaultlessReader::read(const std::byte* bytes) {
  ssize_t count = 0;
  for (std::size_t done = 0; done < length_; done += static_cast<std::size_t>(count)) {
    count = ::pwrite(file_.get(), bytes + done, length_ - done, static_cast<off_t>(done));
    if (count < 0 && errno == EINTR) {
      count = 0;
    } else if (count <= 0) {
      return nullptr;
    }
  }
  return copy_.data();
}

}  // namespace quillsift
