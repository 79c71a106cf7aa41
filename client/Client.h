#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "client/CommandLine.h"
#include "client/Destination.h"
#include "client/ExitCode.h"
#include "client/QuillsiftService.h"
#include "client/Reporter.h"
#include "client/SessionSaver.h"
#include "client/SessionWatcher.h"

namespace quillsift {

// What a client needs of the process it runs in.
struct ClientEnvironment {
  RemoteServiceConnector& connector;
  Reporter& reporter;
  SteadyClock now;
  ArchiveNamer archiveName;
  int interruptDescriptor = -1;  // can be read once the person wants to leave
};

// Carries out one command of `quillsift`. One thread.
class Client : private ServiceObserver {
 public:
  Client(const CommandLine& commandLine, ClientEnvironment environment);

  // Runs the command to its end; a failure has been reported. Once.
  ExitCode run();

 private:
  // The six commands.
  Ending collect();
  Ending start();
  Ending status();
  Ending watch();
  Ending save();
  Ending clear();

  // Steps of them; an Ending means that the command is over.
  Ending perform();
  std::optional<Ending> resolveDestination();
  std::optional<Ending> connect();
  std::optional<Ending> firstLook();
  std::optional<Ending> startOrJoin();
  std::optional<Ending> restartIfNothingHappens();
  std::optional<Ending> followSession(bool startedHere);
  std::optional<Ending> afterTurn(SessionWatcher::Turn turn, const ServiceError& error);
  Ending saveSession();

  void announceSession();
  void announceStart(const std::string& text);
  Ending startRefused() const;
  Ending sessionLost() const;
  std::string commandText(const char* command) const;

  void sessionStarted() override;
  void sessionCleared() override;
  void jobChanged(const QSJobInfo& job) override;
  void saveReported(const SaveReport& report) override;
  void unreadableNotification(const std::string& name) override;

  const CommandLine commandLine_;
  const ClientEnvironment environment_;
  Reporter& reporter_;
  std::optional<Destination> destination_;
  std::unique_ptr<QuillsiftService> service_;
  std::optional<SessionWatcher> watcher_;
  std::optional<SessionSaver> saver_;
  std::chrono::steady_clock::time_point lastStart_{};
  bool saved_ = false;  // what is told of sessions and jobs is then about others
  bool busyNoticed_ = false;
  bool lateEndNoticed_ = false;
};

}  // namespace quillsift
