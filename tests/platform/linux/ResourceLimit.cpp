#include "tests/platform/linux/ResourceLimit.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>

namespace quillsift {

namespace {

// The number of the `count`th descriptor from the lowest free one on, which is the limit to set.
rlim_t limitAfter(std::size_t count) {
  rlim_t limit = 0;
  for (;; ++limit) {
    if (::fcntl(static_cast<int>(limit), F_GETFD) != -1) continue;
    if (count-- == 0) return limit;
  }
}

}  // namespace

ResourceLimit::ResourceLimit(__rlimit_resource resource, rlim_t limit) : resource_(resource) {
  EXPECT_EQ(::getrlimit(resource_, &before_), 0);
  const rlimit lowered{limit, before_.rlim_max};
  EXPECT_EQ(::setrlimit(resource_, &lowered), 0);
}

ResourceLimit::~ResourceLimit() {
  EXPECT_EQ(::setrlimit(resource_, &before_), 0);
}

DescriptorShortage::DescriptorShortage(std::size_t count)
    : limit_(RLIMIT_NOFILE, limitAfter(count)) {}

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace quillsift
