#include "collect/WholeFileRead.h"

#include <utility>

#include "collect/WorkResult.h"
#include "platform/Platform.h"

namespace quillsift {

WorkBlock wholeFileReadWork(std::string path) {
  return [path = std::move(path)](std::shared_ptr<const QSJobEntry>* entry, QSError*) {
    if (entry == nullptr) return true;
    return giveEntry(entry, Platform::current().fileSystem->readWholeFile(path, nullptr));
  };
}

}  // namespace quillsift
