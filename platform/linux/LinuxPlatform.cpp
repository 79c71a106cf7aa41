#include "platform/linux/LinuxPlatform.h"

#include "platform/linux/BlockDevices.h"
#include "platform/linux/KernelEventSocket.h"
#include "platform/linux/LinuxDeviceRegistry.h"
#include "platform/linux/LinuxDisplays.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LinuxHostInformation.h"
#include "platform/linux/LinuxInstallerProgress.h"
#include "platform/linux/LinuxKernelMessages.h"
#include "platform/linux/LinuxLogArchiveBuilder.h"
#include "platform/linux/LinuxMounts.h"
#include "platform/linux/LinuxOutputFiles.h"
#include "platform/linux/LinuxOutputTrees.h"
#include "platform/linux/LinuxProcessLauncher.h"
#include "platform/linux/LinuxProcessMemory.h"
#include "platform/linux/LinuxProcessTable.h"
#include "platform/linux/LinuxRecoveryAgent.h"
#include "platform/linux/LinuxRemoteDevices.h"
#include "platform/linux/LinuxServiceConnections.h"
#include "platform/linux/LinuxSystemConsole.h"
#include "platform/linux/LinuxSystemLog.h"
#include "platform/linux/LinuxVisualFlash.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "platform/linux/PlatformTree.h"
#include "platform/linux/TemporaryDirectory.h"

namespace quillsift {

namespace {

// Where a socket of ours stands beside the service's.
std::string directoryOfSockets(const std::optional<std::string>& servicePath) {
  if (!servicePath) return "/run/io.vantor.quillsiftd";
  return servicePath->substr(0, servicePath->rfind('/') + 1);
}

}  // namespace

std::unique_ptr<Platform> makeLinuxPlatform(const LinuxPlatformOptions& options) {
  const auto tree = std::make_shared<const PlatformTree>(
      options.treeDirectory.empty() ? PlatformTree::directoryBesideExecutable()
                                    : options.treeDirectory);
  // What the tree hides becomes an empty path, which is ENOENT to every system call.
  const auto resolve = [tree](const std::string& path) { return tree->resolve(path).value_or(""); };
  auto platform = std::make_unique<Platform>();
  auto workQueues = std::make_unique<LinuxWorkQueues>();
  platform->processLauncher = std::make_unique<LinuxProcessLauncher>(resolve);
  platform->processMemory = std::make_unique<LinuxProcessMemory>();
  platform->systemLog = std::make_unique<LinuxSystemLog>();
  for (const std::string& complaint :
       {tree->complaint(),
        options.makesTemporaryDirectory ? makeTemporaryDirectory(*tree) : std::string()}) {
    if (!complaint.empty()) platform->systemLog->write(kInstallFacility | kLogWarning, complaint);
  }
  platform->systemConsole = std::make_unique<LinuxSystemConsole>(tree);
  platform->hostInformation = std::make_unique<LinuxHostInformation>(tree);
  platform->deviceRegistry = std::make_unique<LinuxDeviceRegistry>(tree, linuxBlockDevices(tree),
                                                                   *platform->processLauncher);
  platform->mounts = std::make_unique<LinuxMounts>(resolve);
  platform->fileSystem = std::make_unique<LinuxFileSystem>(tree);
  platform->outputFiles = std::make_unique<LinuxOutputFiles>(tree);
  platform->outputTrees = std::make_unique<LinuxOutputTrees>();
  platform->serviceConnections =
      std::make_unique<LinuxServiceConnections>(*workQueues, options.socketPath);
  platform->workQueues = std::move(workQueues);
  platform->displays = LinuxDisplays::ofHost(tree);
  platform->logArchiveBuilder = std::make_unique<LinuxLogArchiveBuilder>(
      tree, LinuxLogArchiveBuilder::programBesideExecutable());
  platform->remoteDevices = std::make_unique<LinuxRemoteDevices>(tree);
  platform->recoveryAgent =
      std::make_unique<LinuxRecoveryAgent>(tree, *platform->systemLog, openKernelEvents);
  platform->installerProgress =
      std::make_unique<LinuxInstallerProgress>(*platform->processLauncher);
  platform->processTable = std::make_unique<LinuxProcessTable>(tree);
  platform->visualFlash = std::make_unique<LinuxVisualFlash>(tree);
  platform->kernelMessages =
      std::make_unique<LinuxKernelMessages>(directoryOfSockets(options.socketPath));
  return platform;
}

}  // namespace quillsift
