#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quillsift {

// What is known of the content of a block device, in the words of udev's database and of libblkid,
// which are the same. What is not known is empty.
struct VolumeFacts {
  std::string use;   // "filesystem", "crypto", "raid" or "other"
  std::string type;  // "ext4"
  std::string fileSystemUUID;
  std::string label;
  std::string partitionType;  // a GUID in lower case, or "0xef" on a disk of the older kind
  std::string partitionUUID;
  std::string role;  // as a udev rule gave it: a number

  bool operator==(const VolumeFacts&) const = default;

  bool holdsFileSystem() const { return use == "filesystem"; }
  // The file system's, else the partition's. Compared as text: not every one is 36 characters long.
  const std::string& uuid() const {
    return fileSystemUUID.empty() ? partitionUUID : fileSystemUUID;
  }
};

// The volume's role number: the one a udev rule gave it, else by our own label, else by the type of
// its partition. packaging/udev/65-quillsift-volume-role.rules holds the same table. None for a
// volume without a role.
std::optional<std::int16_t> volumeRole(const VolumeFacts& facts);

}  // namespace quillsift
