#pragma once

#include <memory>

#include "platform/DeviceRegistry.h"
#include "platform/Displays.h"
#include "platform/FileSystem.h"
#include "platform/HostInformation.h"
#include "platform/KernelMessages.h"
#include "platform/LogArchiveBuilder.h"
#include "platform/Mounts.h"
#include "platform/OutputFiles.h"
#include "platform/OutputTrees.h"
#include "platform/ProcessLauncher.h"
#include "platform/ProcessMemory.h"
#include "platform/ProcessTable.h"
#include "platform/RecoveryEnvironment.h"
#include "platform/RemoteDevices.h"
#include "platform/ServiceConnections.h"
#include "platform/SystemLog.h"
#include "platform/VisualFlash.h"
#include "platform/WorkQueues.h"

namespace quillsift {

// Everything the host gives us, one member a role; none is null once it is installed. Made once at
// start with the adapters of the host, or by a test with doubles.
struct Platform {
  std::unique_ptr<WorkQueues> workQueues;
  std::unique_ptr<ServiceConnections> serviceConnections;
  std::unique_ptr<ProcessLauncher> processLauncher;
  std::unique_ptr<ProcessMemory> processMemory;
  std::unique_ptr<ProcessTable> processTable;
  std::unique_ptr<SystemLog> systemLog;
  std::unique_ptr<SystemConsole> systemConsole;
  std::unique_ptr<HostInformation> hostInformation;
  std::unique_ptr<DeviceRegistry> deviceRegistry;
  std::unique_ptr<Mounts> mounts;
  std::unique_ptr<FileSystem> fileSystem;
  std::unique_ptr<OutputFiles> outputFiles;
  std::unique_ptr<OutputTrees> outputTrees;
  std::unique_ptr<Displays> displays;
  std::unique_ptr<LogArchiveBuilder> logArchiveBuilder;
  std::unique_ptr<RemoteDevices> remoteDevices;
  std::unique_ptr<RecoveryAgent> recoveryAgent;
  std::unique_ptr<InstallerProgress> installerProgress;
  std::unique_ptr<VisualFlash> visualFlash;
  std::unique_ptr<KernelMessages> kernelMessages;

  // The installed platform. Aborts when there is none: nothing works before main has made it.
  static Platform& current();
  // Installs `platform` for the process and returns the one before (null at start). Not while
  // other threads use the old one.
  static std::unique_ptr<Platform> install(std::unique_ptr<Platform> platform);
};

}  // namespace quillsift
