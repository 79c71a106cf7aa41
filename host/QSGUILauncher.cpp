#include "host/QSGUILauncher.h"

#include <atomic>
#include <memory>
#include <system_error>

#include "host/SystemLogging.h"
#include "platform/Platform.h"

namespace quillsift {

namespace {

constexpr const char* kExecutable =
    "/System/Installation/CDIS/Quillsift GUI.app/Contents/LuminaOS/Quillsift GUI";
constexpr int kUnknownStatus = -1;

// Whether a front end started here runs or is being started.
std::atomic<bool> launched{false};

int statusOf(ChildProcess& child) {
  try {
    return child.waitUntilExit();
  } catch (const std::system_error&) {
    return kUnknownStatus;  // ended, and somebody else was told how
  }
}

void waitForEnd(ChildProcess& child) {
  const int status = statusOf(child);
  if (status != 0) {
    logToSystem(kLogError, "Quillsift GUI GUI application terminated unsuccessfully. Status: %d",
                status);
  } else {
    logToSystem(kLogInfo, "Quillsift GUI GUI application terminated successfully.");
  }
  launched.exchange(false);
}

}  // namespace

void QSGUILauncher::launch() {
  bool expected = false;
  if (!launched.compare_exchange_strong(expected, true)) return;
  QSError error;
  const auto child = Platform::current().processLauncher->launch(
      {.executablePath = kExecutable, .captureOutput = false}, &error);
  if (!child) {
    logToSystem(kLogInfo, "Failed to open:\"%s\" with Error:%s", kExecutable,
                error.description().c_str());
    launched.exchange(false);
    return;
  }
  // Waits for this child only: those of the jobs are waited for by their jobs.
  Platform::current().workQueues->global(QOSClass::utility).async([child] { waitForEnd(*child); });
}

}  // namespace quillsift
