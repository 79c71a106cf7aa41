#include "collect/ScreenCaptures.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "collect/CollectionPlan.h"
#include "collect/WorkResult.h"
#include "host/SystemLogging.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr std::size_t kMostDisplays = 8;

WorkBlock captureWork(std::uint32_t display) {
  return [display](std::shared_ptr<const QSJobEntry>* entry, QSError*) {
    const auto image = Platform::current().displays->capture(display);
    if (!image) {
      logToSystem(kLogWarning, "Failed to construct a ScreenGrabImage with displayID %d",
                  static_cast<int>(display));
      return false;
    }
    auto png = image->encodeAsPNG();
    if (!png) {
      logToSystem(kLogWarning, "Failed to ImageSinkFinalize with displayID %d",
                  static_cast<int>(display));
      return false;
    }
    return giveEntry(entry, std::move(png));
  };
}

void queueCaptures(const CollectionSession& session, const PlanRow& row) {
  Displays& screens = *Platform::current().displays;
  std::vector<std::uint32_t> displays;
  if (const int code = screens.activeDisplays(kMostDisplays, &displays); code != 0) {
    logToSystem(kLogWarning,
                "Failed to invoke ScreenListActive to get list of active "
                "displays for screenshoting. Error:%d",
                code);
    return;
  }
  const auto host = session.host.lock();
  if (!host) return;
  for (std::size_t i = 0; i < displays.size(); ++i) {
    if (screens.mirrorsAnother(displays[i])) continue;
    host->_runJob(captureWork(displays[i]), row.relativePath + std::to_string(i) + ".png",
                  isSensitive(row), qosToQueue(row), session.group, session.uuid);
  }
}

}  // namespace

void queueScreenCaptures(const CollectionSession& session, const PlanRow& row) {
  Platform::current()
      .workQueues->global(QOSClass::userInitiated)
      .asyncInGroup(session.group, [session, &row] { queueCaptures(session, row); });
}

}  // namespace quillsift
