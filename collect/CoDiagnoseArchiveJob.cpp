#include "collect/CoDiagnoseArchiveJob.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "codiagnose/QSCorvaneDiagnose.h"
#include "collect/CollectionPlan.h"
#include "collect/PlanListing.h"
#include "collect/WorkResult.h"
#include "host/SystemLogging.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

// The bytes themselves have no place in a log.
std::string describe(const std::optional<QSData>& data) {
  return data ? formatted("%zu bytes", data->length()) : kNullText;
}

// Whether a result of the plan, or a directory of results, stands at the top under this name.
bool isOfThePlan(const std::string& name) {
  const std::vector<PlanFact> facts = planFacts();
  return std::any_of(facts.begin(), facts.end(), [&](const PlanFact& fact) {
    return fact.member != kDefaultArchiveName &&
           fact.member.substr(0, fact.member.find('/')) == name;
  });
}

// The archive's name as that of a file in the saved archive. It comes from the companion, and must
// neither lead to another place nor stand where something else does: a save into a directory would
// fail, or lose one of the two. So it is one component, of a length that file systems take.
std::string memberName(const std::string& archiveName) {
  constexpr std::size_t kLongestName = 255;
  constexpr char kReplacement = '-';
  std::string name = validUTF8(archiveName);
  for (char& character : name) {
    const bool control = static_cast<unsigned char>(character) < ' ' || character == '\x7f';
    if (control || character == '/') character = kReplacement;
  }
  const bool usable = !name.empty() && name != "." && name != ".." && name.size() <= kLongestName &&
                      !isOfThePlan(name);
  return usable ? name : kDefaultArchiveName;
}

WorkBlock archiveWork(const std::shared_ptr<CoDiagnose>& coDiagnose, std::optional<QSData> data,
                      QSError readError) {
  return
      [weakly = std::weak_ptr(coDiagnose), data = std::move(data),
       readError = std::move(readError)](std::shared_ptr<const QSJobEntry>* entry, QSError* error) {
        const auto companion = weakly.lock();
        const bool archiveValid = companion && companion->archiveValid();
        if (data && archiveValid) return giveEntry(entry, data);
        const auto handle = companion ? companion->remoteDiagnosticHandle() : nullptr;
        setError(error, readError);
        logToSystem(kLogError,
                    "Failed to archive Corvane diagnose. (Handle Valid: %d, Archive "
                    "Valid: %d, Archive Data: %s, Read Error: %s)",
                    handle && handle->valid() ? 1 : 0, archiveValid ? 1 : 0, describe(data).c_str(),
                    orNull(readError).c_str());
        return false;
      };
}

void readAndQueue(const CollectionSession& session, const PlanRow& row,
                  std::shared_ptr<CoDiagnose> coDiagnose) {
  std::optional<QSData> data;
  QSError readError;
  if (const auto handle = coDiagnose->remoteDiagnosticHandle())
    data = handle->readToEnd(&readError);
  const auto group = Platform::current().workQueues->makeGroup();
  if (const auto host = session.host.lock()) {
    host->_runJob(archiveWork(coDiagnose, std::move(data), std::move(readError)),
                  memberName(coDiagnose->archiveName()), isSensitive(row), qosToQueue(row), group,
                  session.uuid);
  }
  coDiagnose.reset();
  group->wait();
}

}  // namespace

void queueCoDiagnoseArchive(const CollectionSession& session, const PlanRow& row,
                            std::shared_ptr<CoDiagnose> coDiagnose) {
  const auto queue = Platform::current().workQueues->makeSerialQueue(
      "io.vantor.quillsiftd.CorvaneReadHandle", QOSClass::standard);
  queue->asyncInGroup(session.group, [session, &row, companion = std::move(coDiagnose)]() mutable {
    readAndQueue(session, row, std::move(companion));
  });
}

}  // namespace quillsift
