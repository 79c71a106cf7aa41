#pragma once

#include <string>
#include <string_view>

namespace quillsift {

// The journal export format: one field a line, an empty line behind the last. A value that would
// not survive as a line of text follows its name as a 64-bit little-endian length and the bytes.

// Appends a field of a journal entry, "NAME=value". What has no "=" is no field and left out.
void appendJournalField(std::string_view field, std::string* text);

}  // namespace quillsift
