#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/FileDescriptor.h"
#include "platform/linux/BusPointers.h"
#include "platform/linux/IncomingBytes.h"
#include "platform/linux/PeerHandshake.h"

namespace asio {
class io_context;
}

namespace quillsift {

// The side of a channel that knows what is said on it. All on the service thread.
class BusChannelOwner {
 public:
  enum class Fed { nothing, message, refused };

  virtual ~BusChannelOwner() = default;

  // Puts the objects that the peer sees on a bus not yet started. 0 or a negative errno value.
  virtual int exportObjects(sd_bus* bus) = 0;
  // Whether one more message of the peer may be read.
  virtual bool mayRead() const = 0;
  // Called when nothing is on its way to the peer any more: hands the next message to the bus.
  // `refused` when the bus is no longer there to take it.
  virtual Fed feed(sd_bus* bus) = 0;
  // The channel has closed itself. Interrupted when that was not in good order.
  virtual void channelEnded(bool interrupted) = 0;
};

// What a channel needs beside the connected peer: a pair of local sockets. Made before a peer is
// accepted, so that none is accepted whom we then could not serve.
struct ChannelSockets {
  FileDescriptor peer;
  FileDescriptor feed;     // what is written here,
  FileDescriptor library;  // the bus library reads here

  // Makes the pair; false and errno when the system has none.
  bool makePair();
};

// One peer on a connected socket, spoken to with the bus library. The library writes to the peer
// itself, but it reads from a local socket into which the channel puts what the peer has sent, one
// whole message at a time: on its own it would allocate whatever a message announces, drop some
// malformed messages without a word, read on when it should wait, and report a peer that left half
// a message behind like one that closed in good order.
//
// Outwards, at most one message of the owner is in the library's hands at a time, because the
// library would queue any number without counting bytes.
//
// Everything here, destruction included, happens on the service thread (or after it has ended).
// Its waits keep the channel, and the channel its owner, alive until close.
class BusChannel : public std::enable_shared_from_this<BusChannel> {
 public:
  struct Limits {
    std::size_t messageBytes;
    // Answers of the library's own (introspection, unknown methods) that the peer has not read,
    // before we stop reading from it.
    std::size_t queuedAnswers;
    std::chrono::milliseconds handshake;
  };

  // `peer` is the user that the kernel says the other end is.
  BusChannel(asio::io_context& context, const Limits& limits, uid_t peer,
             std::shared_ptr<BusChannelOwner> owner);
  ~BusChannel();
  BusChannel(const BusChannel&) = delete;
  BusChannel& operator=(const BusChannel&) = delete;

  // Starts the handshake. Failure ends the channel like everything later.
  void open(ChannelSockets sockets);
  // Does what can be done now, and waits for the rest. To be called when there is something new to
  // feed, or when reading has become possible again.
  void pump();
  // Ends the channel without a word. A second call does nothing.
  void close();

 private:
  struct Waits;

  int setUpBus(ChannelSockets* sockets);
  int start(ChannelSockets sockets);
  void limitHandshake();
  bool step();
  bool read();
  bool receive();
  bool shakeHands(std::string_view line);
  bool dispatch(std::string_view message);
  bool passToLibrary(std::string_view bytes);
  bool write();
  bool hasHungUp() const;
  bool mayRead() const;
  std::uint64_t queuedAnswers() const;
  void waitForSocket();
  int process();
  bool fail(int result);
  bool finish(bool interrupted);

  asio::io_context& context_;
  const Limits limits_;
  std::shared_ptr<BusChannelOwner> owner_;
  PeerHandshake handshake_;
  IncomingBytes incoming_;
  int socket_ = -1;  // the peer; owned by the bus
  FileDescriptor feed_;
  BusPointer bus_;
  std::unique_ptr<Waits> waits_;
  bool ready_ = false;     // the handshake is over
  int seen_ = 0;           // messages that the library has made of what it was given last
  bool writable_ = false;  // the socket has become writable since the last attempt
};

}  // namespace quillsift
