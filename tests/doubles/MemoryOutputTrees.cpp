#include "tests/doubles/MemoryOutputTrees.h"

#include <cerrno>
#include <utility>

#include "platform/Text.h"

namespace quillsift {

struct MemoryOutputTrees::State {
  // False and errno when the call is to fail.
  bool begin(const Call& call) {
    MutexLock lock(mutex);
    calls.push_back(call);
    const auto hook = onCall;
    int code = 0;
    for (const std::string& path : {std::string(), call.path}) {
      const auto failure = failures.find({call.operation, path});
      if (failure != failures.end() && failure->second != 0) code = failure->second;
    }
    lock.unlock();
    if (hook) hook(call);
    if (code != 0) errno = code;
    return code == 0;
  }

  Mutex mutex;
  std::map<std::pair<std::string, std::string>, int> failures QS_GUARDED_BY(mutex);
  std::function<void(const Call&)> onCall QS_GUARDED_BY(mutex);
  std::vector<Call> calls QS_GUARDED_BY(mutex);
  std::map<std::string, File> files QS_GUARDED_BY(mutex);
  std::set<std::string> directories QS_GUARDED_BY(mutex);
};

class MemoryOutputTrees::Tree : public OutputTree {
 public:
  Tree(std::shared_ptr<State> state, std::string path)
      : state_(std::move(state)), path_(std::move(path)) {}

  bool makeParentOf(const std::string& relativePath) override {
    const std::string path = joinedPath(path_, relativePath);
    const std::string parent = path.substr(0, path.rfind('/'));
    if (!state_->begin({"makeParentOf", path})) return false;
    MutexLock lock(state_->mutex);
    if (!state_->files.contains(parent)) state_->directories.insert(parent);
    return true;
  }

  bool writeFile(const std::string& relativePath, std::span<const std::byte> bytes,
                 const OutputFileAttributes& attributes) override {
    const std::string path = joinedPath(path_, relativePath);
    if (!state_->begin({"writeFile", path})) return false;
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    MutexLock lock(state_->mutex);
    if (state_->files.contains(path.substr(0, path.rfind('/')))) {
      errno = ENOTDIR;
      return false;
    }
    state_->files[path] = {std::string(text), attributes};
    return true;
  }

  void removeWithEverything() override {
    if (!state_->begin({"removeWithEverything", path_})) return;
    MutexLock lock(state_->mutex);
    const std::string prefix = joinedPath(path_, "");
    std::erase_if(state_->files, [&](const auto& file) { return file.first.starts_with(prefix); });
    std::erase_if(state_->directories, [&](const std::string& directory) {
      return directory == path_ || directory.starts_with(prefix);
    });
  }

 private:
  const std::shared_ptr<State> state_;
  const std::string path_;
};

MemoryOutputTrees::MemoryOutputTrees() : state_(std::make_shared<State>()) {}

void MemoryOutputTrees::fail(const std::string& operation, int code) {
  fail(operation, "", code);
}

void MemoryOutputTrees::fail(const std::string& operation, const std::string& path, int code) {
  MutexLock lock(state_->mutex);
  state_->failures[{operation, path}] = code;
}

void MemoryOutputTrees::onCall(std::function<void(const Call& call)> hook) {
  MutexLock lock(state_->mutex);
  state_->onCall = std::move(hook);
}

void MemoryOutputTrees::addFile(const std::string& path, std::string content) {
  MutexLock lock(state_->mutex);
  state_->files[path] = {std::move(content), {}};
}

std::vector<MemoryOutputTrees::Call> MemoryOutputTrees::calls() const {
  MutexLock lock(state_->mutex);
  return state_->calls;
}

std::map<std::string, MemoryOutputTrees::File> MemoryOutputTrees::files() const {
  MutexLock lock(state_->mutex);
  return state_->files;
}

std::set<std::string> MemoryOutputTrees::directories() const {
  MutexLock lock(state_->mutex);
  return state_->directories;
}

std::unique_ptr<OutputTree> MemoryOutputTrees::makeDirectory(const std::string& path) {
  if (!state_->begin({"makeDirectory", path})) return nullptr;
  MutexLock lock(state_->mutex);
  state_->directories.insert(path);
  return std::make_unique<Tree>(state_, path);
}

}  // namespace quillsift
