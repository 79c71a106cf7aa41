#pragma once

#include <functional>
#include <optional>
#include <string>

namespace quillsift {

enum class SaveForm { archive, directory };

// The name of an archive saved now; `limited` for one without the sensitive jobs.
using ArchiveNamer = std::function<std::string(bool limited)>;

// Where a save goes, made absolute and checked before anything is collected for it. A destination
// that this process cannot look at is left for the daemon, which may see more, to judge.
class Destination {
 public:
  // `given` as typed; none is the current directory. An existing directory gets an archive of the
  // default name inside. As the form of the save it must be empty or missing: a directory save
  // that fails deletes it with all it holds. None and `problem` when nothing can be saved there.
  static std::optional<Destination> resolve(const std::optional<std::string>& given, SaveForm form,
                                            bool limited, std::string* problem);

  // Absolute. The default name carries the date, so this is asked when the save begins.
  std::string path(const ArchiveNamer& name) const;
  SaveForm form() const { return form_; }
  bool limited() const { return limited_; }

 private:
  Destination(std::string path, bool named, SaveForm form, bool limited);

  std::string path_;
  bool named_;  // else `path_` is the directory in which the default name goes
  SaveForm form_;
  bool limited_;
};

}  // namespace quillsift
