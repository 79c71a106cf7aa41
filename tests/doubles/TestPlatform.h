#pragma once

#include <memory>

#include "platform/Platform.h"
#include "tests/doubles/FakeDeviceRegistry.h"
#include "tests/doubles/FakeDisplays.h"
#include "tests/doubles/FakeHostInformation.h"
#include "tests/doubles/FakeInstallerProgress.h"
#include "tests/doubles/FakeKernelMessages.h"
#include "tests/doubles/FakeLogArchiveBuilder.h"
#include "tests/doubles/FakeMounts.h"
#include "tests/doubles/FakeProcessLauncher.h"
#include "tests/doubles/FakeProcessMemory.h"
#include "tests/doubles/FakeProcessTable.h"
#include "tests/doubles/FakeRecoveryAgent.h"
#include "tests/doubles/FakeRemoteDevices.h"
#include "tests/doubles/FakeServiceConnections.h"
#include "tests/doubles/FakeVisualFlash.h"
#include "tests/doubles/FakeWorkQueues.h"
#include "tests/doubles/MemoryFileSystem.h"
#include "tests/doubles/MemoryOutputTrees.h"
#include "tests/doubles/RecordingOutputFiles.h"
#include "tests/doubles/RecordingSystemLog.h"

namespace quillsift {

// Installs a platform of doubles for a scope. At its end hanging children are killed, the queues
// drained, and the platform of before comes back.
class TestPlatform {
 public:
  TestPlatform();
  ~TestPlatform();
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;

  FakeWorkQueues& workQueues() { return as<FakeWorkQueues>(platform_->workQueues); }
  FakeServiceConnections& serviceConnections() {
    return as<FakeServiceConnections>(platform_->serviceConnections);
  }
  FakeProcessLauncher& processLauncher() {
    return as<FakeProcessLauncher>(platform_->processLauncher);
  }
  FakeProcessMemory& processMemory() { return as<FakeProcessMemory>(platform_->processMemory); }
  RecordingSystemLog& systemLog() { return as<RecordingSystemLog>(platform_->systemLog); }
  RecordingConsole& systemConsole() { return as<RecordingConsole>(platform_->systemConsole); }
  FakeHostInformation& hostInformation() {
    return as<FakeHostInformation>(platform_->hostInformation);
  }
  FakeDeviceRegistry& deviceRegistry() { return as<FakeDeviceRegistry>(platform_->deviceRegistry); }
  FakeMounts& mounts() { return as<FakeMounts>(platform_->mounts); }
  MemoryFileSystem& fileSystem() { return as<MemoryFileSystem>(platform_->fileSystem); }
  RecordingOutputFiles& outputFiles() { return as<RecordingOutputFiles>(platform_->outputFiles); }
  MemoryOutputTrees& outputTrees() { return as<MemoryOutputTrees>(platform_->outputTrees); }
  FakeDisplays& displays() { return as<FakeDisplays>(platform_->displays); }
  FakeLogArchiveBuilder& logArchiveBuilder() {
    return as<FakeLogArchiveBuilder>(platform_->logArchiveBuilder);
  }
  FakeRemoteDevices& remoteDevices() { return as<FakeRemoteDevices>(platform_->remoteDevices); }
  FakeRecoveryAgent& recoveryAgent() { return as<FakeRecoveryAgent>(platform_->recoveryAgent); }
  FakeInstallerProgress& installerProgress() {
    return as<FakeInstallerProgress>(platform_->installerProgress);
  }
  FakeProcessTable& processTable() { return as<FakeProcessTable>(platform_->processTable); }
  FakeVisualFlash& visualFlash() { return as<FakeVisualFlash>(platform_->visualFlash); }
  FakeKernelMessages& kernelMessages() { return as<FakeKernelMessages>(platform_->kernelMessages); }

 private:
  template <typename Double, typename Role>
  static Double& as(const std::unique_ptr<Role>& role) {
    return static_cast<Double&>(*role);
  }

  Platform* platform_;  // owned by what is installed
  std::unique_ptr<Platform> before_;
};

}  // namespace quillsift
