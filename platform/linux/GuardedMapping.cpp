#include "platform/linux/GuardedMapping.h"

#include <sys/mman.h>

#include <cerrno>
#include <memory>

namespace quillsift {

namespace {

// Below this a copy costs hardly more than a mapping.
constexpr std::size_t kSmallLength = 64 * 1024;

std::size_t roomFor(std::size_t length) {
  const std::size_t room = LostPageGuard::room();
  return length < kSmallLength ? room / 2 : room;
}

}  // namespace

std::optional<QSData> GuardedMapping::ofFile(int descriptor, std::size_t length) {
  // First, so that nothing is mapped when memory runs out.
  const auto mapping = std::make_shared<GuardedMapping>();
  if (!mapping->map(descriptor, length)) return std::nullopt;
  (void)::madvise(mapping->address_, length, MADV_SEQUENTIAL);  // a hint
  return QSData(mapping, {static_cast<const std::byte*>(mapping->address_), length});
}

bool GuardedMapping::map(int descriptor, std::size_t length) {
  void* const address = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, descriptor, 0);
  if (address == MAP_FAILED) return false;
  address_ = address;
  length_ = length;
  ticket_ = LostPageGuard::add(address, length, roomFor(length));
  if (!ticket_) errno = ENOMEM;
  return ticket_.has_value();
}

GuardedMapping::~GuardedMapping() {
  if (ticket_) LostPageGuard::remove(*ticket_);
  if (address_ != nullptr) ::munmap(address_, length_);
}

}  // namespace quillsift
