#pragma once

#include <string_view>

namespace quillsift {

// Whether the bytes are text that can stand on a line: valid UTF-8 without control characters other
// than the tab.
bool isPlainText(std::string_view bytes);

}  // namespace quillsift
