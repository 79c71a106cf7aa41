#include "client/Client.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "client/HumanText.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

using namespace std::chrono_literals;
using Command = CommandLine::Command;
using Session = SessionWatcher::Session;
using Turn = SessionWatcher::Turn;

// How long a view may stand still.
constexpr auto kTurn = 250ms;
// A start that is refused while no session shows: one is about to appear, or a save of an empty
// session to end.
constexpr auto kStartRetryAfter = 1s;
constexpr auto kStartPatience = 30s;
// A session records its first jobs within moments. One that has not may have been cleared before
// it could; only another start tells.
constexpr auto kFirstJobPatience = 30s;

// Empty when it cannot be told.
std::string fileSizeText(const std::string& path) {
  std::error_code reason;
  const std::uintmax_t size = std::filesystem::file_size(path, reason);
  return reason ? "" : " (" + sizeText(size) + ")";
}

}  // namespace

Client::Client(const CommandLine& commandLine, ClientEnvironment environment)
    : commandLine_(commandLine),
      environment_(std::move(environment)),
      reporter_(environment_.reporter) {}

ExitCode Client::run() {
  Ending ending = perform();
  if (ending.code == ExitCode::success && reporter_.outputError() != 0) {
    ending = {ExitCode::failed, outputFailureText(reporter_.outputError())};
  }
  if (ending.code != ExitCode::success) reporter_.failure(ending);
  return ending.code;
}

Ending Client::perform() {
  const bool saves =
      commandLine_.command == Command::collect || commandLine_.command == Command::save;
  if (saves) {
    if (auto ending = resolveDestination()) return *ending;
  }
  if (auto ending = connect()) return *ending;
  switch (commandLine_.command) {
    case Command::collect:
      return collect();
    case Command::start:
      return start();
    case Command::status:
      return status();
    case Command::watch:
      return watch();
    case Command::save:
      return save();
    case Command::clear:
      return clear();
  }
  return {};
}

std::optional<Ending> Client::resolveDestination() {
  std::string problem;
  destination_ = Destination::resolve(
      commandLine_.destination, commandLine_.directory ? SaveForm::directory : SaveForm::archive,
      commandLine_.withoutSensitive, &problem);
  if (destination_) return std::nullopt;
  return Ending{ExitCode::failed, problem};
}

std::optional<Ending> Client::connect() {
  ServiceError error;
  service_ = QuillsiftService::connect(environment_.connector, commandLine_.socketPath, &error);
  if (!service_) return endingOf(error);
  watcher_.emplace(*service_, static_cast<ServiceObserver&>(*this), environment_.now,
                   environment_.interruptDescriptor);
  saver_.emplace(*service_, *watcher_, reporter_, environment_.now);
  return std::nullopt;
}

// --- The commands -----------------------------------------------------------------------------

Ending Client::collect() {
  if (auto ending = firstLook()) return *ending;
  bool startedHere = false;
  if (watcher_->session() == Session::none) {
    if (auto ending = startOrJoin()) return *ending;
    startedHere = lastStart_ != std::chrono::steady_clock::time_point{};
  } else {
    announceSession();
  }
  if (auto ending = followSession(startedHere)) return *ending;
  return saveSession();
}

Ending Client::start() {
  ServiceError error;
  const auto started = service_->start(&error);
  if (!started) return endingOf(error);
  if (*started) {
    announceStart("Started a session. \"" + commandText("watch") + "\" shows it, \"" +
                  commandText("collect") + "\" joins it and saves it.");
    return {};
  }
  if (auto ending = firstLook()) return *ending;
  return startRefused();
}

Ending Client::status() {
  if (auto ending = firstLook()) return *ending;
  reporter_.jobsAtHand(watcher_->jobs());
  reporter_.summary(SummaryReport(*watcher_));
  return {};
}

Ending Client::watch() {
  if (auto ending = firstLook()) return *ending;
  reporter_.jobsAtHand(watcher_->jobs());
  if (watcher_->session() == Session::none) {
    reporter_.notice({"waiting", "No session yet; waiting for one to start.", {}});
  }
  if (auto ending = followSession(false)) return *ending;
  reporter_.summary(SummaryReport(*watcher_));
  return {};
}

Ending Client::save() {
  if (auto ending = firstLook()) return *ending;
  switch (watcher_->session()) {
    case Session::none:
      return {ExitCode::failed,
              "there is nothing to save: \"" + commandText("collect") + "\" collects and saves"};
    case Session::running:
      return {ExitCode::refused, "a session is running: \"" + commandText("collect") +
                                     "\" joins it and saves it at its end"};
    case Session::finished:
      break;
  }
  return saveSession();
}

Ending Client::clear() {
  ServiceError error;
  bool cleared = service_->clear(&error);
  if (!cleared && error.kind != ServiceError::Kind::timedOut) return endingOf(error);
  if (!cleared) {
    reporter_.notice({"waiting", "The daemon is busy, perhaps saving; it clears after that.", {}});
  }
  // The answer came too late to be heard, but the daemon tells when nothing is left.
  while (!cleared) {
    if (watcher_->refresh(&error)) {
      cleared = watcher_->session() == Session::none;
    } else if (error.kind != ServiceError::Kind::timedOut) {
      return endingOf(error);
    }
    if (cleared) break;
    if (auto ending = afterTurn(watcher_->listen(kFirstJobPatience / 10), {})) return *ending;
  }
  reporter_.notice({"cleared", "Cleared.", {}});
  return {};
}

// --- Their steps ------------------------------------------------------------------------------

std::optional<Ending> Client::firstLook() {
  ServiceError error;
  while (!watcher_->refresh(&error)) {
    if (error.kind != ServiceError::Kind::timedOut) return endingOf(error);
    if (auto ending = afterTurn(watcher_->listen(kTurn), {})) return ending;
  }
  return std::nullopt;
}

std::optional<Ending> Client::startOrJoin() {
  const auto deadline = environment_.now() + kStartPatience;
  for (;;) {
    ServiceError error;
    const auto started = service_->start(&error);
    if (!started) return endingOf(error);
    if (*started) {
      announceStart("Started a session.");
      return std::nullopt;
    }
    if (auto ending = firstLook()) return ending;
    if (watcher_->session() != Session::none) {
      announceSession();
      return std::nullopt;
    }
    if (environment_.now() >= deadline) return startRefused();
    if (auto ending = afterTurn(watcher_->listen(kStartRetryAfter), {})) return ending;
  }
}

std::optional<Ending> Client::followSession(bool startedHere) {
  while (watcher_->session() != Session::finished) {
    if (watcher_->sessionWasCleared()) return sessionLost();
    if (startedHere) {
      if (auto ending = restartIfNothingHappens()) return ending;
    }
    ServiceError error;
    const Turn turn = watcher_->watch(kTurn, &error);
    if (auto ending = afterTurn(turn, error)) return ending;
    if (watcher_->session() != Session::none) reporter_.sessionProgress(watcher_->jobs());
  }
  reporter_.progressEnded();
  return std::nullopt;
}

std::optional<Ending> Client::restartIfNothingHappens() {
  const auto now = environment_.now();
  if (!watcher_->jobs().empty() || now - lastStart_ < kFirstJobPatience) return std::nullopt;
  lastStart_ = now;
  ServiceError error;
  const auto started = service_->start(&error);
  if (!started && error.kind != ServiceError::Kind::timedOut) return endingOf(error);
  if (started && *started) {
    announceStart("The session was cleared before it had recorded anything; started another.");
  }
  return std::nullopt;
}

std::optional<Ending> Client::afterTurn(Turn turn, const ServiceError& error) {
  if (turn == Turn::disconnected) return endingOf(ServiceError::connectionBroke());
  if (error.kind != ServiceError::Kind::none) return endingOf(error);
  std::string text;
  if (turn == Turn::interrupted) text = "interrupted";
  if (reporter_.outputError() != 0) text = outputFailureText(reporter_.outputError());
  if (!text.empty()) {
    if (watcher_->session() != Session::none) {
      text += "; the session stays in the daemon: \"" + commandText("collect") +
              "\" joins it and saves it, \"" + commandText("watch") + "\" shows it";
    }
    return Ending{ExitCode::failed, std::move(text)};
  }
  if (watcher_->daemonBusy() && !std::exchange(busyNoticed_, true)) {
    reporter_.notice({"waiting", "The daemon is busy; waiting.", {}});
  }
  if (watcher_->endIsLate() && !std::exchange(lateEndNoticed_, true)) {
    reporter_.notice({"waiting",
                      "No job runs, and the session has not finished; perhaps the daemon is saving "
                      "it by itself. Waiting.",
                      {}});
  }
  return std::nullopt;
}

Ending Client::saveSession() {
  const SummaryReport report(*watcher_);
  reporter_.summary(report);
  const std::string path = destination_->path(environment_.archiveName);
  const bool archive = destination_->form() == SaveForm::archive;
  JsonObject details = JsonObject()
                           .add("path", path)
                           .add("archive", archive)
                           .add("withoutSensitive", destination_->limited());
  reporter_.notice({"saving", "Saving to " + printable(path), details});

  Ending ending = saver_->save(path, destination_->form(), destination_->limited());
  if (ending.code != ExitCode::success) return ending;
  const std::size_t leftOut = destination_->limited() ? report.sensitiveOutputs() : 0;
  std::string text = "Saved to " + printable(path) + (archive ? fileSizeText(path) : "");
  if (leftOut > 0) text += ", left out " + countText(leftOut, "sensitive result");
  reporter_.notice({"saved", text, details.add("leftOut", leftOut)});
  saved_ = true;
  saver_->waitUntilCleared();
  return ending;
}

// --- Texts ------------------------------------------------------------------------------------

void Client::announceSession() {
  const JobCounts& counts = watcher_->jobs().counts();
  if (const auto& date = watcher_->dateFinished()) {
    reporter_.notice({"found",
                      "Found a session that finished at " + date->description() +
                          ": saving that one. (\"" + commandText("clear") + "\" drops it.)",
                      JsonObject().add("dateFinished", date->secondsSince1970)});
  } else {
    reporter_.notice({"joined",
                      formatted("Joined the running session: %zu running, %zu done, %zu failed.",
                                counts.unfinished, counts.done(), counts.failed),
                      {}});
  }
  reporter_.jobsAtHand(watcher_->jobs());
}

void Client::announceStart(const std::string& text) {
  lastStart_ = environment_.now();
  watcher_->startedHere();
  saver_->sessionStarted();
  reporter_.notice({"started", text, {}});
}

Ending Client::startRefused() const {
  std::string why = "a session is beginning or ending, or a save is under way";
  if (watcher_->session() == Session::running) {
    why = "a session is running; \"" + commandText("watch") + "\" shows it";
  } else if (watcher_->session() == Session::finished) {
    why = "the last session is just ending or being saved";
  }
  return {ExitCode::refused, "the daemon refused to start: " + why};
}

Ending Client::sessionLost() const {
  std::string text = "the session was cleared by another client";
  if (const auto& path = saver_->otherSaves().finished()) text += ", which saved it to " + *path;
  return {ExitCode::failed, std::move(text)};
}

std::string Client::commandText(const char* command) const {
  std::string text = "quillsift ";
  if (commandLine_.socketPath != kDefaultSocketPath) {
    text += "--socket " + printable(commandLine_.socketPath) + " ";
  }
  return text + command;
}

// --- What the daemon tells --------------------------------------------------------------------

void Client::sessionStarted() {
  saver_->sessionStarted();
  if (!saved_) reporter_.notice({"started", "A session has started.", {}});
}

void Client::sessionCleared() {
  // Why it matters to the command, its ending says.
  if (saver_->sessionCleared()) reporter_.notice({"cleared", "", {}});
}

void Client::jobChanged(const QSJobInfo& job) {
  if (!saved_) reporter_.jobChanged(job);
}

void Client::saveReported(const SaveReport& report) {
  saver_->saveReported(report);
}

void Client::unreadableNotification(const std::string& name) {
  reporter_.notice({"unreadable", "Cannot read a message of the daemon: " + printable(name),
                    JsonObject().add("name", name)});
}

}  // namespace quillsift
