#include "tests/platform/linux/FakeXServer.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "platform/linux/LittleEndian.h"

namespace quillsift::testing {

namespace {

constexpr std::uint32_t kRoot = 17;
constexpr std::uint32_t kVisual = 33;
constexpr std::uint8_t kGetAttributes = 3;
constexpr std::uint8_t kGetGeometry = 14;
constexpr std::uint8_t kGetChildren = 15;
constexpr std::uint8_t kGetProperty = 20;
constexpr std::uint8_t kGetImage = 73;
constexpr std::uint8_t kQueryExtension = 98;
constexpr std::uint8_t kExtension = 140;
constexpr std::uint32_t kFirstOutput = 60;
constexpr std::uint32_t kFirstController = 80;
enum ExtensionRequest : std::uint8_t {
  kQueryVersion = 0,
  kOutputInfo = 9,
  kControllerInfo = 20,
  kCurrentResources = 25,
  kPrimaryOutput = 31
};

template <typename Number>
void put(std::string* bytes, Number number) {
  bytes->append(reinterpret_cast<const char*>(&number), sizeof(number));
}
void pad(std::string* bytes, std::size_t count) {
  bytes->append(count, '\0');
}

bool receive(int client, std::string* bytes, std::size_t length) {
  bytes->resize(length);
  return length == 0 ||
         ::recv(client, bytes->data(), length, MSG_WAITALL) == static_cast<ssize_t>(length);
}
void send(int client, const std::string& bytes) {
  (void)::send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

template <typename Number>
Number numberAt(std::string_view bytes, std::size_t place) {
  return static_cast<Number>(littleEndianNumber(bytes.substr(place, sizeof(Number))));
}

std::size_t wholeWords(std::size_t length) {
  return (length + 3) / 4 * 4;
}

Answer answerTo(const std::string& request) {
  switch (static_cast<std::uint8_t>(request[0])) {
    case kGetAttributes:
      return Answer::attributes;
    case kGetGeometry:
      return Answer::geometry;
    case kGetChildren:
      return Answer::children;
    case kGetProperty:
      return Answer::property;
    case kExtension:
      break;
    default:
      return Answer::others;
  }
  switch (static_cast<std::uint8_t>(request[1])) {
    case kOutputInfo:
      return Answer::output;
    case kControllerInfo:
      return Answer::controller;
    case kCurrentResources:
      return Answer::outputs;
    case kPrimaryOutput:
      return Answer::primaryOutput;
    default:
      return Answer::others;
  }
}

// Shortens the bytes, and what they say of their own length.
void cut(Answer answer, std::size_t length, std::string* whole) {
  whole->resize(length);
  std::string words;
  if (answer == Answer::welcome) {
    put(&words, static_cast<std::uint16_t>((length - 8) / 4));
    whole->replace(6, words.size(), words);
  } else {
    put(&words, static_cast<std::uint32_t>((length - 32) / 4));
    whole->replace(4, words.size(), words);
  }
}

}  // namespace

FakeXServer::FakeXServer(const std::string& socket, FakeScreen screen, Silence silence,
                         HangUp hangUp)
    : screen_(std::move(screen)),
      silence_(silence),
      hangUp_(hangUp),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket.c_str(), sizeof(address.sun_path) - 1);
  if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener_.get(), silence == Silence::beforeAccepting ? 0 : 8) != 0) {
    std::perror(socket.c_str());
    std::abort();
  }
  if (silence != Silence::beforeAccepting) thread_ = std::thread([this] { serve(); });
}

FakeXServer::~FakeXServer() {
  (void)::shutdown(listener_.get(), SHUT_RDWR);  // ends the accept
  if (thread_.joinable()) thread_.join();
}

std::string FakeXServer::proofs() const {
  const std::lock_guard lock(mutex_);
  return proofs_;
}

void FakeXServer::serve() {
  for (;;) {
    const FileDescriptor client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.valid()) return;
    serveClient(client.get());
  }
}

void FakeXServer::outlast(int client) {
  char byte = 0;
  while (::recv(client, &byte, 1, 0) > 0) {
  }
}

void FakeXServer::serveClient(int client) {
  std::string bytes;
  if (!receive(client, &bytes, 12)) return;
  const std::size_t proof =
      wholeWords(numberAt<std::uint16_t>(bytes, 6)) + wholeWords(numberAt<std::uint16_t>(bytes, 8));
  if (!receive(client, &bytes, proof)) return;
  {
    const std::lock_guard lock(mutex_);
    proofs_ += bytes;
  }
  if (hangUp_ == HangUp::beforeWelcome) return;
  if (silence_ == Silence::beforeWelcome) return outlast(client);
  send(client, withLies(Answer::welcome, welcome()));
  for (std::uint16_t sequence = 1; receive(client, &bytes, 4); ++sequence) {
    std::string rest;
    if (!receive(client, &rest, std::size_t{4} * numberAt<std::uint16_t>(bytes, 2) - 4)) return;
    if (silence_ == Silence::beforeAnswers) return outlast(client);
    const bool isImage = static_cast<std::uint8_t>(bytes[0]) == kGetImage;
    if (isImage && hangUp_ == HangUp::beforeImage) return;
    const Answer kind = answerTo(bytes + rest);
    std::string body = answer(bytes + rest);
    if (body.empty()) continue;
    constexpr char kBitsOfText = 8;
    std::string reply = {1,
                         kind == Answer::property ? kBitsOfText : static_cast<char>(screen_.depth)};
    put(&reply, sequence);
    const auto words = static_cast<std::uint32_t>((body.size() - 24) / 4);
    put(&reply, isImage ? screen_.imageWords.value_or(words) : words);
    reply = withLies(kind, reply + body);
    const bool isCut =
        isImage && (hangUp_ == HangUp::insideImage || silence_ == Silence::insideImage);
    send(client, isCut ? reply.substr(0, 34) : reply);
    if (isCut && silence_ == Silence::insideImage) return outlast(client);
    if (isCut) return;
  }
}

std::string FakeXServer::answer(const std::string& request) const {
  std::string body;
  const auto code = static_cast<std::uint8_t>(request[0]);
  if (code < kGetImage) {
    body = windowAnswer(code);
  } else if (code == kQueryExtension) {
    body += {static_cast<char>(screen_.outputs.empty() ? 0 : 1), static_cast<char>(kExtension)};
  } else if (code == kGetImage) {
    put(&body, screen_.imageVisual);
    pad(&body, 20);
    body += screen_.image;
  } else if (code == kExtension) {
    const auto detail = static_cast<std::uint8_t>(request[1]);
    const auto object = numberAt<std::uint32_t>(request, 4);
    if (detail == kQueryVersion) {
      put<std::uint32_t>(&body, 1);
      put(&body, screen_.minorVersion);
    } else if (detail == kCurrentResources) {
      body = outputsAnswer();
    } else if (detail == kPrimaryOutput) {
      const auto place = static_cast<std::uint32_t>(screen_.primary);
      put<std::uint32_t>(&body, place == 0 ? 0 : kFirstOutput + place - 1);
    } else if (detail == kOutputInfo) {
      const std::uint32_t index = object - kFirstOutput;
      body = outputAnswer(screen_.outputs.at(index), kFirstController + index);
    } else if (detail == kControllerInfo) {
      body = controllerAnswer(screen_.outputs.at(object - kFirstController));
    }
  }
  if (!body.empty() && body.size() < 24) pad(&body, 24 - body.size());
  return body;
}

// Of the root window, which has a class and nothing in it.
std::string FakeXServer::windowAnswer(std::uint8_t code) const {
  std::string body;
  if (code == kGetAttributes) {
    pad(&body, 36);  // among others: not mapped
  } else if (code == kGetGeometry) {
    put(&body, kRoot);
    pad(&body, 4);  // its place
    put(&body, screen_.width);
    put(&body, screen_.height);
  } else if (code == kGetChildren) {
    put(&body, kRoot);
    pad(&body, 20);
  } else if (code == kGetProperty) {
    const std::string names("fake\0Fake\0", 10);
    pad(&body, 8);
    put(&body, static_cast<std::uint32_t>(names.size()));
    pad(&body, 12);
    body += names;
    pad(&body, wholeWords(body.size()) - body.size());
  }
  return body;
}

std::string FakeXServer::withLies(Answer answer, std::string whole) const {
  for (const Lie& lie : screen_.lies) {
    if (lie.answer != answer) continue;
    whole.replace(lie.offset, lie.bytes.size(), lie.bytes);
    if (lie.cutAt) cut(answer, *lie.cutAt, &whole);
  }
  return whole;
}

std::string FakeXServer::outputsAnswer() const {
  std::string body;
  pad(&body, 8);                 // times
  put<std::uint16_t>(&body, 0);  // controllers, which nobody asks for here
  put(&body, static_cast<std::uint16_t>(screen_.outputs.size()));
  pad(&body, 12);
  for (std::uint32_t i = 0; i < screen_.outputs.size(); ++i)
    put(&body, kFirstOutput + i);
  return body;
}

std::string FakeXServer::outputAnswer(const FakeOutput& output, std::uint32_t controller) {
  std::string body;
  pad(&body, 4);
  put(&body, output.hasController ? controller : 0);
  pad(&body, 18);  // size in millimetres, connection, lists that are empty
  put(&body, static_cast<std::uint16_t>(output.name.size()));
  body += output.name;
  pad(&body, wholeWords(body.size()) - body.size());
  return body;
}

std::string FakeXServer::controllerAnswer(const FakeOutput& output) {
  std::string body;
  pad(&body, 4);
  put(&body, output.x);
  put(&body, output.y);
  put(&body, output.width);
  put(&body, output.height);
  put(&body, output.mode);
  return body;
}

std::string FakeXServer::welcome() const {
  std::string body;
  put<std::uint32_t>(&body, 1);         // release
  put<std::uint32_t>(&body, 0x200000);  // first identifier of the client
  put<std::uint32_t>(&body, 0x1FFFFF);
  put<std::uint32_t>(&body, 0);
  put<std::uint16_t>(&body, 0);  // length of the vendor's name
  put<std::uint16_t>(&body, 0xFFFF);
  body += {1, 1};  // one screen, one format
  body += static_cast<char>(screen_.highByteFirst ? 1 : 0);
  body += {0, 32, 32, 8, static_cast<char>(255)};
  pad(&body, 4);

  body += {static_cast<char>(screen_.depth), static_cast<char>(screen_.bitsPerPixel),
           static_cast<char>(screen_.scanlinePad)};
  pad(&body, 5);

  put<std::uint32_t>(&body, kRoot);
  pad(&body, 16);  // colour map, white, black, input masks
  put<std::uint16_t>(&body, screen_.width);
  put<std::uint16_t>(&body, screen_.height);
  pad(&body, 8);
  put<std::uint32_t>(&body, kVisual);
  body += {0, 0, static_cast<char>(screen_.depth), 1};

  body += {static_cast<char>(screen_.depth), 0};
  put<std::uint16_t>(&body, 1);  // one visual
  pad(&body, 4);
  put<std::uint32_t>(&body, kVisual);
  body += {static_cast<char>(screen_.visualClass), 8};
  put<std::uint16_t>(&body, 256);
  put<std::uint32_t>(&body, screen_.redMask);
  put<std::uint32_t>(&body, screen_.greenMask);
  put<std::uint32_t>(&body, screen_.blueMask);
  pad(&body, 4);

  std::string head = {1, 0};
  put<std::uint16_t>(&head, 11);
  put<std::uint16_t>(&head, 0);
  put<std::uint16_t>(&head, static_cast<std::uint16_t>(body.size() / 4));
  return head + body;
}

}  // namespace quillsift::testing
