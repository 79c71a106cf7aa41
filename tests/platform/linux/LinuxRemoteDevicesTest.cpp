#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "platform/linux/LinuxRemoteDevices.h"
#include "platform/linux/RemotePropertyReader.h"
#include "tests/platform/linux/RawDevice.h"
#include "tests/platform/linux/ResourceLimit.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uid_t kSomebody = 65534;
constexpr const char* kService = "io.vantor.omnitrawl.remote";
// A device may take its time, and so may a busy machine.
constexpr std::chrono::seconds kLongEnough{60};

class LinuxRemoteDevicesTest : public testing::Test {
 protected:
  std::string at(const std::string& name) const { return directory_ + "/" + name; }
  std::shared_ptr<RemoteDevice> device() { return devices_.uniqueDevice(kRemoteDeviceType); }
  std::string nameOfDevice() {
    const auto found = device();
    return found ? found->name() : "none";
  }

  const ScratchTree scratch_;
  const std::string directory_ = scratch_.makeDirectory(kRemoteDevicesDirectory);
  LinuxRemoteDevices devices_{scratch_.tree(), kLongEnough};
};

TEST_F(LinuxRemoteDevicesTest, FindNothingInAnEmptyDirectoryNorWithoutOne) {
  EXPECT_EQ(device(), nullptr);
  std::filesystem::remove_all(directory_);
  EXPECT_EQ(device(), nullptr);
  scratch_.write(kRemoteDevicesDirectory, "no directory");
  EXPECT_EQ(device(), nullptr);
}

TEST_F(LinuxRemoteDevicesTest, FindTheFirstSocketByNameAmongOtherFiles) {
  scratch_.write(at("a_file").substr(scratch_.directory().size()), "");
  std::filesystem::create_directory(at("b_directory"));
  ASSERT_EQ(::mkfifo(at("c_pipe").c_str(), 0600), 0);
  const FileDescriptor z = bindDeviceSocket(at("z"));
  ASSERT_EQ(::symlink("z", at("d_link").c_str()), 0);
  EXPECT_EQ(nameOfDevice(), "z");
  const FileDescriptor m = bindDeviceSocket(at("m"));
  const FileDescriptor y = bindDeviceSocket(at("y"));
  EXPECT_EQ(nameOfDevice(), "m");
}

TEST_F(LinuxRemoteDevicesTest, KnowOneTypeOnly) {
  const FileDescriptor socket = bindDeviceSocket(at("corvane0"));
  for (const std::uint32_t type : {0U, 1U, 2U, 4U, 65539U})
    EXPECT_EQ(devices_.uniqueDevice(type), nullptr) << type;
  EXPECT_NE(devices_.uniqueDevice(3), nullptr);
}

TEST_F(LinuxRemoteDevicesTest, TrustNoDirectoryThatOthersCanWriteTo) {
  const FileDescriptor socket = bindDeviceSocket(at("corvane0"));
  for (const mode_t mode : {0775U, 0757U, 0777U, 01777U}) {
    ASSERT_EQ(::chmod(directory_.c_str(), mode), 0);
    EXPECT_EQ(device(), nullptr) << std::oct << mode;
  }
  for (const mode_t mode : {0700U, 0755U}) {
    ASSERT_EQ(::chmod(directory_.c_str(), mode), 0);
    EXPECT_NE(device(), nullptr) << std::oct << mode;
  }
}

TEST_F(LinuxRemoteDevicesTest, TrustNoDirectoryOfSomebodyElse) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  const FileDescriptor socket = bindDeviceSocket(at("corvane0"));
  ASSERT_EQ(::chown(directory_.c_str(), kSomebody, kSomebody), 0);
  EXPECT_EQ(device(), nullptr);
}

TEST_F(LinuxRemoteDevicesTest, PassOverTheSocketOfSomebodyElse) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  const FileDescriptor foreign = bindDeviceSocket(at("a"));
  ASSERT_EQ(::chown(at("a").c_str(), kSomebody, kSomebody), 0);
  EXPECT_EQ(device(), nullptr);
  const FileDescriptor ours = bindDeviceSocket(at("b"));
  EXPECT_EQ(nameOfDevice(), "b");
}

TEST_F(LinuxRemoteDevicesTest, HaveNothingToGiveWithoutDescriptors) {
  const FileDescriptor socket = bindDeviceSocket(at("corvane0"));
  const auto before = device();
  {
    const DescriptorShortage shortage(0);
    EXPECT_EQ(device(), nullptr);
    EXPECT_FALSE(devices_.makePipe());
    EXPECT_EQ(before->state(), RemoteDeviceState::attached);
    EXPECT_EQ(before->service(kService), nullptr);
    EXPECT_FALSE(before->properties());
  }
  EXPECT_EQ(before->state(), RemoteDeviceState::connected);
  EXPECT_TRUE(devices_.makePipe());
}

TEST_F(LinuxRemoteDevicesTest, LeaveNoDescriptorBehind) {
  const FileDescriptor socket = bindDeviceSocket(at("corvane0"));
  const std::size_t before = openDescriptors();
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(device()->state(), RemoteDeviceState::connected);
  EXPECT_EQ(openDescriptors(), before);
}

class LinuxRemoteDeviceTest : public LinuxRemoteDevicesTest {
 protected:
  // A device that does this on every connection.
  void behave(RawDevice::Behaviour behaviour) {
    raw_ = std::make_unique<RawDevice>(at("corvane0"), std::move(behaviour));
  }
  // On every connection once hands are shaken.
  void behaveAfterHandshake(RawDevice::Behaviour behaviour) {
    behave([behaviour = std::move(behaviour)](RawDevicePeer& peer) {
      if (peer.shakeHands()) behaviour(peer);
    });
  }
  std::optional<SystemValue::Dictionary> propertiesOf(const std::string& signature,
                                                      const std::string& body) {
    behaveAfterHandshake([=](RawDevicePeer& peer) {
      const auto question = peer.next();
      if (!question) return;
      EXPECT_NE(question->header.find("GetAll"), std::string::npos);
      EXPECT_EQ(question->body, rawText(kRemotePropertyInterface));
      peer.answer(question->serial, signature, body);
      peer.waitForTheEnd();
    });
    return device()->properties();
  }
  // Neither of the two questions is answered by a device of this behaviour, nor waited for beyond
  // the limit.
  void expectNoAnswer(RawDevice::Behaviour behaviour) {
    behave(std::move(behaviour));
    LinuxRemoteDevices devices(scratch_.tree());
    const auto begin = Clock::now();
    EXPECT_EQ(devices.uniqueDevice(kRemoteDeviceType)->service(kService), nullptr);
    EXPECT_FALSE(devices.uniqueDevice(kRemoteDeviceType)->properties());
    EXPECT_LT(Clock::now() - begin, kLongEnough);
  }

  std::unique_ptr<RawDevice> raw_;
};

TEST_F(LinuxRemoteDeviceTest, IsAttachedWhenNobodyListens) {
  const FileDescriptor bound = bindDeviceSocket(at("corvane0"), false);
  EXPECT_EQ(device()->state(), RemoteDeviceState::attached);
  EXPECT_EQ(device()->service(kService), nullptr);
  EXPECT_FALSE(device()->properties());
}

TEST_F(LinuxRemoteDeviceTest, IsAttachedWhenTheQueueIsFull) {
  const FileDescriptor listener = bindDeviceSocket(at("corvane0"));
  ASSERT_EQ(::listen(listener.get(), 0), 0);
  const auto first = device();
  EXPECT_EQ(first->state(), RemoteDeviceState::connected);
  EXPECT_EQ(device()->state(), RemoteDeviceState::attached);
}

TEST_F(LinuxRemoteDeviceTest, IsAttachedWhenSomebodyElseListens) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  const FileDescriptor socket = bindDeviceSocket(at("corvane0"), false);
  // Of this thread only; what counts is who calls listen.
  std::thread([&socket] {
    ASSERT_EQ(::syscall(SYS_setresuid, -1, kSomebody, -1), 0);
    ASSERT_EQ(::listen(socket.get(), 8), 0);
  }).join();
  EXPECT_EQ(device()->state(), RemoteDeviceState::attached);
  EXPECT_EQ(device()->service(kService), nullptr);
  EXPECT_FALSE(device()->properties());
}

TEST_F(LinuxRemoteDeviceTest, IsMetOnceForItsStateAndItsService) {
  behaveAfterHandshake([](RawDevicePeer& peer) {
    peer.offer();
    peer.waitForTheEnd();
  });
  const auto met = device();
  EXPECT_EQ(met->state(), RemoteDeviceState::connected);
  EXPECT_EQ(met->state(), RemoteDeviceState::connected);
  EXPECT_NE(met->service(kService), nullptr);
  EXPECT_EQ(raw_->connections(), 1U);
}

TEST_F(LinuxRemoteDeviceTest, HasAServiceWithOneConnection) {
  behaveAfterHandshake([](RawDevicePeer& peer) {
    peer.offer();
    peer.waitForTheEnd();
  });
  const auto service = device()->service(kService);
  ASSERT_NE(service, nullptr);
  EXPECT_NE(service->makeConnection(nullptr), nullptr);
  EXPECT_EQ(service->makeConnection(nullptr), nullptr);
}

TEST_F(LinuxRemoteDeviceTest, HasNoServiceThatItDoesNotOffer) {
  behaveAfterHandshake([](RawDevicePeer& peer) {
    peer.offer(false);
    peer.waitForTheEnd();
  });
  EXPECT_EQ(device()->service(kService), nullptr);
}

TEST_F(LinuxRemoteDeviceTest, TakesAnAnswerOfAnotherTypeForNone) {
  behaveAfterHandshake([](RawDevicePeer& peer) {
    if (const auto question = peer.next()) {
      peer.answer(question->serial, "s", rawText("yes"));
      peer.waitForTheEnd();
    }
  });
  EXPECT_EQ(device()->service(kService), nullptr);
  EXPECT_FALSE(device()->properties());
}

TEST_F(LinuxRemoteDeviceTest, SaysWhatItIs) {
  const auto properties = propertiesOf(
      "a{sv}", rawDictionary({{"Name", "s", rawText("Corvane 7")}, {"Boots", "t", rawNumber(9)}}));
  ASSERT_TRUE(properties);
  EXPECT_EQ(properties->size(), 2U);
  EXPECT_EQ(std::get<std::string>(properties->at("Name").value), "Corvane 7");
  EXPECT_EQ(std::get<std::uint64_t>(properties->at("Boots").value), 9U);
}

TEST_F(LinuxRemoteDeviceTest, MayHaveNoPropertyAtAll) {
  const auto properties = propertiesOf("a{sv}", rawDictionary({}));
  ASSERT_TRUE(properties);
  EXPECT_TRUE(properties->empty());
}

TEST_F(LinuxRemoteDeviceTest, SaysNothingWithMoreThanAnybodyWants) {
  EXPECT_FALSE(propertiesOf(
      "a{sv}", rawDictionary({{"a", "s", rawText(std::string(kMostPropertyBytes + 1, 'x'))}})));
}

TEST_F(LinuxRemoteDeviceTest, SaysNothingWithAnotherType) {
  EXPECT_FALSE(propertiesOf("a{ss}", rawDictionary({})));
}

TEST_F(LinuxRemoteDeviceTest, SaysNothingWithWhatIsNoMessage) {
  EXPECT_FALSE(propertiesOf("a{sv}", rawNumber(0xFFFFFFFF, 4)));
}

TEST_F(LinuxRemoteDeviceTest, SaysNothingWithAnError) {
  behaveAfterHandshake([](RawDevicePeer& peer) {
    if (const auto question = peer.next()) {
      peer.write(RawBusMessage{.kind = RawBusMessage::error,
                               .errorName = "io.vantor.Unknown",
                               .answered = question->serial}
                     .bytes());
      peer.waitForTheEnd();
    }
  });
  EXPECT_FALSE(device()->properties());
}

TEST_F(LinuxRemoteDeviceTest, MayLeaveAtOnce) {
  expectNoAnswer([](RawDevicePeer&) {});
}

TEST_F(LinuxRemoteDeviceTest, MayLeaveInTheHandshake) {
  expectNoAnswer([](RawDevicePeer& peer) { peer.write("DATA\r\nOK 0123"); });
}

TEST_F(LinuxRemoteDeviceTest, MayRefuseTheHandshake) {
  expectNoAnswer([](RawDevicePeer& peer) {
    peer.write("REJECTED EXTERNAL\r\n");
    peer.waitForTheEnd();
  });
}

TEST_F(LinuxRemoteDeviceTest, MayLeaveAfterTheHandshake) {
  expectNoAnswer([](RawDevicePeer& peer) { peer.shakeHands(); });
}

TEST_F(LinuxRemoteDeviceTest, MayLeaveInsteadOfAnAnswer) {
  expectNoAnswer([](RawDevicePeer& peer) {
    if (peer.shakeHands()) peer.next();
  });
}

TEST_F(LinuxRemoteDeviceTest, MayLeaveInTheMiddleOfAnAnswer) {
  expectNoAnswer([](RawDevicePeer& peer) {
    const auto question = peer.shakeHands() ? peer.next() : std::nullopt;
    if (!question) return;
    const std::string answer =
        RawBusMessage{.kind = RawBusMessage::answer, .answered = question->serial}.bytes();
    peer.write(answer.substr(0, answer.size() / 2));
  });
}

TEST_F(LinuxRemoteDeviceTest, MaySayNothingAtAll) {
  expectNoAnswer([](RawDevicePeer& peer) { peer.waitForTheEnd(); });
}

TEST_F(LinuxRemoteDeviceTest, MayTalkOfOtherThingsForEver) {
  expectNoAnswer([](RawDevicePeer& peer) {
    if (!peer.shakeHands()) return;
    const std::string chatter =
        RawBusMessage{.path = "/", .interface = "a.b", .member = "c"}.bytes();
    while (peer.write(chatter)) {
    }
  });
}

TEST_F(LinuxRemoteDeviceTest, MayStammerInTheHandshakeForEver) {
  expectNoAnswer([](RawDevicePeer& peer) {
    while (peer.write("DATA\r\n")) {
    }
  });
}

TEST_F(LinuxRemoteDeviceTest, MayAskAndNeverListen) {
  expectNoAnswer([](RawDevicePeer& peer) {
    if (!peer.shakeHands()) return;
    const std::string question = RawBusMessage{.kind = RawBusMessage::call,
                                               .path = "/",
                                               .interface = "org.freedesktop.DBus.Peer",
                                               .member = "GetMachineId"}
                                     .bytes();
    while (peer.write(question)) {
    }
  });
}

TEST_F(LinuxRemoteDeviceTest, MayClaimAMessageOfAnySize) {
  expectNoAnswer([](RawDevicePeer& peer) {
    if (!peer.shakeHands()) return;
    RawBusMessage huge{.path = "/", .interface = "a.b", .member = "c", .signature = "ay"};
    huge.claimedLength = 0xFFFFFFF0;
    peer.write(huge.bytes());
    peer.waitForTheEnd();
  });
}

}  // namespace
}  // namespace quillsift
