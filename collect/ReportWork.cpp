#include "collect/ReportWork.h"

#include <utility>

#include "collect/WorkResult.h"

namespace quillsift {

WorkBlock reportWork(CollectionServices::Report report) {
  return [report = std::move(report)](std::shared_ptr<const QSJobEntry>* entry, QSError* error) {
    if (entry == nullptr) return false;
    auto data = report(error);
    if (!data) return false;
    return giveEntry(entry, std::move(data));
  };
}

}  // namespace quillsift
