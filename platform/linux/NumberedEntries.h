#pragma once

#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace quillsift {

// The entries of a directory that are called `prefix` and a number, by that number: "card0",
// "card1", "card10". What could be read of a directory that cannot be read to its end; `error` (may
// be null) then tells why.
std::vector<std::pair<unsigned, std::string>> numberedEntries(const std::string& directory,
                                                              std::string_view prefix,
                                                              std::error_code* error = nullptr);

}  // namespace quillsift
