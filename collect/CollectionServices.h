#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "codiagnose/CoDiagnose.h"
#include "collect/VolumeServices.h"
#include "platform/QSData.h"
#include "platform/QSError.h"

namespace quillsift {

// What the plan takes from the rest of the house. None is empty. Any thread.
struct CollectionServices {
  // An XML property list; none when there is nothing to tell, with `error` when it could not be
  // written.
  using Report = std::function<std::optional<QSData>(QSError* error)>;

  std::function<bool()> isVantorInternal;
  std::function<bool()> isVantorSilicon;
  std::function<std::shared_ptr<CoDiagnose>(QSError* error)> makeCoDiagnose;
  std::shared_ptr<VolumeServices> volumes;
  Report provenanceReport;     // the machine's factory data
  Report companionProperties;  // of the companion processor
};

// Those of the machine we run on.
std::shared_ptr<const CollectionServices> hostCollectionServices();

}  // namespace quillsift
