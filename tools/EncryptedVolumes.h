#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/LineFilter.h"

namespace quillsift::tools {

// Keeps, of the dump of an encrypted volume's header, what names ciphers, key slots and their
// kinds. Salts, digests and all else that is made of key material go.
LineFilter keepHeaderFacts();

// Kind and name of one line of /proc/keys, none if the line is not one: "user  my key". What
// follows the name there tells of the key's contents.
std::optional<std::string> nameOfKey(std::string_view line);

}  // namespace quillsift::tools
