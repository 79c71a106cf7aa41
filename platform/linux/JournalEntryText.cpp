#include "platform/linux/JournalEntryText.h"

#include <cstddef>
#include <cstdint>

#include "platform/linux/PlainText.h"

namespace quillsift {

void appendJournalField(std::string_view field, std::string* text) {
  const std::size_t equals = field.find('=');
  if (equals == std::string_view::npos) return;
  const std::string_view value = field.substr(equals + 1);
  if (isPlainText(value)) {
    text->append(field);
  } else {
    text->append(field.substr(0, equals)) += '\n';
    for (std::uint64_t rest = value.size(), i = 0; i < 8; ++i, rest >>= 8)
      *text += static_cast<char>(rest);
    text->append(value);
  }
  *text += '\n';
}

}  // namespace quillsift
