#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "codiagnose/QSCorvaneDiagnose.h"
#include "platform/linux/LinuxPipe.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kQueueLabel = "io.vantor.quillsiftd.QSCorvaneDiagnose.Service";
constexpr const char* kName = "corvane_7.tar.gz";

class QSCorvaneDiagnoseTest : public testing::Test {
 protected:
  QSCorvaneDiagnoseTest() {
    device->services["io.vantor.omnitrawl.remote"] = service;
    platform.remoteDevices().add(3, device);
    platform.remoteDevices().takePipesFrom([] { return makeLinuxPipe(); });
  }

  std::shared_ptr<CoDiagnose> make(QSError* error = nullptr) {
    return QSCorvaneDiagnose::initReturningError(error);
  }
  std::shared_ptr<CoDiagnose> started() {
    auto diagnose = make();
    EXPECT_TRUE(diagnose->startGatheringReturningError(nullptr));
    platform.systemLog().clear();
    return diagnose;
  }
  static bool gathering(const std::shared_ptr<CoDiagnose>& diagnose) {
    return std::static_pointer_cast<QSCorvaneDiagnose>(diagnose)->gathering();
  }
  static bool invalidated(const std::shared_ptr<CoDiagnose>& diagnose) {
    return std::static_pointer_cast<QSCorvaneDiagnose>(diagnose)->invalidated();
  }
  FakeRemoteConnection& connection() { return *service->connection(); }
  void deliver(WireDictionary values) {
    RemoteDictionary dictionary;
    dictionary.values = std::move(values);
    connection().deliver(std::move(dictionary));
  }
  std::shared_ptr<FakeFileTransfer> deliverFile(std::uint64_t type = 1, const char* name = kName) {
    RemoteDictionary response;
    response.values.emplace("RESPONSE_TYPE", type);
    if (name != nullptr) response.values.emplace("FILE_NAME", std::string(name));
    auto file = connection().makeFile();
    response.files["FILE_TX"] = file;
    connection().deliver(response);
    return file;
  }
  void drain() { platform.workQueues().drain(); }
  static void write(const std::shared_ptr<FakeFileTransfer>& file, const std::string& bytes) {
    ASSERT_EQ(::write(file->destination(), bytes.data(), bytes.size()),
              static_cast<ssize_t>(bytes.size()));
  }
  std::vector<LogLine> log() { return platform.systemLog().lines(); }

  TestPlatform platform;
  const std::shared_ptr<FakeRemoteDevice> device = std::make_shared<FakeRemoteDevice>("companion0");
  const std::shared_ptr<FakeRemoteDeviceService> service =
      std::make_shared<FakeRemoteDeviceService>();
};

TEST_F(QSCorvaneDiagnoseTest, FailsSilentlyWithCodeOneWithoutACompanion) {
  platform.remoteDevices().add(3, nullptr);
  platform.remoteDevices().add(2, device);
  QSError error;
  EXPECT_EQ(make(&error), nullptr);
  EXPECT_EQ(error.domain, "QSCorvaneErrorDomain");
  EXPECT_EQ(error.code, 1);
  EXPECT_EQ(error.localizedDescription, "This device is not a Tessel Lumina.");
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_THAT(platform.remoteDevices().typesAsked(), ElementsAre(3U));
}

TEST_F(QSCorvaneDiagnoseTest, NamesACompanionThatIsNotConnectedInAWarning) {
  device->currentState = RemoteDeviceState::attached;
  QSError error;
  EXPECT_EQ(make(&error), nullptr);
  EXPECT_EQ(error.code, 2);
  EXPECT_THAT(log(),
              ElementsAre(LogLine{116,
                                  "Co-omnitrawl for Corvane is not possible because the device "
                                  "(companion0) is not connected."}));
}

TEST_F(QSCorvaneDiagnoseTest, NamesACompanionWithoutTheServiceInAWarning) {
  device->services.clear();
  QSError error;
  EXPECT_EQ(make(&error), nullptr);
  EXPECT_EQ(error.code, 3);
  EXPECT_THAT(log(),
              ElementsAre(LogLine{116,
                                  "Co-omnitrawl for Corvane is not possible, cannot get service "
                                  "for device (companion0)."}));
}

TEST_F(QSCorvaneDiagnoseTest, FailsSilentlyWithCodeFourWithoutAConnection) {
  service->refusesConnections = true;
  QSError error;
  EXPECT_EQ(make(&error), nullptr);
  EXPECT_EQ(error.code, 4);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(QSCorvaneDiagnoseTest, NeedsNoPlaceForTheError) {
  device->services.clear();
  EXPECT_EQ(make(nullptr), nullptr);
}

TEST_F(QSCorvaneDiagnoseTest, IsConnectedAndIdleOnAQueueOfItsOwn) {
  const auto diagnose = make();
  ASSERT_NE(diagnose, nullptr);
  EXPECT_TRUE(connection().active());
  EXPECT_EQ(connection().queue()->label(), kQueueLabel);
  EXPECT_EQ(connection().queue()->qos(), QOSClass::userInitiated);
  EXPECT_FALSE(gathering(diagnose));
  EXPECT_FALSE(diagnose->archiveValid());
  EXPECT_EQ(diagnose->archiveName(), "corvane_omnitrawl_unknown.tar.gz");
  EXPECT_EQ(diagnose->remoteDiagnosticHandle(), nullptr);
  EXPECT_THAT(connection().sent(), IsEmpty());
}

TEST_F(QSCorvaneDiagnoseTest, SendsTheRequestAndSaysSo) {
  const auto diagnose = make();
  QSError error;
  EXPECT_TRUE(diagnose->startGatheringReturningError(&error));
  EXPECT_FALSE(error);
  ASSERT_EQ(connection().sent().size(), 1U);
  const WireDictionary expected{{"REQUEST_TYPE", WireValue(std::uint64_t{1})}};
  EXPECT_EQ(connection().sent()[0].values, expected);
  EXPECT_TRUE(gathering(diagnose));
  EXPECT_THAT(log(), ElementsAre(LogLine{118,
                                         "QSCorvaneDiagnose: Starting Corvane omnitrawl with "
                                         "params: { \"REQUEST_TYPE\": 1 }"}));
}

TEST_F(QSCorvaneDiagnoseTest, RefusesASecondStartAndGoesOnWithTheFirst) {
  const auto diagnose = started();
  const auto handle = diagnose->remoteDiagnosticHandle();
  QSError error;
  EXPECT_FALSE(diagnose->startGatheringReturningError(&error));
  EXPECT_EQ(error.code, 5);
  EXPECT_EQ(diagnose->remoteDiagnosticHandle(), handle);
  EXPECT_TRUE(handle->valid());
  EXPECT_EQ(connection().sent().size(), 1U);
  EXPECT_TRUE(gathering(diagnose));
}

TEST_F(QSCorvaneDiagnoseTest, FailsWithCodeZeroWithoutAPipeAndMayBeStartedAgain) {
  const auto diagnose = make();
  platform.remoteDevices().takePipesFrom(nullptr);
  QSError error;
  EXPECT_FALSE(diagnose->startGatheringReturningError(&error));
  EXPECT_EQ(error.code, 0);
  EXPECT_EQ(error.localizedDescription, "Unknown error.");
  EXPECT_FALSE(gathering(diagnose));
  EXPECT_EQ(diagnose->remoteDiagnosticHandle(), nullptr);
  EXPECT_THAT(connection().sent(), IsEmpty());
  platform.remoteDevices().takePipesFrom([] { return makeLinuxPipe(); });
  EXPECT_TRUE(diagnose->startGatheringReturningError(&error));
}

TEST_F(QSCorvaneDiagnoseTest, ReceivesAnArchiveUnderItsOwnName) {
  const auto diagnose = started();
  const auto file = deliverFile();
  drain();
  write(file, "archive");
  EXPECT_TRUE(gathering(diagnose));
  EXPECT_FALSE(diagnose->archiveValid());
  file->end(0);
  const auto data = diagnose->remoteDiagnosticHandle()->readToEnd(nullptr);
  // Right behind the end of the file, as the reader asks.
  EXPECT_TRUE(diagnose->archiveValid());
  EXPECT_FALSE(gathering(diagnose));
  ASSERT_TRUE(data);
  EXPECT_EQ(data->text(), "archive");
  EXPECT_EQ(diagnose->archiveName(), kName);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(QSCorvaneDiagnoseTest, KeepsTheDefaultNameWhenNoneIsSent) {
  const auto diagnose = started();
  deliverFile(1, nullptr);
  EXPECT_EQ(diagnose->archiveName(), "corvane_omnitrawl_unknown.tar.gz");
}

TEST_F(QSCorvaneDiagnoseTest, ComparesOnlyTheLowSixteenBitsOfTheType) {
  const auto diagnose = started();
  deliverFile(65537);
  EXPECT_EQ(diagnose->archiveName(), kName);
  deliver({{"RESPONSE_TYPE", WireValue(std::uint64_t{0xabcd0007})}});
  drain();
  EXPECT_THAT(log(),
              ElementsAre(LogLine{116, "QSCorvaneDiagnose: Unknown response type received: 7"}));
}

TEST_F(QSCorvaneDiagnoseTest, TakesAMissingTypeForAnUnknownOne) {
  const auto diagnose = started();
  deliver({});
  deliver({{"RESPONSE_TYPE", WireValue("1")}});
  drain();
  const LogLine unknown{116, "QSCorvaneDiagnose: Unknown response type received: 0"};
  EXPECT_THAT(log(), ElementsAre(unknown, unknown));
  EXPECT_TRUE(gathering(diagnose));
}

TEST_F(QSCorvaneDiagnoseTest, ClosesTheReadEndOnAFailure) {
  const auto diagnose = started();
  const auto handle = diagnose->remoteDiagnosticHandle();
  deliver({{"RESPONSE_TYPE", WireValue(std::uint64_t{2})},
           {"FAILURE_REASON", WireValue(std::uint64_t{18446744073709551615U})}});
  EXPECT_FALSE(gathering(diagnose));
  EXPECT_FALSE(handle->valid());
  EXPECT_EQ(diagnose->remoteDiagnosticHandle(), handle);
  EXPECT_FALSE(diagnose->archiveValid());
  QSError error;
  EXPECT_FALSE(handle->readToEnd(&error));
  EXPECT_EQ(error.code, EBADF);
  EXPECT_THAT(log(), ElementsAre(LogLine{115,
                                         "QSCorvaneDiagnose: Failed to receive Corvane omnitrawl. "
                                         "Failure Code: 18446744073709551615"}));
}

TEST_F(QSCorvaneDiagnoseTest, StaysGatheringWithoutAFile) {
  const auto diagnose = started();
  deliver({{"RESPONSE_TYPE", WireValue(std::uint64_t{1})}, {"FILE_NAME", WireValue("a\nb")}});
  drain();
  EXPECT_TRUE(gathering(diagnose));
  EXPECT_EQ(diagnose->archiveName(), "corvane_omnitrawl_unknown.tar.gz");
  EXPECT_THAT(log(),
              ElementsAre(LogLine{116,
                                  "QSCorvaneDiagnose: Did not receive a file transfer object. Weft "
                                  "Response: { \"RESPONSE_TYPE\": 1, \"FILE_NAME\": \"a?b\" }"}));
}

TEST_F(QSCorvaneDiagnoseTest, TellsWhyATransferFailedAndMayBeStartedAgain) {
  const auto diagnose = started();
  const auto file = deliverFile();
  drain();
  file->end(EIO);
  EXPECT_FALSE(gathering(diagnose));
  EXPECT_FALSE(diagnose->archiveValid());
  EXPECT_THAT(log(), ElementsAre(LogLine{116,
                                         "QSCorvaneDiagnose: weft_file_transfer_write_to_fd "
                                         "failed. Input/output error"}));
  const auto handle = diagnose->remoteDiagnosticHandle();
  EXPECT_TRUE(diagnose->startGatheringReturningError(nullptr));
  EXPECT_NE(diagnose->remoteDiagnosticHandle(), handle);
  EXPECT_EQ(diagnose->archiveName(), "corvane_omnitrawl_unknown.tar.gz");
}

TEST_F(QSCorvaneDiagnoseTest, KeepsTheFirstOfTwoFiles) {
  const auto diagnose = started();
  const auto first = deliverFile();
  deliverFile();
  drain();
  EXPECT_THAT(log(), ElementsAre(LogLine{116,
                                         "QSCorvaneDiagnose: weft_file_transfer_write_to_fd "
                                         "failed. Bad file descriptor"}));
  write(first, "first");
  first->end(0);
  EXPECT_EQ(diagnose->remoteDiagnosticHandle()->readToEnd(nullptr)->text(), "first");
  EXPECT_TRUE(diagnose->archiveValid());
}

TEST_F(QSCorvaneDiagnoseTest, EndsWithTheConnection) {
  const auto diagnose = started();
  const auto handle = diagnose->remoteDiagnosticHandle();
  connection().deliver(RemoteEvent{RemoteEvent::Kind::error, {}, "Connection reset by peer"});
  EXPECT_FALSE(gathering(diagnose));
  EXPECT_TRUE(invalidated(diagnose));
  EXPECT_TRUE(connection().cancelled());
  EXPECT_EQ(diagnose->remoteDiagnosticHandle(), nullptr);
  EXPECT_FALSE(handle->valid());
  EXPECT_THAT(log(), ElementsAre(LogLine{116,
                                         "QSCorvaneDiagnose: Connection to "
                                         "'io.vantor.omnitrawl.remote' terminated with an Weft "
                                         "error: Connection reset by peer"}));
}

TEST_F(QSCorvaneDiagnoseTest, EndsWithAnEventOfAnotherType) {
  const auto diagnose = started();
  connection().deliver(RemoteEvent{RemoteEvent::Kind::other, {}, "%s(as)"});
  EXPECT_TRUE(invalidated(diagnose));
  EXPECT_THAT(log(), ElementsAre(LogLine{116,
                                         "QSCorvaneDiagnose: Connection to "
                                         "'io.vantor.omnitrawl.remote' terminated with event "
                                         "type: %s(as)"}));
}

TEST_F(QSCorvaneDiagnoseTest, IsInvalidatedForGood) {
  const auto diagnose = started();
  const auto handle = diagnose->remoteDiagnosticHandle();
  diagnose->invalidate();
  diagnose->invalidate();
  EXPECT_TRUE(invalidated(diagnose));
  EXPECT_FALSE(gathering(diagnose));
  EXPECT_FALSE(handle->valid());
  EXPECT_TRUE(connection().cancelled());
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(QSCorvaneDiagnoseTest, DeliversWhatIsInThePipeWhenItIsInvalidated) {
  const auto diagnose = started();
  const auto handle = diagnose->remoteDiagnosticHandle();
  const auto file = deliverFile();
  drain();
  write(file, "half");
  diagnose->invalidate();  // ends the transfer, and with it the write end
  QSError error;
  EXPECT_FALSE(handle->readToEnd(&error));  // nobody had been reading: the handle is closed
  EXPECT_EQ(error.code, EBADF);
  EXPECT_FALSE(diagnose->archiveValid());
}

TEST_F(QSCorvaneDiagnoseTest, AStartAfterInvalidationReachesNobody) {
  const auto diagnose = make();
  diagnose->invalidate();
  EXPECT_TRUE(diagnose->startGatheringReturningError(nullptr));
  EXPECT_TRUE(gathering(diagnose));
  EXPECT_THAT(connection().sent(), IsEmpty());
}

TEST_F(QSCorvaneDiagnoseTest, IsInvalidatedWhenItIsDestroyed) {
  auto diagnose = started();
  const auto handle = diagnose->remoteDiagnosticHandle();
  diagnose.reset();
  EXPECT_TRUE(connection().cancelled());
  EXPECT_FALSE(handle->valid());
}

TEST_F(QSCorvaneDiagnoseTest, MayBeDestroyedOnItsOwnQueue) {
  auto diagnose = started();
  connection().queue()->sync([&] { diagnose.reset(); });
  EXPECT_TRUE(connection().cancelled());
}

TEST_F(QSCorvaneDiagnoseTest, ATransferMayEndAfterTheObject) {
  auto diagnose = started();
  const auto file = deliverFile();
  drain();
  diagnose.reset();
  EXPECT_FALSE(file->end(0));  // it has been cancelled
  drain();
  EXPECT_THAT(log(), IsEmpty());
}

// Everything that happens to the object happens on its queue, whoever calls.
TEST_F(QSCorvaneDiagnoseTest, SurvivesAStormOfStartsInvalidationsAndDyingCompanions) {
  constexpr int kRounds = 60;
  for (int round = 0; round < kRounds; ++round) {
    auto diagnose = started();
    const auto handle = diagnose->remoteDiagnosticHandle();
    std::thread reader([&] { (void)handle->readToEnd(nullptr); });
    std::thread companion([&] {
      const auto file = deliverFile();
      file->end(round % 3 == 0 ? EIO : 0);
      connection().deliver(RemoteEvent{RemoteEvent::Kind::error, {}, "dead"});
    });
    std::thread starter([&] {
      (void)diagnose->startGatheringReturningError(nullptr);
      (void)diagnose->archiveName();
      (void)diagnose->archiveValid();
    });
    if (round % 2 == 0) diagnose->invalidate();
    starter.join();
    companion.join();
    diagnose->invalidate();
    EXPECT_EQ(diagnose->remoteDiagnosticHandle(), nullptr);
    diagnose.reset();
    reader.join();  // also when a second start has put another pipe in the place of this one
  }
}

}  // namespace
}  // namespace quillsift
