#include "platform/linux/NewestEntries.h"

#include <algorithm>
#include <cstring>

namespace quillsift {

namespace {

// Beyond this a limit is none; memory is only promised, but a promise has to be given.
constexpr std::int64_t kHighestLimit = std::int64_t{1} << 30;

}  // namespace

NewestEntries::NewestEntries(std::int64_t limit)
    : limit_(static_cast<std::size_t>(std::clamp<std::int64_t>(limit, 0, kHighestLimit))),
      memory_(limit_ == 0 ? MappedMemory() : MappedMemory::anonymous(limit_)),
      open_(limit_ > 0) {}

void NewestEntries::add(std::string_view entry) {
  if (!open_ || entry.empty()) return;
  if (entry.size() > limit_) {
    ++tooLong_;
  } else if (entry.size() > limit_ - used_) {
    open_ = false;
  } else {
    used_ += entry.size();
    std::memcpy(memory_.data() + memory_.length() - used_, entry.data(), entry.size());
  }
}

std::string_view NewestEntries::text() const {
  if (used_ == 0) return {};
  return {reinterpret_cast<const char*>(memory_.data()) + memory_.length() - used_, used_};
}

}  // namespace quillsift
