#pragma once

#include <memory>

#include "collect/CollectionHost.h"
#include "collect/CollectionServices.h"
#include "platform/QSUUID.h"

namespace quillsift {

// Carries out the collection plan. Holds no state of a session: any number of runs, one after
// another or side by side.
class CollectionRunner {
 public:
  explicit CollectionRunner(
      std::shared_ptr<const CollectionServices> services = hostCollectionServices());

  // One session, on the calling thread, for as long as it lasts: at most the sum of the plan's
  // waits, plus what the system-log export, the autosave and the answers of the accessory agent and
  // of the device registry take. Queues every job through `host`, which is kept alive meanwhile;
  // what is still running when this returns holds it weakly. No job's failure shows here.
  void run(const QSUUID& sessionUUID, const std::shared_ptr<CollectionHost>& host) const;

 private:
  const std::shared_ptr<const CollectionServices> services_;
};

}  // namespace quillsift
