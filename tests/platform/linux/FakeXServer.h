#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/FileDescriptor.h"

namespace quillsift::testing {

struct FakeOutput {
  std::string name = "FAKE";
  bool hasController = true;
  std::uint32_t mode = 1;  // 0: none
  std::int16_t x = 0;
  std::int16_t y = 0;
  std::uint16_t width = 2;
  std::uint16_t height = 2;
};

// The answers that a server can be made to lie in.
enum class Answer {
  welcome,
  outputs,
  primaryOutput,
  output,
  controller,
  geometry,
  attributes,
  property,
  children,
  others,
};

// Bytes that an answer has in the place of the true ones, from `offset` on; an answer that is
// shorter ends there. With `cutAt` the answer ends, and says so itself, after so many bytes.
struct Lie {
  Answer answer = Answer::others;
  std::size_t offset = 0;
  std::string bytes = {};
  std::optional<std::size_t> cutAt = std::nullopt;
};

// What an X server may be or claim to be, down to the bytes on its socket. Without outputs it does
// not know the RandR extension, and its one screen is one display.
struct FakeScreen {
  bool highByteFirst = false;
  std::uint8_t depth = 24;
  std::uint8_t bitsPerPixel = 32;
  std::uint8_t scanlinePad = 32;
  std::uint8_t visualClass = 4;  // TrueColor
  std::uint32_t redMask = 0xFF0000;
  std::uint32_t greenMask = 0xFF00;
  std::uint32_t blueMask = 0xFF;
  std::uint16_t width = 2;
  std::uint16_t height = 2;
  std::string image = std::string(16, '\0');  // its scanlines, a multiple of four bytes
  std::optional<std::uint32_t> imageWords = std::nullopt;  // said instead of the image's length
  std::uint32_t imageVisual = 33;  // said with the image; 33 is the screen's
  std::vector<FakeOutput> outputs = {};
  std::size_t primary = 0;         // place of the primary output, counted from 1
  std::uint32_t minorVersion = 6;  // of the extension
  std::vector<Lie> lies = {};
};

// Where it stops answering.
enum class Silence { never, beforeAccepting, beforeWelcome, beforeAnswers, insideImage };
// Where it hangs up.
enum class HangUp { never, beforeWelcome, beforeImage, insideImage };

class FakeXServer {
 public:
  FakeXServer(const std::string& socket, FakeScreen screen, Silence silence = Silence::never,
              HangUp hangUp = HangUp::never);
  ~FakeXServer();
  FakeXServer(const FakeXServer&) = delete;
  FakeXServer& operator=(const FakeXServer&) = delete;

  // What the clients so far have proved themselves with, one behind the other: the name of the
  // method and the data, each padded.
  std::string proofs() const;

 private:
  void serve();
  void serveClient(int client);
  // Keeps a silent client until it goes.
  static void outlast(int client);
  std::string welcome() const;
  // What follows the first eight bytes of a reply, filled up to 24 bytes. Empty for what needs no
  // reply.
  std::string answer(const std::string& request) const;
  std::string windowAnswer(std::uint8_t code) const;
  // The whole answer with the lies that are told in it.
  std::string withLies(Answer answer, std::string whole) const;
  std::string outputsAnswer() const;
  static std::string outputAnswer(const FakeOutput& output, std::uint32_t controller);
  static std::string controllerAnswer(const FakeOutput& output);

  const FakeScreen screen_;
  const Silence silence_;
  const HangUp hangUp_;
  FileDescriptor listener_;
  mutable std::mutex mutex_;
  std::string proofs_;
  std::thread thread_;
};

}  // namespace quillsift::testing
