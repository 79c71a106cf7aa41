#pragma once

#include <string>

namespace quillsift {

// The bytes of an empty volume as far as a look at its beginning tells: a superblock of the ext
// family. `uuid` is 16 bytes, `label` at most 16.
std::string extVolumeImage(const std::string& uuid, const std::string& label);

}  // namespace quillsift
