#pragma once

#include <sys/resource.h>

#include <cstddef>

namespace quillsift {

// Lowers a soft limit of this process for a scope.
class ResourceLimit {
 public:
  ResourceLimit(__rlimit_resource resource, rlim_t limit);
  ~ResourceLimit();
  ResourceLimit(const ResourceLimit&) = delete;
  ResourceLimit& operator=(const ResourceLimit&) = delete;

 private:
  const __rlimit_resource resource_;
  rlimit before_{};
};

// Leaves this process `count` more descriptors. For as long as it lives no descriptor below the
// limit must be closed that was open when it was made.
class DescriptorShortage {
 public:
  explicit DescriptorShortage(std::size_t count);

 private:
  ResourceLimit limit_;
};

std::size_t openDescriptors();

}  // namespace quillsift
