#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/FileDescriptor.h"
#include "platform/WireValue.h"

namespace quillsift {

// A file that a remote device sends.
class RemoteFileTransfer {
 public:
  // `error` is 0 or an errno value.
  using Completion = std::function<void(int error)>;

  virtual ~RemoteFileTransfer() = default;

  // Writes the file into `destination`, which it takes over, on a thread of its own: calls
  // `completion` exactly once, then closes the descriptor. Returns at once. ECANCELED when the
  // connection has been cancelled, EBADF for an invalid descriptor or a second call, EPIPE when
  // nobody reads any more.
  virtual void writeTo(FileDescriptor destination, Completion completion) = 0;
};

// One message of a remote device: values by key, and the files among them.
struct RemoteDictionary {
  WireDictionary values;
  std::map<std::string, std::shared_ptr<RemoteFileTransfer>> files;

  // On one line, as `{ "RESPONSE_TYPE": 1, "FILE_NAME": "a.tar.gz", "FILE_TX": <file transfer> }`,
  // values first, with control characters replaced and cut to a length that suits a log.
  std::string description() const;
};

struct RemoteEvent {
  enum class Kind { dictionary, error, other };

  Kind kind = Kind::other;
  RemoteDictionary dictionary;  // of a dictionary
  std::string text;             // an error's description, or the name of another event's type
};

// A connection to a service of a remote device. What an implementation promises:
// - events are delivered in order, one at a time, on the queue that it was made with, after
//   activate; nothing comes after an error event, and none is begun after cancel;
// - a device that sends faster than events are handled is not read from;
// - no call waits for the device or for the queue.
class RemoteConnection {
 public:
  using EventHandler = std::function<void(const RemoteEvent& event)>;

  virtual ~RemoteConnection() = default;  // cancels

  // Before activate, which is called once.
  virtual void setEventHandler(EventHandler handler) = 0;
  virtual void activate() = 0;
  // Queues the message. What the device does not take is told by an error event, if at all.
  virtual void send(const RemoteDictionary& message) = 0;
  // Ends the connection and every transfer that came over it.
  virtual void cancel() = 0;
};

}  // namespace quillsift
