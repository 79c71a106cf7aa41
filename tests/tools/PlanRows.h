#pragma once

#include <string>
#include <vector>

#include "collect/CollectionPlan.h"

namespace quillsift::tools {

struct CommandRow {
  Command command;
  std::string member;
  bool sensitive;
};

// The plan's commands, and those that its volume collectors run.
inline std::vector<CommandRow> commandRows() {
  std::vector<CommandRow> rows = {
      {{"/bin/ls", {"-la@OR", "/Volumes/Preboot"}}, "Volume Contents/Preboot/UUID.log", false},
      {{"/usr/bin/find", {"-Px", "/Volumes/Update", "-ls"}},
       "Volume Contents/Update/UUID.log",
       false},
      {{"/usr/bin/tar", {"-cf", "-", "-C", "/Volumes/Preboot", "."}},
       "Logs/Preboot/UUID.tar",
       true},
  };
  for (const PlanItem& item : collectionPlan()) {
    const auto* row = std::get_if<PlanRow>(&item);
    const auto* command = row == nullptr ? nullptr : std::get_if<Command>(&row->source);
    if (command != nullptr) rows.push_back({*command, row->relativePath, isSensitive(*row)});
  }
  return rows;
}

}  // namespace quillsift::tools
