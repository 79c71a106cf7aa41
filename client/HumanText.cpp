#include "client/HumanText.h"

#include <algorithm>
#include <array>
#include <cwchar>
#include <vector>

#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr std::string_view kEllipsis = "...";

// One character as the terminal shows it.
struct Glyph {
  std::string_view bytes;
  std::size_t width;
};

// The next character of `text` in the encoding of the locale, "?" for what it cannot show.
Glyph takeGlyph(std::string_view* text) {
  std::mbstate_t state{};
  wchar_t wide = 0;
  const std::size_t length = std::mbrtowc(&wide, text->data(), text->size(), &state);
  if (length == 0 || length > text->size()) {
    text->remove_prefix(1);
    return {"?", 1};
  }
  const std::string_view bytes = text->substr(0, length);
  text->remove_prefix(length);
  const int width = ::wcwidth(wide);
  if (width < 0) return {"?", 1};
  return {bytes, static_cast<std::size_t>(width)};
}

std::vector<Glyph> glyphsOf(std::string_view text) {
  std::vector<Glyph> glyphs;
  while (!text.empty())
    glyphs.push_back(takeGlyph(&text));
  return glyphs;
}

std::size_t widthOf(const std::vector<Glyph>& glyphs) {
  std::size_t width = 0;
  for (const Glyph& glyph : glyphs)
    width += glyph.width;
  return width;
}

// As many glyphs from the front as fit.
std::string leading(const std::vector<Glyph>& glyphs, std::size_t width) {
  std::string text;
  for (const Glyph& glyph : glyphs) {
    if (glyph.width > width) break;
    width -= glyph.width;
    text += glyph.bytes;
  }
  return text;
}

std::string trailing(const std::vector<Glyph>& glyphs, std::size_t width) {
  auto first = glyphs.end();
  while (first != glyphs.begin() && std::prev(first)->width <= width) {
    --first;
    width -= first->width;
  }
  std::string text;
  for (; first != glyphs.end(); ++first)
    text += first->bytes;
  return text;
}

}  // namespace

std::string sizeText(std::uint64_t bytes) {
  if (bytes < 1024) return countText(bytes, "byte");
  constexpr std::array units = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  double number = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  // 1023.95 would print as 1024.0.
  while (number >= 1023.95 && unit + 1 < units.size()) {
    number /= 1024;
    ++unit;
  }
  return formatted("%.1f %s", number, units[unit]);
}

std::string durationText(std::chrono::seconds duration) {
  const auto seconds = static_cast<long long>(duration.count());
  if (seconds < 3600) return formatted("%lld:%02lld", seconds / 60, seconds % 60);
  return formatted("%lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

std::string countText(std::uint64_t count, std::string_view noun) {
  std::string text = std::to_string(count) + " " + std::string(noun);
  return count == 1 ? text : text + "s";
}

std::string printable(std::string_view text) {
  const std::string valid = validUTF8(text);
  std::string result;
  result.reserve(valid.size());
  for (std::size_t i = 0; i < valid.size(); ++i) {
    const auto byte = static_cast<unsigned char>(valid[i]);
    const auto next = i + 1 < valid.size() ? static_cast<unsigned char>(valid[i + 1]) : 0U;
    if (byte == '\n' || byte == '\r' || byte == '\t') {
      result += ' ';
    } else if (byte < 0x20 || byte == 0x7F) {
      result += formatted("\\x%02x", byte);
    } else if (byte == 0xC2 && next < 0xA0) {  // U+0080 to U+009F: control characters too
      result += formatted("\\x%02x", next);
      ++i;
    } else {
      result += valid[i];
    }
  }
  return result;
}

std::size_t displayWidth(std::string_view text) {
  return widthOf(glyphsOf(text));
}

std::string fitted(std::string_view text, std::size_t width) {
  const auto glyphs = glyphsOf(text);
  if (widthOf(glyphs) <= width) return leading(glyphs, width);
  if (width <= kEllipsis.size()) return std::string(kEllipsis.substr(0, width));
  return leading(glyphs, width - kEllipsis.size()) + std::string(kEllipsis);
}

std::string fittedEnd(std::string_view text, std::size_t width) {
  const auto glyphs = glyphsOf(text);
  if (widthOf(glyphs) <= width) return leading(glyphs, width);
  if (width <= kEllipsis.size()) return std::string(kEllipsis.substr(0, width));
  return std::string(kEllipsis) + trailing(glyphs, width - kEllipsis.size());
}

}  // namespace quillsift
