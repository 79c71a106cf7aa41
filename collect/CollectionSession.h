#pragma once

#include <memory>
#include <string>

#include "collect/CollectionHost.h"
#include "collect/CollectionServices.h"
#include "platform/WorkQueues.h"

namespace quillsift {

// One run of the plan, as its collectors see it. Copied into whatever runs later, so the host is
// held weakly: work that outlives the daemon finds nobody and ends.
struct CollectionSession {
  std::string uuid;  // text of the session's UUID
  std::shared_ptr<WorkGroup> group;
  std::weak_ptr<CollectionHost> host;
  std::shared_ptr<const CollectionServices> services;
};

}  // namespace quillsift
