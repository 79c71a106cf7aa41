#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/linux/LinuxRemoteDevices.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "tests/platform/linux/Gate.h"
#include "tests/platform/linux/RawDevice.h"
#include "tests/platform/linux/ResourceLimit.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

constexpr const char* kService = "io.vantor.omnitrawl.remote";
// For a device to answer in, on however busy a machine.
constexpr std::chrono::seconds kLongEnough{60};

std::string messageOfError(int error) {
  return std::generic_category().message(error);
}

// What a handler saw.
class Events {
 public:
  RemoteConnection::EventHandler handler() {
    return [this](const RemoteEvent& event) {
      const std::lock_guard<std::mutex> lock(mutex_);
      events_.push_back(event);
      changed_.notify_all();
    };
  }
  RemoteEvent waitFor(std::size_t index) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return events_.size() > index; });
    return events_[index];
  }
  std::size_t count() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return events_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<RemoteEvent> events_;
};

class LinuxRemoteConnectionTest : public testing::Test {
 protected:
  ~LinuxRemoteConnectionTest() override { disconnect(); }

  // At the latest when what a device or a handler uses goes with its test.
  void disconnect() {
    connection_.reset();
    raw_.reset();
    queue_->sync([] {});
  }

  // Connects to a device that does this once it has offered its service.
  void connect(RawDevice::Behaviour behaviour) {
    raw_ = std::make_unique<RawDevice>(directory_ + "/corvane0",
                                       [behaviour = std::move(behaviour)](RawDevicePeer& peer) {
                                         if (peer.shakeHands() && peer.offer()) behaviour(peer);
                                       });
    const auto device =
        LinuxRemoteDevices(scratch_.tree(), kLongEnough).uniqueDevice(kRemoteDeviceType);
    ASSERT_NE(device, nullptr);
    service_ = device->service(kService);
    ASSERT_NE(service_, nullptr);
    connection_ = service_->makeConnection(queue_);
    ASSERT_NE(connection_, nullptr);
  }
  void activate() { activate(events_.handler()); }
  void activate(RemoteConnection::EventHandler handler) {
    connection_->setEventHandler(std::move(handler));
    connection_->activate();
  }
  // What comes of a device that sends these bytes and then stays.
  RemoteEvent eventOf(const std::string& bytes, const std::vector<int>& descriptors = {}) {
    connect([=](RawDevicePeer& peer) {
      peer.write(bytes, descriptors);
      peer.waitForTheEnd();
    });
    activate();
    return events_.waitFor(0);
  }
  RemoteEvent eventOfBody(const std::string& body) { return eventOf(messageWith(body).bytes()); }

  static RawBusMessage messageWith(const std::string& body) {
    return {.path = "/io/vantor/omnitrawl/remote",
            .interface = kService,
            .member = "Message",
            .signature = "a{sv}",
            .body = body};
  }
  static std::string numbered(std::uint64_t number) {
    return messageWith(rawDictionary({{"n", "t", rawNumber(number)}})).bytes();
  }

  const ScratchTree scratch_;
  const std::string directory_ = scratch_.makeDirectory(kRemoteDevicesDirectory);
  LinuxWorkQueues queues_;
  const std::shared_ptr<SerialQueue> queue_ = queues_.makeSerialQueue("events", QOSClass::standard);
  Events events_;
  std::unique_ptr<RawDevice> raw_;
  std::shared_ptr<RemoteDeviceService> service_;
  std::shared_ptr<RemoteConnection> connection_;
};

TEST_F(LinuxRemoteConnectionTest, CarriesAMessageEachWay) {
  std::string asked;
  std::latch done(1);
  connect([&](RawDevicePeer& peer) {
    const auto request = peer.next();
    if (request) asked = request->body;
    done.count_down();
    peer.send(rawDictionary({{"RESPONSE_TYPE", "t", rawNumber(2)}, {"TEXT", "s", rawText("a")}}));
    peer.waitForTheEnd();
  });
  activate();
  RemoteDictionary request;
  request.values.insert_or_assign("REQUEST_TYPE", WireValue(std::uint64_t{1}));
  connection_->send(request);
  const RemoteEvent event = events_.waitFor(0);
  EXPECT_EQ(event.kind, RemoteEvent::Kind::dictionary);
  EXPECT_EQ(event.dictionary.description(), "{ \"RESPONSE_TYPE\": 2, \"TEXT\": \"a\" }");
  done.wait();
  EXPECT_EQ(asked, rawDictionary({{"REQUEST_TYPE", "t", rawNumber(1)}}));
}

TEST_F(LinuxRemoteConnectionTest, HandsOverAFile) {
  const FileDescriptor file(::memfd_create("archive", MFD_CLOEXEC));
  const auto event =
      eventOf(RawBusMessage{.path = "/",
                            .interface = kService,
                            .member = "Message",
                            .signature = "a{sv}",
                            .descriptors = 1,
                            .body = rawDictionary({{"FILE_TX", "h", rawNumber(0, 4)}})}
                  .bytes(),
              {file.get()});
  ASSERT_EQ(event.kind, RemoteEvent::Kind::dictionary);
  EXPECT_EQ(event.dictionary.files.count("FILE_TX"), 1U);
}

TEST_F(LinuxRemoteConnectionTest, DoesNotReadAFloodBeforeItIsHandled) {
  constexpr std::uint64_t kMessages = 3000;
  const std::string text(20000, 'x');
  Gate gate;
  std::uint64_t writtenBefore = 0;
  connect([&](RawDevicePeer& peer) {
    for (std::uint64_t sent = 0; sent < kMessages; ++sent) {
      if (!gate.isOpen() && !peer.isReadWithin(std::chrono::milliseconds(300))) {
        writtenBefore = sent;
        gate.open();
      }
      peer.send(rawDictionary({{"n", "t", rawNumber(sent)}, {"text", "s", rawText(text)}}));
    }
    if (!gate.isOpen()) gate.open();
    peer.waitForTheEnd();
  });
  activate([&, keep = events_.handler()](const RemoteEvent& event) {
    gate.pass();
    keep(event);
  });
  for (std::uint64_t i = 0; i < kMessages; ++i)
    EXPECT_EQ(events_.waitFor(i).dictionary.values.at("n"), WireValue(i));
  disconnect();
  EXPECT_GT(writtenBefore, 0U);
  EXPECT_LT(writtenBefore, 100U);  // sixteen, and what the socket holds
}

TEST_F(LinuxRemoteConnectionTest, TellsOfOtherMessagesOfTheInterfaceByTheirName) {
  RawBusMessage message = messageWith(rawText("a"));
  message.signature = "s";
  EXPECT_EQ(eventOf(message.bytes()).text, "Message(s)");
}

TEST_F(LinuxRemoteConnectionTest, HearsNothingOfOtherInterfaces) {
  RawBusMessage other = messageWith(rawDictionary({}));
  other.interface = "io.vantor.other";
  const RemoteEvent event = eventOf(other.bytes() + numbered(7));
  ASSERT_EQ(event.kind, RemoteEvent::Kind::dictionary);
  EXPECT_EQ(event.dictionary.values.at("n"), WireValue(std::uint64_t{7}));
}

TEST_F(LinuxRemoteConnectionTest, EndsWithTooManyKeys) {
  EXPECT_EQ(eventOfBody(rawDictionary(std::vector<RawEntry>(257, {"k", "t", rawNumber(1)}))).text,
            messageOfError(EMSGSIZE));
}

TEST_F(LinuxRemoteConnectionTest, EndsWithTooMuchText) {
  EXPECT_EQ(eventOfBody(rawDictionary({{"k", "s", rawText(std::string(65536, 'x'))}})).text,
            messageOfError(EMSGSIZE));
}

TEST_F(LinuxRemoteConnectionTest, SaysNothingAfterTheEnd) {
  const RemoteEvent event =
      eventOf(messageWith(rawDictionary({{"k", "s", rawText(std::string(65536, 'x'))}})).bytes() +
              numbered(1));
  EXPECT_EQ(event.kind, RemoteEvent::Kind::error);
  connection_.reset();
  raw_.reset();  // the connection has been closed by now, or is
  queue_->sync([] {});
  EXPECT_EQ(events_.count(), 1U);
}

TEST_F(LinuxRemoteConnectionTest, EndsWhenItsAnswersAreNotRead) {
  connect([](RawDevicePeer& peer) {
    const std::string question = RawBusMessage{.kind = RawBusMessage::call,
                                               .path = "/",
                                               .interface = "org.freedesktop.DBus.Peer",
                                               .member = "GetMachineId"}
                                     .bytes();
    while (peer.write(question)) {
    }
  });
  activate();
  EXPECT_EQ(events_.waitFor(0).text, messageOfError(ENOBUFS));
}

TEST_F(LinuxRemoteConnectionTest, EndsWhenThereIsNoDescriptorForAFile) {
  const FileDescriptor file(::memfd_create("archive", MFD_CLOEXEC));
  Gate gate;
  connect([&](RawDevicePeer& peer) {
    gate.pass();
    peer.send(rawDictionary({{"FILE_TX", "h", rawNumber(0, 4)}}), {file.get()});
    peer.waitForTheEnd();
  });
  activate();
  {
    const DescriptorShortage shortage(0);
    gate.open();
    EXPECT_EQ(events_.waitFor(0).kind, RemoteEvent::Kind::error);
  }
  disconnect();
}

TEST_F(LinuxRemoteConnectionTest, IsNotMadeWithoutDescriptors) {
  connect([](RawDevicePeer& peer) { peer.waitForTheEnd(); });
  const auto device =
      LinuxRemoteDevices(scratch_.tree(), kLongEnough).uniqueDevice(kRemoteDeviceType);
  const auto service = device->service(kService);
  ASSERT_NE(service, nullptr);
  const DescriptorShortage shortage(0);
  EXPECT_EQ(service->makeConnection(queue_), nullptr);
}

TEST_F(LinuxRemoteConnectionTest, KeepsNoDescriptorThatNobodyAskedFor) {
  const FileDescriptor file(::memfd_create("archive", MFD_CLOEXEC));
  connect([&](RawDevicePeer& peer) {
    for (int i = 0; i < 20; ++i) {
      RawBusMessage message = messageWith(rawDictionary({{"n", "t", rawNumber(1)}}));
      message.descriptors = 200;
      peer.write(message.bytes(), std::vector<int>(200, file.get()));
    }
    peer.write(numbered(2));
    peer.waitForTheEnd();
  });
  const std::size_t before = openDescriptors();
  activate();
  EXPECT_EQ(events_.waitFor(20).kind, RemoteEvent::Kind::dictionary);
  EXPECT_LT(openDescriptors(), before + 100);
  disconnect();
}

TEST_F(LinuxRemoteConnectionTest, EndsWithADeviceThatLeavesAtOnce) {
  connect([](RawDevicePeer&) {});
  activate();
  EXPECT_EQ(events_.waitFor(0).kind, RemoteEvent::Kind::error);
}

TEST_F(LinuxRemoteConnectionTest, EndsWithADeviceThatLeavesInTheMiddleOfAMessage) {
  const std::string bytes = numbered(1);
  connect([bytes](RawDevicePeer& peer) { peer.write(bytes.substr(0, bytes.size() - 1)); });
  activate();
  EXPECT_EQ(events_.waitFor(0).kind, RemoteEvent::Kind::error);
}

TEST_F(LinuxRemoteConnectionTest, DeliversWhatADeviceSaidBeforeItLeft) {
  connect([](RawDevicePeer& peer) { peer.write(numbered(1) + numbered(2)); });
  activate();
  EXPECT_EQ(events_.waitFor(1).dictionary.values.at("n"), WireValue(std::uint64_t{2}));
  EXPECT_EQ(events_.waitFor(2).kind, RemoteEvent::Kind::error);
}

TEST_F(LinuxRemoteConnectionTest, BeginsNoEventAfterItIsCancelled) {
  Gate sent;
  connect([&](RawDevicePeer& peer) {
    for (int i = 0; i < 8; ++i)
      peer.write(numbered(1));
    sent.open();
    peer.waitForTheEnd();
  });
  activate([&, keep = events_.handler()](const RemoteEvent& event) {
    sent.pass();
    connection_->cancel();
    keep(event);
  });
  EXPECT_EQ(events_.waitFor(0).kind, RemoteEvent::Kind::dictionary);
  raw_.reset();  // joins a device that waits for the end
  queue_->sync([] {});
  EXPECT_EQ(events_.count(), 1U);
}

TEST_F(LinuxRemoteConnectionTest, MayBeDroppedByItsOwnHandler) {
  connect([](RawDevicePeer& peer) {
    peer.write(numbered(1));
    peer.waitForTheEnd();
  });
  std::latch dropped(1);
  activate([&](const RemoteEvent&) {
    connection_.reset();
    dropped.count_down();
  });
  dropped.wait();
  disconnect();
}

TEST_F(LinuxRemoteConnectionTest, MayBeCancelledAtAnyMoment) {
  for (int round = 0; round < 50; ++round) {
    connect([round](RawDevicePeer& peer) {
      for (int i = 0; i < round; ++i)
        peer.write(numbered(1));
      if (round % 2 == 0) peer.waitForTheEnd();
    });
    activate();
    connection_->send({});
    connection_->cancel();
    connection_.reset();
    service_.reset();
    raw_.reset();
    std::filesystem::remove(directory_ + "/corvane0");
  }
}

struct BadBytes {
  const char* name;
  std::string bytes;
};

class BadMessageTest : public LinuxRemoteConnectionTest,
                       public testing::WithParamInterface<BadBytes> {
 public:
  static std::string withBody(const std::string& body) { return messageWith(body).bytes(); }
  static std::string changed(std::size_t offset, char value) {
    std::string bytes = withBody(rawDictionary({{"key", "s", rawText("text")}}));
    bytes[offset] = value;
    return bytes;
  }
  static std::string claiming(std::uint32_t length) {
    RawBusMessage message = messageWith("");
    message.claimedLength = length;
    return message.bytes();
  }
};

TEST_P(BadMessageTest, IsNotDelivered) {
  // The library passes some over, and others end the connection; at the latest this end does.
  connect([](RawDevicePeer& peer) { peer.write(GetParam().bytes); });
  activate();
  const RemoteEvent event = events_.waitFor(0);
  EXPECT_EQ(event.kind, RemoteEvent::Kind::error);
  EXPECT_FALSE(event.text.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Messages, BadMessageTest,
    testing::Values(
        BadBytes{"NoMessage", std::string(64, '\xFF')}, BadBytes{"Zeros", std::string(64, '\0')},
        BadBytes{"ByteOrder", BadMessageTest::changed(0, 'X')},
        BadBytes{"Version", BadMessageTest::changed(3, 9)},
        BadBytes{"Serial", BadMessageTest::changed(8, 0)},
        BadBytes{"HugeBody", BadMessageTest::claiming(0x7FFFFFF0)},
        BadBytes{"LargestBody", BadMessageTest::claiming(0xFFFFFFFF)},
        BadBytes{"TextThatIsNoText",
                 BadMessageTest::withBody(rawDictionary({{"k", "s", rawText("\xFF\xFE")}}))},
        BadBytes{"KeyThatIsNoText",
                 BadMessageTest::withBody(rawDictionary({{"\xFF", "t", rawNumber(1)}}))},
        BadBytes{
            "TextWithNul",
            BadMessageTest::withBody(rawDictionary({{"k", "s", rawText(std::string("a\0b", 3))}}))},
        BadBytes{"TextThatHasNoEnd",
                 BadMessageTest::withBody(rawDictionary({{"k", "s", rawNumber(1000, 4) + "abc"}}))},
        BadBytes{"TypeThatIsNone", BadMessageTest::withBody(rawDictionary({{"k", "z", "a"}}))},
        BadBytes{
            "TwoTypes",
            BadMessageTest::withBody(rawDictionary({{"k", "tt", rawNumber(1) + rawNumber(1)}}))},
        BadBytes{"FileThatIsNotThere",
                 BadMessageTest::withBody(rawDictionary({{"k", "h", rawNumber(0, 4)}}))},
        BadBytes{"LengthBeyondTheEnd", BadMessageTest::withBody(rawNumber(1000, 8))},
        BadBytes{"NothingAtAll", BadMessageTest::withBody("")}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace quillsift
