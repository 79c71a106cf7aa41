#include "jobs/GroupDatabase.h"

#include <grp.h>

#include <cerrno>
#include <cstddef>
#include <vector>

namespace quillsift {

namespace {

constexpr std::size_t kUsualRecord = 1024;
constexpr std::size_t kLargestRecord =
    std::size_t{16} * 1024 * 1024;  // a group with very many members

}  // namespace

std::optional<gid_t> groupIdentifier(const std::string& name) {
  for (std::size_t room = kUsualRecord; room <= kLargestRecord; room *= 4) {
    std::vector<char> buffer(room);
    group record{};
    group* found = nullptr;
    int result = 0;
    do {
      result = ::getgrnam_r(name.c_str(), &record, buffer.data(), buffer.size(), &found);
    } while (result == EINTR);
    if (result == ERANGE) continue;
    if (result != 0 || found == nullptr) return std::nullopt;
    return record.gr_gid;
  }
  return std::nullopt;
}

}  // namespace quillsift
