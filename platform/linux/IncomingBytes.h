#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quillsift {

// Collects what a peer sends and cuts it into the lines of the handshake and, after those, into
// whole messages. Looks at the fixed header of a message only; what is in it is for others to read.
class IncomingBytes {
 public:
  enum class Cut {
    piece,       // there is one
    incomplete,  // it has not come in yet
    malformed,   // there will never be one
    tooLong,     // it is, or is going to be, longer than it may be
  };

  IncomingBytes(std::size_t maximumLine, std::size_t maximumMessage);

  void append(std::string_view bytes);
  // Whether a part of something is here.
  bool empty() const { return begin_ == bytes_.size(); }

  // The next line, its end ("\r\n") included. It stays valid until the next call of any of these.
  Cut nextLine(std::string_view* line);
  // The next message. The same.
  Cut nextMessage(std::string_view* message);

 private:
  std::string_view rest() const { return std::string_view(bytes_).substr(begin_); }
  std::string_view take(std::size_t length);

  const std::size_t maximumLine_;
  const std::size_t maximumMessage_;
  std::string bytes_;
  std::size_t begin_ = 0;  // what lies before has been taken
};

}  // namespace quillsift
