#include "collect/PrebootReadme.h"

#include "collect/WorkResult.h"

namespace quillsift {

const char* const kPrebootLogsLink = QUILLSIFT_PREBOOT_LOGS_LINK;

WorkBlock prebootReadmeWork(const std::string& link) {
  return [link](std::shared_ptr<const QSJobEntry>* entry, QSError*) {
    return giveEntry(entry,
                     QSData("If there are any tar files in this directory, then they "
                            "represent the Syslore Archive for the preboot volume in the "
                            "filename.\n"
                            "\n"
                            "The logarchive can be generated using the instructions here:\n" +
                            link + "\n"));
  };
}

}  // namespace quillsift
