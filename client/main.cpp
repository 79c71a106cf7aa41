// quillsift: what a person at a rescue console types.

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "client/Client.h"
#include "client/CommandLine.h"
#include "client/Interrupts.h"
#include "client/JsonReporter.h"
#include "client/LiveReporter.h"
#include "client/PlainReporter.h"
#include "host/QSUtilities.h"
#include "platform/Platform.h"
#include "platform/Text.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/LinuxRemoteServiceConnector.h"
#include "platform/linux/ProcessExecutable.h"

namespace quillsift {
namespace {

// A standard descriptor that was closed would be the next one handed out: the connection to the
// daemon would get our messages. What takes its place can neither be read nor written to.
void occupyStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) != -1) continue;
    // The lowest free number is this one.
    if (::open("/", O_PATH | O_CLOEXEC) != descriptor) std::_Exit(1);
  }
}

// Whether a view can be redrawn in place there.
bool isCapableTerminal(int descriptor) {
  const char* kind = std::getenv("TERM");
  const std::string_view name = kind == nullptr ? "" : kind;
  return ::isatty(descriptor) == 1 && !name.empty() && name != "dumb";
}

std::unique_ptr<Reporter> makeReporter(const CommandLine& commandLine, Output& out, Output& err) {
  if (commandLine.json) return std::make_unique<JsonReporter>(out, err);
  if (!isCapableTerminal(out.descriptor())) return std::make_unique<PlainReporter>(out, err);
  return std::make_unique<LiveReporter>(out, err, std::chrono::steady_clock::now,
                                        [&out] { return terminalSize(out.descriptor()); });
}

// The tree that the daemon uses, so that both of them give an archive the same name.
std::string platformTree() {
  const std::string executable = executableOf(::getpid());
  const std::size_t slash = executable.rfind('/');
  if (slash == std::string::npos) return "";
  return joinedPath(executable.substr(0, slash + 1), QUILLSIFT_TREE_FROM_BIN);
}

QSDate now() {
  timespec time{};
  (void)Platform::current().hostInformation->realTime(&time);  // 1970 in a name beats no save
  return {static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9};
}

std::string archiveName(bool limited) {
  return QSUtilities::ArchiveNameGivenDate(now(), limited);
}

int run(int argc, char** argv) {
  occupyStandardDescriptors();
  std::signal(SIGPIPE, SIG_IGN);
  std::setlocale(LC_CTYPE, "");  // what the terminal can show; numbers stay as they are

  Output out(STDOUT_FILENO);
  Output err(STDERR_FILENO);
  const ParsedCommandLine parsed = parseCommandLine(argc, argv);
  out.write(parsed.output);
  err.write(parsed.error);
  if (!parsed.commandLine) {
    return static_cast<int>(out.error() == 0 ? parsed.exitCode : ExitCode::failed);
  }

  QSError error;
  const int interrupts = Interrupts::install(&error);
  if (interrupts == -1) {
    writeFailure(err, {ExitCode::failed, "cannot take signals: " + error.description()});
    return static_cast<int>(ExitCode::failed);
  }
  Platform::install(makeLinuxPlatform({.treeDirectory = platformTree(), .socketPath = {}}));
  LinuxRemoteServiceConnector connector;
  const auto reporter = makeReporter(*parsed.commandLine, out, err);
  Client client(*parsed.commandLine, {.connector = connector,
                                      .reporter = *reporter,
                                      .now = std::chrono::steady_clock::now,
                                      .archiveName = archiveName,
                                      .interruptDescriptor = interrupts});
  return static_cast<int>(client.run());
}

}  // namespace
}  // namespace quillsift

int main(int argc, char** argv) {
  return quillsift::run(argc, argv);
}
