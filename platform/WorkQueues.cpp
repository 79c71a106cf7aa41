#include "platform/WorkQueues.h"

#include <utility>

namespace quillsift {

namespace {

class GroupMember {
 public:
  explicit GroupMember(std::shared_ptr<WorkGroup> group) : group_(std::move(group)) {}
  ~GroupMember() { group_->leave(); }
  GroupMember(const GroupMember&) = delete;
  GroupMember& operator=(const GroupMember&) = delete;

 private:
  std::shared_ptr<WorkGroup> group_;
};

}  // namespace

void WorkQueue::asyncInGroup(const std::shared_ptr<WorkGroup>& group, Task task) {
  group->enter();
  async([member = std::make_shared<GroupMember>(group), task = std::move(task)]() mutable {
    // Both are moved into the call, so that what the task holds is gone before the group is left.
    const std::shared_ptr<GroupMember> held = std::move(member);
    const Task running = std::move(task);
    running();
  });
}

}  // namespace quillsift
