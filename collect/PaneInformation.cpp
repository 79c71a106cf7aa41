#include "collect/PaneInformation.h"

#include <utility>

#include "collect/WorkResult.h"
#include "platform/Platform.h"

namespace quillsift {

namespace {

constexpr const char* kToolOutput = "/private/tmp/PaneServer.external.pinfo.plist";

}  // namespace

WorkBlock paneInformationWork(const std::string& tool) {
  return [tool](std::shared_ptr<const QSJobEntry>* entry, QSError* error) {
    const LaunchRequest request{
        .executablePath = tool, .arguments = {}, .qos = currentQOS(), .captureOutput = false};
    const auto child = Platform::current().processLauncher->launch(request, error);
    if (!child) return false;
    (void)child->waitUntilExit();
    auto data = Platform::current().fileSystem->readWholeFile(kToolOutput, error);
    if (!data) return false;
    return giveEntry(entry, std::move(data));
  };
}

}  // namespace quillsift
