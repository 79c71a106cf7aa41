#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/linux/EndpointSocket.h"
#include "platform/linux/KernelEventSocket.h"
#include "platform/linux/LinuxKernelPort.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "tests/platform/linux/PrivateEvents.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using namespace std::literals;
using namespace kernelmessage;

// What a handler saw; it can be held up.
class Handler {
 public:
  KernelPort::Handler function() {
    return [this](const KernelMessage& message) {
      entered_.release();
      std::lock_guard<std::mutex> hold(gate);
      const std::lock_guard<std::mutex> lock(mutex_);
      messages_.push_back(message);
      KernelReply reply{};
      setKernelMessageField(reply.data(), kReturnCode,
                            static_cast<std::uint32_t>(messages_.size()));
      handled_.release();
      return reply;
    };
  }
  void waitUntilEntered() { entered_.acquire(); }
  void waitUntilHandled() { handled_.acquire(); }
  std::vector<KernelMessage> messages() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
  }

  std::mutex gate;  // held by a test: the handler waits

 private:
  std::mutex mutex_;
  std::vector<KernelMessage> messages_;
  std::counting_semaphore<> entered_{0};
  std::counting_semaphore<> handled_{0};
};

class LinuxKernelPortTest : public testing::Test {
 protected:
  LinuxKernelPortTest() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    kernel_.reset(ends[1]);
    EXPECT_TRUE(prepareKernelEvents(ends[0]));
    open(FileDescriptor(ends[0]));
  }

  // Opens the port, in place of one that is open.
  void open(FileDescriptor events) {
    port_.reset();
    KernelPortSockets sockets;
    sockets.events = std::move(events);
    QSError error;
    sockets.listener = bindEndpointSocket(path_, &error, SOCK_SEQPACKET);
    EXPECT_TRUE(sockets.listener.valid()) << error.description();
    port_ = std::make_unique<LinuxKernelPort>(std::move(sockets));
    EXPECT_EQ(port_->setQueueLimit(5), 0);
    EXPECT_EQ(port_->resume(queue_, handler_.function()), 0);
  }
  ~LinuxKernelPortTest() override {
    port_.reset();
    queue_->sync([] {});  // what waits still calls the handler
  }

  void sendEvent(const std::string& code) {
    const std::string text = "change@/x\0SYNTH_ARG_QSEVENT="s + code + '\0';
    EXPECT_EQ(::send(kernel_.get(), text.data(), text.size(), 0),
              static_cast<ssize_t>(text.size()));
  }
  FileDescriptor connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    FileDescriptor peer(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(peer.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    return peer;
  }
  static void send(const FileDescriptor& peer, const std::vector<std::uint8_t>& request) {
    EXPECT_EQ(::send(peer.get(), request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
  }
  // The return code; none at the end of the connection.
  static std::optional<std::uint32_t> receive(const FileDescriptor& peer) {
    std::uint8_t reply[64];
    const ssize_t length = ::recv(peer.get(), reply, sizeof(reply), 0);
    if (length <= 0) return std::nullopt;
    EXPECT_EQ(length, 36);
    return kernelMessageField(reply, 36, kReturnCode);
  }

  const ScratchTree scratch_;
  const std::string path_ = scratch_.at("port");
  LinuxWorkQueues queues_;
  const std::shared_ptr<SerialQueue> queue_ =
      queues_.makeSerialQueue("messages", QOSClass::standard);
  Handler handler_;
  FileDescriptor kernel_;  // what is sent here comes from no kernel, and so is foreign
  std::unique_ptr<LinuxKernelPort> port_;
};

TEST_F(LinuxKernelPortTest, MakesARequestOfAnEvent) {
  sendEvent("55");
  handler_.waitUntilHandled();
  const auto messages = handler_.messages();
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0].request, makeKernelRequest(31338, 55));
  EXPECT_EQ(messages[0].trailer.size(), kTrailerLength);
  EXPECT_NE(messages[0].trailer, makeKernelTrailer({}));
}

TEST_F(LinuxKernelPortTest, AnswersARequestAsItWasSent) {
  const FileDescriptor peer = connect();
  for (const std::size_t length : {1U, 35U, 36U}) {
    std::vector<std::uint8_t> request(length, 0x5A);
    send(peer, request);
    const auto code = receive(peer);
    EXPECT_EQ(code, handler_.messages().size());
    EXPECT_EQ(handler_.messages().back().request, request);
  }
  // Whatever else is sent, the trailer is ours.
  send(peer, std::vector<std::uint8_t>(88, 0));
  EXPECT_TRUE(receive(peer));
  const KernelMessage last = handler_.messages().back();
  EXPECT_EQ(last.request.size(), 37U);
  EXPECT_EQ(last.trailer, makeKernelTrailer(foreignToken(static_cast<std::uint32_t>(::getpid()),
                                                         ::getuid(), ::getgid())));
}

TEST_F(LinuxKernelPortTest, LosesEventsAboveTheLimit) {
  {
    const std::lock_guard<std::mutex> hold(handler_.gate);
    sendEvent("1");
    handler_.waitUntilEntered();
    for (int i = 2; i <= 1000; ++i)
      sendEvent(std::to_string(i));
  }
  for (int i = 0; i < 6; ++i)
    handler_.waitUntilHandled();
  const FileDescriptor peer = connect();
  send(peer, {1});
  EXPECT_TRUE(receive(peer));
  const auto messages = handler_.messages();
  EXPECT_LT(messages.size(), 1000U);
  EXPECT_EQ(messages[5].request, makeKernelRequest(31338, 6));
}

TEST_F(LinuxKernelPortTest, OutlivesABurstThatTheSocketCannotHold) {
  auto events = PrivateEvents::make();
  if (!events) GTEST_SKIP() << "needs a network of its own";
  open(std::move(events->receiver));
  {
    const std::lock_guard<std::mutex> hold(handler_.gate);
    for (int i = 0; i < 100000; ++i)
      ASSERT_TRUE(events->send("54"));
  }
  // The service goes on, for others and for the next event.
  const FileDescriptor peer = connect();
  send(peer, {1});
  EXPECT_TRUE(receive(peer));
  const auto isLast = [](const KernelMessage& message) {
    return message.request == makeKernelRequest(31338, 55);
  };
  // One that comes while the six places are taken is lost, as it should be.
  while (std::ranges::none_of(handler_.messages(), isLast)) {
    ASSERT_TRUE(events->send("55"));
    std::this_thread::yield();
  }
  EXPECT_LT(handler_.messages().size(), 100000U);
}

TEST_F(LinuxKernelPortTest, KeepsManySendersWaitingUntilTheyAreAnswered) {
  std::vector<FileDescriptor> peers;
  for (int i = 0; i < 30; ++i)
    peers.push_back(connect());
  {
    const std::lock_guard<std::mutex> hold(handler_.gate);
    for (const FileDescriptor& peer : peers)
      send(peer, {1});
    handler_.waitUntilEntered();
    sendEvent("55");  // the kernel is not crowded out
  }
  for (const FileDescriptor& peer : peers)
    EXPECT_TRUE(receive(peer));
  for (int i = 0; i < 31; ++i)
    handler_.waitUntilHandled();
  EXPECT_EQ(handler_.messages().size(), 31U);
}

TEST_F(LinuxKernelPortTest, HangsUpOnOneTooMany) {
  std::vector<FileDescriptor> peers;
  for (int i = 0; i < 32; ++i)
    peers.push_back(connect());
  const FileDescriptor last = connect();
  EXPECT_EQ(receive(last), std::nullopt);
  peers.clear();
  // The places become free as the ends are noticed.
  for (;;) {
    const FileDescriptor peer = connect();
    const std::uint8_t byte = 1;
    if (::send(peer.get(), &byte, 1, MSG_NOSIGNAL) == 1 && receive(peer)) break;
  }
}

TEST_F(LinuxKernelPortTest, ACrowdAtTheDoorDoesNotKeepTheKernelWaiting) {
  std::vector<FileDescriptor> peers;
  for (int i = 0; i < 32; ++i)
    peers.push_back(connect());
  std::atomic<bool> handled = false;
  std::vector<std::thread> crowd;
  for (int i = 0; i < 4; ++i) {
    crowd.emplace_back([&] {
      while (!handled)
        connect();  // and away again
    });
  }
  for (int i = 0; i < 20; ++i) {
    sendEvent("55");
    handler_.waitUntilHandled();
  }
  handled = true;
  for (std::thread& thread : crowd)
    thread.join();
  EXPECT_EQ(handler_.messages().size(), 20U);
}

TEST_F(LinuxKernelPortTest, ASenderThatIsGoneOrNeverReadsHurtsNobody) {
  {
    const std::lock_guard<std::mutex> hold(handler_.gate);
    const FileDescriptor gone = connect();
    send(gone, {1});
    handler_.waitUntilEntered();
  }
  const FileDescriptor silent = connect();
  for (int i = 0; i < 2000; ++i) {
    const std::uint8_t byte = 1;
    if (::send(silent.get(), &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) break;
  }
  const FileDescriptor peer = connect();
  send(peer, {1});
  EXPECT_TRUE(receive(peer));
}

TEST_F(LinuxKernelPortTest, CanBeDroppedWhileAMessageIsHandled) {
  const FileDescriptor peer = connect();
  {
    const std::lock_guard<std::mutex> hold(handler_.gate);
    send(peer, {1});
    handler_.waitUntilEntered();
    port_.reset();
  }
  handler_.waitUntilHandled();
  queue_->sync([] {});
}

}  // namespace
}  // namespace quillsift
