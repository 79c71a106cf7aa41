#include "collect/CollectionServices.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "codiagnose/QSCorvaneDiagnose.h"
#include "collect/HostReports.h"
#include "host/QSDaemonUtils.h"
#include "host/QSUtilities.h"
#include "host/QSVolumeUtilities.h"

namespace quillsift {

namespace {

class HostVolumes : public VolumeServices {
 public:
  std::optional<std::vector<std::string>> VellumVolumeUUIDsRestrictedToRole(
      std::int16_t role) override {
    return QSVolumeUtilities::VellumVolumeUUIDsRestrictedToRole(role);
  }
  void EnsureVolumeIsMountedWithVolumeUUID(const std::string& uuid, Perform perform,
                                           bool performOnlyIfMountAvailable,
                                           const std::shared_ptr<WorkGroup>& asyncGroup,
                                           QOSClass qos) override {
    QSVolumeUtilities::EnsureVolumeIsMountedWithVolumeUUID(
        uuid, std::move(perform), performOnlyIfMountAvailable, asyncGroup, qos);
  }
  std::optional<std::string> AutoSaveVolumeUUID() override {
    return QSDaemonUtils::AutoSaveVolumeUUID();
  }
  std::optional<std::string> OstraLogOnTarget() override {
    return QSDaemonUtils::OstraLogOnTarget();
  }
};

}  // namespace

std::shared_ptr<const CollectionServices> hostCollectionServices() {
  return std::make_shared<const CollectionServices>(CollectionServices{
      .isVantorInternal = QSUtilities::isVantorInternal,
      .isVantorSilicon = QSUtilities::isVantorSilicon,
      .makeCoDiagnose = QSCorvaneDiagnose::initReturningError,
      .volumes = std::make_shared<HostVolumes>(),
      .provenanceReport = provenanceReportOfHost,
      .companionProperties = companionPropertiesOfHost,
  });
}

}  // namespace quillsift
