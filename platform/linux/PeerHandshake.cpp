#include "platform/linux/PeerHandshake.h"

#include "platform/Text.h"

namespace quillsift {

namespace {

std::string hexDigits(const std::string& text) {
  std::string digits;
  for (const char character : text)
    digits += formatted("%02x", static_cast<unsigned>(static_cast<unsigned char>(character)));
  return digits;
}

// Cuts the first word off `text`, and the blank behind it.
std::string_view takeWord(std::string_view* text) {
  const std::size_t end = text->find(' ');
  const std::string_view word = text->substr(0, end);
  text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
  return word;
}

}  // namespace

PeerHandshake::PeerHandshake(uid_t peer) : identity_(hexDigits(std::to_string(peer))) {}

PeerHandshake::Verdict PeerHandshake::next(std::string_view* line) {
  if (lines_ == 0) {
    if (line->front() != '\0') return Verdict::giveUp;
    line->remove_prefix(1);
  }
  if (++lines_ > kMaximumLines) return Verdict::giveUp;
  std::string_view rest = line->substr(0, line->size() - 2);
  const std::string_view command = takeWord(&rest);
  if (command == "BEGIN") return Verdict::last;
  if (command == "AUTH" && takeWord(&rest) != "EXTERNAL") return Verdict::reject;
  if ((command == "AUTH" || command == "DATA") && !isOwnIdentity(rest)) return Verdict::reject;
  return Verdict::forward;
}

bool PeerHandshake::isOwnIdentity(std::string_view claimed) const {
  return claimed.empty() || claimed == identity_;
}

}  // namespace quillsift
