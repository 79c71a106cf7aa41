#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/FileDescriptor.h"
#include "tests/doubles/RawBusMessage.h"

namespace quillsift {

// A connection as a device has it, which may say whatever it likes.
class RawDevicePeer {
 public:
  explicit RawDevicePeer(FileDescriptor socket) : socket_(std::move(socket)) {}

  struct Message {
    std::uint8_t kind = 0;
    std::uint32_t serial = 0;
    std::string header;
    std::string body;
  };

  // Each is false, or nothing, at the end of the connection.
  bool shakeHands();
  // Takes the next question and says that the service is offered, or not.
  bool offer(bool yes = true);
  std::optional<Message> next();
  bool write(const std::string& bytes, const std::vector<int>& descriptors = {});
  // A message of the service with this body.
  bool send(const std::string& body, const std::vector<int>& descriptors = {});
  bool answer(std::uint32_t serial, const std::string& signature, const std::string& body);
  // Whether some more can be written, within this time.
  bool isReadWithin(std::chrono::milliseconds limit) const;
  void waitForTheEnd();
  void hangUp() const;

 private:
  bool fill();
  std::optional<std::string> take(std::size_t count);

  const FileDescriptor socket_;
  std::string received_;
};

// A device behind a socket at `path`, each connection a thread that runs `behaviour`.
class RawDevice {
 public:
  using Behaviour = std::function<void(RawDevicePeer& peer)>;

  RawDevice(const std::string& path, Behaviour behaviour);
  ~RawDevice();  // hangs up
  RawDevice(const RawDevice&) = delete;
  RawDevice& operator=(const RawDevice&) = delete;

  std::size_t connections();

 private:
  void accept();

  const Behaviour behaviour_;
  FileDescriptor listener_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<RawDevicePeer>> peers_;
  std::vector<std::thread> threads_;
  std::thread acceptor_;
};

// A socket at `path` that is listened on, or only bound.
FileDescriptor bindDeviceSocket(const std::string& path, bool listening = true);

}  // namespace quillsift
