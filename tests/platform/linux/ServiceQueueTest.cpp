// The serial queue that shares a thread with the connections.

#include <gtest/gtest.h>
#include <pthread.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/linux/LinuxServiceConnections.h"
#include "platform/linux/LinuxWorkQueues.h"
#include "tests/platform/linux/ServiceFixture.h"

namespace quillsift {
namespace {

std::string threadName() {
  char name[16] = "";
  ::pthread_getname_np(::pthread_self(), name, sizeof(name));
  return name;
}

class ServiceQueueTest : public ::testing::Test {
 protected:
  ServiceQueueTest()
      : connections_(std::in_place, queues_, directory_.path("socket")),
        listener_(connections_->makeListener("io.vantor.test")),
        queue_(connections_->makeQueue("queue", QOSClass::userInitiated)) {
    listener_->setAcceptHandler([](const std::shared_ptr<ServiceConnection>&) { return false; });
  }

  std::string threadOfATask() {
    std::string name;
    queue_->sync([&] { name = threadName(); });
    return name;
  }

  const testing::ScratchDirectory directory_;
  LinuxWorkQueues queues_;
  std::optional<LinuxServiceConnections> connections_;
  std::unique_ptr<ServiceListener> listener_;
  std::shared_ptr<SerialQueue> queue_;
};

TEST_F(ServiceQueueTest, SharesTheThreadOfTheConnectionsWhileThereIsOne) {
  EXPECT_EQ(threadOfATask(), "qs-25-serial");
  ASSERT_TRUE(listener_->resume(nullptr));
  EXPECT_EQ(threadOfATask(), "service");
  listener_.reset();
  connections_.reset();
  EXPECT_EQ(threadOfATask(), "qs-25-serial");
}

TEST_F(ServiceQueueTest, KeepsTheOrderOfItsTasks) {
  ASSERT_TRUE(listener_->resume(nullptr));
  std::vector<int> order;
  for (int i = 0; i < 1000; ++i)
    queue_->async([&order, i] { order.push_back(i); });
  queue_->sync([] {});
  ASSERT_EQ(order.size(), 1000U);
  for (int i = 0; i < 1000; ++i)
    EXPECT_EQ(order.at(static_cast<std::size_t>(i)), i);
}

TEST_F(ServiceQueueTest, RunsWhatWaitsWhenTheConnectionsGo) {
  ASSERT_TRUE(listener_->resume(nullptr));
  int run = 0;
  for (int i = 0; i < 1000; ++i)
    queue_->async([&] { ++run; });
  listener_.reset();
  connections_.reset();
  queue_->sync([] {});
  EXPECT_EQ(run, 1000);
}

TEST_F(ServiceQueueTest, HasItsClassAndKnowsItsTasks) {
  ASSERT_TRUE(listener_->resume(nullptr));
  const auto client = queues_.makeSerialQueue("client", QOSClass::standard, queue_);
  bool current = false;
  QOSClass qos = QOSClass::utility;
  client->sync([&] { current = queue_->isCurrent(); });
  queue_->sync([&] { qos = currentQOS(); });
  EXPECT_TRUE(current);
  EXPECT_EQ(qos, QOSClass::userInitiated);
  EXPECT_FALSE(queue_->isCurrent());
  EXPECT_THROW(queue_->sync([] { throw std::runtime_error("thrown"); }), std::runtime_error);
}

}  // namespace
}  // namespace quillsift
