#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace quillsift {

// The authentication handshake of one peer, line by line. The library answers it, except where a
// peer wants to be somebody else than the kernel says it is.
class PeerHandshake {
 public:
  enum class Verdict {
    forward,  // for the library
    reject,   // to be answered with kRejection
    last,     // for the library, and the handshake is over
    giveUp,   // the peer has had enough attempts
  };

  static constexpr std::string_view kRejection = "REJECTED EXTERNAL\r\n";
  // An attempt is three lines long at most. Programs that try one mechanism after another need
  // about ten.
  static constexpr std::size_t kMaximumLines = 32;
  static constexpr std::size_t kMaximumLine = 1024;

  explicit PeerHandshake(uid_t peer);

  // `line` ends with "\r\n". Takes off the first one the NUL that opens a connection, so that it
  // can be forwarded or answered like the others.
  Verdict next(std::string_view* line);

 private:
  // Whether it says nothing, or that it is who it is. As the decimal number, each digit in hex.
  bool isOwnIdentity(std::string_view claimed) const;

  const std::string identity_;
  std::size_t lines_ = 0;
};

}  // namespace quillsift
