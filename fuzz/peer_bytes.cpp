// What a peer sends: the lines of the handshake, then messages. Input: how many bytes arrive at a
// time, in one byte; then the bytes.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/IncomingBytes.h"
#include "platform/linux/PeerHandshake.h"

namespace {

using quillsift::IncomingBytes;
using quillsift::PeerHandshake;
using Cut = IncomingBytes::Cut;
using Verdict = PeerHandshake::Verdict;

// Small, so that inputs reach them.
constexpr std::size_t kMostOfLine = 48;
constexpr std::size_t kMostOfMessage = 256;
constexpr uid_t kPeer = 1000;
constexpr std::string_view kIdentity = "31303030";

void require(bool condition) {
  if (!condition) std::abort();
}

// What becomes of a peer's bytes: the pieces in their order, and where it ended.
class Conversation {
 public:
  void hear(std::string_view bytes) {
    incoming_.append(bytes);
    while (end_ == Cut::incomplete && takePiece()) {
    }
  }

  bool operator==(const Conversation& other) const {
    return pieces_ == other.pieces_ && end_ == other.end_ && gaveUp_ == other.gaveUp_;
  }
  // Whether the pieces are the beginning of the bytes, one behind the other.
  bool isBeginningOf(std::string_view bytes) const {
    for (const std::string& piece : pieces_) {
      if (!bytes.starts_with(piece)) return false;
      bytes.remove_prefix(piece.size());
    }
    return end_ != Cut::incomplete || gaveUp_ || incoming_.empty() == bytes.empty();
  }

 private:
  bool takePiece() {
    std::string_view piece;
    const Cut cut = isTalking_ ? incoming_.nextMessage(&piece) : incoming_.nextLine(&piece);
    if (cut == Cut::incomplete || gaveUp_) return false;
    if (cut != Cut::piece) {
      end_ = cut;
      return false;
    }
    pieces_.emplace_back(piece);
    if (isTalking_) {
      require(piece.size() <= kMostOfMessage);
    } else {
      judge(piece);
    }
    return !gaveUp_;
  }

  void judge(std::string_view line) {
    require(line.size() <= kMostOfLine + 2 && line.ends_with("\r\n"));
    const Verdict verdict = handshake_.next(&line);
    gaveUp_ = verdict == Verdict::giveUp;
    isTalking_ = verdict == Verdict::last;
    // Nobody gets through as somebody else.
    const bool isClaim = line.starts_with("AUTH ") || line.starts_with("DATA ");
    if (verdict == Verdict::forward && isClaim) {
      const std::string_view claim = line.substr(0, line.size() - 2);
      require(claim.ends_with(kIdentity) || claim == "AUTH EXTERNAL" || claim.ends_with(' '));
    }
  }

  IncomingBytes incoming_{kMostOfLine, kMostOfMessage};
  PeerHandshake handshake_{kPeer};
  std::vector<std::string> pieces_;
  bool isTalking_ = false;
  bool gaveUp_ = false;
  Cut end_ = Cut::incomplete;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t step = std::size_t{data[0]} + 1;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  Conversation atOnce;
  atOnce.hear(bytes);
  Conversation inSteps;
  for (std::size_t at = 0; at < bytes.size(); at += step)
    inSteps.hear(bytes.substr(at, step));
  require(atOnce == inSteps);
  require(atOnce.isBeginningOf(bytes) && inSteps.isBeginningOf(bytes));
  return 0;
}
