#include <algorithm>
#include <thread>

#include "daemon/QSServiceClient.h"
#include "tests/daemon/DaemonFixture.h"

namespace quillsift {
namespace {

using ListenerTest = DaemonFixture;

TEST_F(ListenerTest, CreatesItsQueuesAndListensUnderTheServiceName) {
  EXPECT_EQ(platform_.serviceConnections().serviceNames(),
            std::vector<std::string>{"io.vantor.quillsiftd"});
  const auto queues = platform_.workQueues().queues();
  ASSERT_EQ(queues.size(), 2u);
  EXPECT_EQ(queues[0].label, "io.vantor.quillsiftd.QSServiceDaemonQueue");
  EXPECT_EQ(queues[0].qos, QOSClass::userInitiated);
  EXPECT_EQ(queues[1].label, "io.vantor.quillsiftd.QSRunQueue");
  EXPECT_EQ(queues[1].qos, QOSClass::utility);
}

TEST_F(ListenerTest, RefusesAPeerWithoutTheEntitlementAndWarns) {
  FakePeer nothingKnown;
  FakePeer denied;
  denied.entitlements[kServiceEntitlement] = false;
  for (const FakePeer& peer : {nothingKnown, denied}) {
    platform_.systemLog().clear();
    const auto admission = platform_.serviceConnections().connect(kServiceName, peer);
    EXPECT_FALSE(admission.accepted);
    EXPECT_FALSE(admission.connection->isResumed());
    EXPECT_TRUE(daemon_->clients().snapshot()->empty());
    EXPECT_EQ(
        platform_.systemLog().lines(),
        (std::vector<LogLine>{{116, "Connection request denied due to missing entitlement."}}));
  }
}

TEST_F(ListenerTest, SetsUpAndResumesTheConnectionOfAnAdmittedPeer) {
  platform_.hostInformation().setExecutablePath(4242, "/usr/bin/some client");
  const auto connection = connect(4242);
  EXPECT_TRUE(connection->isResumed());
  EXPECT_EQ(connection->exportedInterface().name, "io.vantor.quillsiftd.QSServiceServerProtocol");
  EXPECT_EQ(connection->remoteInterface().name, "io.vantor.quillsiftd.QSServiceClientProtocol");
  const auto clients = daemon_->clients().snapshot();
  ASSERT_EQ(clients->size(), 1u);
  const QSServiceClient& client = *clients->front();
  EXPECT_EQ(client.clientPID(), 4242);
  EXPECT_EQ(client.clientAuditIdentifier(), 7);
  EXPECT_EQ(client.clientUID(), 0u);
  EXPECT_EQ(client.clientPath(), "/usr/bin/some client");
  EXPECT_EQ(platform_.systemLog().lines(),
            (std::vector<LogLine>{{118, "Connection Accepted for Client:4242 (some client)"}}));
  const auto queue = platform_.workQueues().queues().back();
  EXPECT_EQ(queue.label, "io.vantor.QSServiceClient.4242");
  EXPECT_EQ(queue.targetLabel, "io.vantor.quillsiftd.QSServiceDaemonQueue");
  EXPECT_EQ(queue.qos, QOSClass::standard);  // of the thread that accepted
}

TEST_F(ListenerTest, APeerWhosePathCannotBeReadIsLoggedWithAPlaceholder) {
  connect(17);
  EXPECT_FALSE(daemon_->clients().snapshot()->front()->clientPath());
  EXPECT_TRUE(platform_.systemLog().contains("Connection Accepted for Client:17 ((null))"));
}

TEST_F(ListenerTest, ClientsThatConnectAtOnceAreEachListedOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i)
    threads.emplace_back([this, i] { connect(100 + i); });
  for (auto& thread : threads)
    thread.join();
  std::vector<pid_t> processes;
  daemon_->clients().forEach(
      [&](QSServiceClient& client) { processes.push_back(client.clientPID()); });
  std::sort(processes.begin(), processes.end());
  ASSERT_EQ(processes.size(), 16u);
  for (int i = 0; i < 16; ++i)
    EXPECT_EQ(processes[static_cast<std::size_t>(i)], 100 + i);
}

TEST_F(ListenerTest, AClientThatDisconnectsLeavesTheListAndEveryReference) {
  const auto connection = connect(5);
  std::weak_ptr<QSServiceClient> client = daemon_->clients().snapshot()->front();
  connection->fireInterruption();
  connection->fireInvalidation();
  platform_.workQueues().drain();
  EXPECT_TRUE(daemon_->clients().snapshot()->empty());
  EXPECT_TRUE(client.expired());
  EXPECT_TRUE(connection->isInvalidated());
  const auto messages = platform_.systemLog().messages();
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[1], "Connection Interrupted for Client:5 ((null))");
  EXPECT_EQ(messages[2], "Connection Invalidated for Client:5 ((null))");
}

TEST_F(ListenerTest, AClientThatWentBeforeItWasListedIsNotListed) {
  ClientList list;
  const auto connection = connect();
  const auto client = daemon_->clients().snapshot()->front();
  list.remove(*client);
  list.append(client);
  EXPECT_TRUE(list.snapshot()->empty());
}

TEST_F(ListenerTest, AWalkThroughTheListIsNotDisturbedByItsChanges) {
  const auto first = connect(1);
  const auto second = connect(2);
  ClientList list;
  daemon_->clients().forEach(
      [&](QSServiceClient& client) { list.append(client.shared_from_this()); });
  std::vector<pid_t> visited;
  list.forEach([&](QSServiceClient& client) {
    list.remove(client);  // and with it goes the list that is walked through
    visited.push_back(client.clientPID());
  });
  EXPECT_EQ(visited, (std::vector<pid_t>{1, 2}));
  EXPECT_TRUE(list.snapshot()->empty());
}

TEST_F(ListenerTest, ASendErrorIsLoggedAndTheClientStays) {
  const auto connection = connect(5);
  connection->fireSendError();
  EXPECT_TRUE(platform_.systemLog().contains("Proxy Error for Client:5 ((null))"));
  EXPECT_EQ(daemon_->clients().snapshot()->size(), 1u);
}

TEST_F(ListenerTest, AnEndpointThatCannotBeHadIsAnError) {
  platform_.serviceConnections().failResume(QSError::posix(EADDRINUSE));
  const auto daemon = QSServiceDaemon::init();
  QSError error;
  EXPECT_FALSE(daemon->startListening(&error));
  EXPECT_EQ(error.code, EADDRINUSE);
}

}  // namespace
}  // namespace quillsift
