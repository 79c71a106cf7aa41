#include "collect/PlanListing.h"

#include "codiagnose/QSCorvaneDiagnose.h"
#include "collect/CollectionPlan.h"

namespace quillsift {

namespace {

using Kind = PlanFact::Kind;

// A visitor that adds the facts of one row.
struct FactsOf {
  const PlanRow& row;
  std::vector<PlanFact>& facts;

  void add(Kind kind, const std::string& path = "", std::vector<std::string> arguments = {}) const {
    std::string member = row.relativePath;
    if (member.empty() || member.ends_with('/')) member += "<name>";
    facts.push_back(
        {kind, std::move(member), isSensitive(row), hosts(), path, std::move(arguments)});
  }
  std::string hosts() const {
    switch (row.condition.hosts) {
      case PlanHosts::all:
        return "always";
      case PlanHosts::internal:
        return "internal";
      case PlanHosts::vantorSilicon:
        return "vantor-silicon";
      case PlanHosts::otherSilicon:
        return "other-silicon";
    }
    return "";
  }

  void operator()(const Command& command) const {
    add(Kind::command, command.program, command.arguments);
  }
  void operator()(const FileCopy& copy) const { add(Kind::file, copy.path); }
  void operator()(const LocatedFileCopy&) const { add(Kind::own); }
  void operator()(const EntryCopies& entries) const { add(Kind::directory, entries.directory); }
  void operator()(const EntryReads& entries) const { add(Kind::directory, entries.directory); }
  void operator()(const Work& work) const {
    // A source that is no path is something to print.
    if (!work.source.starts_with('/')) return add(Kind::own);
    add(work.source.ends_with('/') ? Kind::directory : Kind::command, work.source);
  }
  void operator()(const Report&) const { add(Kind::own); }
  void operator()(const Producer&) const { add(Kind::own); }
  void operator()(const PerVolume& volumes) const {
    for (const VolumeMember& member : volumeMembers(volumes.role)) {
      facts.push_back({member.program.empty() ? Kind::own : Kind::command,
                       std::string(member.path),
                       member.sensitive,
                       hosts(),
                       std::string(member.program),
                       {}});
    }
  }
  void operator()(const CoDiagnoseArchive&) const {
    facts.push_back({Kind::own, kDefaultArchiveName, isSensitive(row), hosts(), "", {}});
  }
};

const char* nameOf(Kind kind) {
  switch (kind) {
    case Kind::command:
      return "command";
    case Kind::file:
      return "file";
    case Kind::directory:
      return "directory";
    case Kind::own:
      return "own";
  }
  return "";
}

}  // namespace

std::vector<PlanFact> planFacts() {
  std::vector<PlanFact> facts;
  for (const PlanItem& item : collectionPlan()) {
    if (const auto* row = std::get_if<PlanRow>(&item))
      std::visit(FactsOf{*row, facts}, row->source);
  }
  return facts;
}

std::string planListing() {
  std::string text;
  for (const PlanFact& fact : planFacts()) {
    text += std::string(nameOf(fact.kind)) + "\t" + fact.member + "\t" +
            (fact.sensitive ? "sensitive" : "public") + "\t" + fact.hosts + "\t" + fact.path;
    for (const std::string& argument : fact.arguments)
      text += "\t" + argument;
    text += "\n";
  }
  return text;
}

}  // namespace quillsift
