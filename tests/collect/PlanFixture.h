#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "codiagnose/QSCorvaneDiagnoseError.h"
#include "collect/CollectionRunner.h"
#include "collect/CollectionSession.h"
#include "platform/QSUUID.h"
#include "tests/doubles/FakeCoDiagnose.h"
#include "tests/doubles/FakeVolumeServices.h"
#include "tests/doubles/RecordingCollectionHost.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {

// A machine that has nothing, until the test gives it something, and a session on it.
class PlanFixture : public ::testing::Test {
 protected:
  using Job = RecordingCollectionHost::Job;
  using Kind = RecordingCollectionHost::Kind;

  PlanFixture() {
    auto made = std::make_shared<CollectionServices>();
    made->isVantorInternal = [this] { return internal; };
    made->isVantorSilicon = [this] { return vantorSilicon; };
    made->makeCoDiagnose = [this](QSError* error) -> std::shared_ptr<CoDiagnose> {
      if (!companion) setError(error, companionError);
      return companion;
    };
    made->volumes = volumes;
    made->provenanceReport = [this](QSError*) { return provenance; };
    made->companionProperties = [this](QSError*) { return properties; };
    services = made;
  }

  void TearDown() override {
    if (companion && companion->handle) companion->handle->close();
    host->finishAll();
    platform.workQueues().shutDown();
  }

  // Starts a session on a run queue of this class.
  void start(QOSClass qos = QOSClass::utility) {
    platform.workQueues().makeSerialQueue("io.vantor.quillsiftd.QSRunQueue", qos)->async([this] {
      CollectionRunner(services).run(sessionUUID, host);
      host->note("returned");
    });
  }
  // A whole session in which no job is held.
  void runToEnd(QOSClass qos = QOSClass::utility) {
    start(qos);
    platform.workQueues().drain();
  }
  // Until the session stands still, `seconds` later.
  void advance(int seconds) {
    platform.workQueues().settle();
    platform.workQueues().advance(std::chrono::seconds(seconds));
    platform.workQueues().settle();
  }

  // As a collector gets it.
  CollectionSession session() {
    return {.uuid = sessionUUID.text(),
            .group = platform.workQueues().makeGroup(),
            .host = host,
            .services = services};
  }

  bool happened(const std::string& event) const {
    for (const std::string& each : host->events()) {
      if (each == event) return true;
    }
    return false;
  }
  bool queued(const std::string& relativePath) const { return host->job(relativePath).has_value(); }
  std::vector<std::string> relativePaths() const {
    std::vector<std::string> paths;
    for (const Job& job : host->jobs())
      paths.push_back(job.relativePath);
    return paths;
  }

  TestPlatform platform;
  const QSUUID sessionUUID = QSUUID::random();
  const std::shared_ptr<RecordingCollectionHost> host = std::make_shared<RecordingCollectionHost>();
  const std::shared_ptr<FakeVolumeServices> volumes = std::make_shared<FakeVolumeServices>();
  bool internal = false;
  bool vantorSilicon = false;
  std::shared_ptr<FakeCoDiagnose> companion;
  QSError companionError = QSCorvaneDiagnoseError::errorWithCode(QSCorvaneErrorNoDevice);
  std::optional<QSData> provenance;
  std::optional<QSData> properties;
  std::shared_ptr<const CollectionServices> services;
};

// What a work block that the test runs by hand came to.
struct WorkOutcome {
  explicit WorkOutcome(const WorkBlock& work) : succeeded(work(&entry, &error)) {}

  std::string text() const {
    return entry && entry->fileData() ? std::string(entry->fileData()->text()) : "(no data)";
  }

  std::shared_ptr<const QSJobEntry> entry;
  QSError error;
  bool succeeded;
};

inline void PrintTo(const LogLine& line, std::ostream* out) {
  *out << line.priorityWord << " \"" << line.message << '"';
}

inline LogLine warningLine(std::string message) {
  return {kInstallFacility + kLogWarning, std::move(message)};
}
inline LogLine errorLine(std::string message) {
  return {kInstallFacility + kLogError, std::move(message)};
}
inline LogLine infoLine(std::string message) {
  return {kInstallFacility + kLogInfo, std::move(message)};
}

}  // namespace quillsift
