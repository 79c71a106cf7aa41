#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace quillsift {

// Texts for a person at a terminal.

// "0 bytes", "1 byte", "1023 bytes", "1.0 KiB", "12.3 MiB".
std::string sizeText(std::uint64_t bytes);

// "0:07", "12:34", "1:02:03".
std::string durationText(std::chrono::seconds duration);

// "1 job", "2 jobs".
std::string countText(std::uint64_t count, std::string_view noun);

// `text` on one line and without anything that a terminal would obey: line ends and tabs become
// spaces, other control characters "\x1b", bytes that are not UTF-8 the replacement character.
// Names and reasons come from foreign disks and programs.
std::string printable(std::string_view text);

// Columns that `text` takes on a terminal of the current locale. For printable texts.
std::size_t displayWidth(std::string_view text);

// `text` cut to at most `width` columns, its lost end or beginning shown as "...". Characters that
// the locale cannot show become "?". For printable texts.
std::string fitted(std::string_view text, std::size_t width);
std::string fittedEnd(std::string_view text, std::size_t width);

}  // namespace quillsift
