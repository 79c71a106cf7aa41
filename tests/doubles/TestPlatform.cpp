#include "tests/doubles/TestPlatform.h"

#include <utility>

namespace quillsift {

TestPlatform::TestPlatform() {
  auto platform = std::make_unique<Platform>();
  platform->workQueues = std::make_unique<FakeWorkQueues>();
  platform->serviceConnections = std::make_unique<FakeServiceConnections>();
  platform->processLauncher = std::make_unique<FakeProcessLauncher>();
  platform->processMemory = std::make_unique<FakeProcessMemory>();
  platform->systemLog = std::make_unique<RecordingSystemLog>();
  platform->systemConsole = std::make_unique<RecordingConsole>();
  platform->hostInformation = std::make_unique<FakeHostInformation>();
  platform->deviceRegistry = std::make_unique<FakeDeviceRegistry>();
  platform->mounts = std::make_unique<FakeMounts>();
  platform->fileSystem = std::make_unique<MemoryFileSystem>();
  platform->outputFiles = std::make_unique<RecordingOutputFiles>();
  platform->outputTrees = std::make_unique<MemoryOutputTrees>();
  platform->displays = std::make_unique<FakeDisplays>();
  platform->logArchiveBuilder = std::make_unique<FakeLogArchiveBuilder>();
  platform->remoteDevices = std::make_unique<FakeRemoteDevices>();
  platform->recoveryAgent = std::make_unique<FakeRecoveryAgent>();
  platform->installerProgress = std::make_unique<FakeInstallerProgress>();
  platform->processTable = std::make_unique<FakeProcessTable>();
  platform->visualFlash = std::make_unique<FakeVisualFlash>();
  platform->kernelMessages = std::make_unique<FakeKernelMessages>();
  platform_ = platform.get();
  before_ = Platform::install(std::move(platform));
}

TestPlatform::~TestPlatform() {
  processLauncher().releaseAll();
  workQueues().shutDown();
  const std::unique_ptr<Platform> ours = Platform::install(std::move(before_));
}

}  // namespace quillsift
