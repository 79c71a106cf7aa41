#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/FileDescriptor.h"

namespace quillsift::testing {

// A peer that says byte for byte what a test wants, well-behaved or not.
class RawPeer {
 public:
  explicit RawPeer(const std::string& socketPath);

  // Whether all of it could be written.
  bool write(std::string_view bytes);
  // Writes what fits without waiting for the other side; the number of bytes.
  std::size_t writeWhatFits(std::string_view bytes);
  // Takes the connection through the handshake.
  bool authenticate();
  // What can be read until `marker` has been seen, or the end.
  std::string readUntil(std::string_view marker);
  // What can be read until `count` bytes have come, or the end.
  std::string readBytes(std::size_t count);
  // Whether there is something to read (or the end) within this time.
  bool readable(std::chrono::milliseconds limit);
  // Reads to the end. False when the other side keeps the connection open.
  bool readToTheEnd(std::string* bytes = nullptr);
  void close() { socket_.reset(); }
  int descriptor() const { return socket_.get(); }

 private:
  FileDescriptor socket_;
};

// The messages of the protocol, written by hand (little endian).
struct RawCall {
  std::uint32_t serial = 1;
  std::string member;
  std::string interface = "io.vantor.test.Methods";
  std::string path = "/io/vantor/quillsiftd";
  std::string signature = {};
  std::string body = {};
  bool noReply = false;

  std::string bytes() const;
};

// The body of a call with one string.
std::string rawString(std::string_view text);

}  // namespace quillsift::testing
