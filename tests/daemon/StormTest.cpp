#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "daemon/KernelEvents.h"
#include "platform/linux/LinuxPipe.h"
#include "tests/daemon/DaemonFixture.h"

namespace quillsift {
namespace {

constexpr const char* kArchive = "corvane_7.tar.gz";
constexpr int kSessions = 60;
constexpr const char* kRemoteService = "io.vantor.omnitrawl.remote";

// Asked once by the body of each session, on its own thread: so it sees two that run at once.
class CountingAgent : public RecoveryAgent {
 public:
  bool enableAutomaticApproval(QSError*) override { return true; }
  bool enableNotifications(QSError*) override {
    if (inside_.fetch_add(1) != 0) overlapped_ = true;
    for (int i = 0; i < 20; ++i)
      std::this_thread::yield();
    --inside_;
    ++sessions_;
    return true;
  }
  int sessions() const { return sessions_; }
  bool overlapped() const { return overlapped_; }

 private:
  std::atomic<int> inside_ = 0;
  std::atomic<int> sessions_ = 0;
  std::atomic<bool> overlapped_ = false;
};

// The device's side of every connection: it answers each in another way, or in the same.
class Companion {
 public:
  enum class Manner { good, failing, breaking, dying, stalling, eachInTurn };

  explicit Companion(const FakeRemoteDeviceService& service) : service_(service) {}

  // Behaves like this from the next connection on.
  void setManner(Manner manner) { manner_ = manner; }

  // Until told to stop.
  void run(const std::atomic<bool>& stop) {
    std::shared_ptr<FakeRemoteConnection> last;
    for (std::size_t turn = 0; !stop; std::this_thread::yield()) {
      const auto connection = service_.connection();
      if (connection == nullptr || connection == last || connection->sent().empty()) continue;
      last = connection;
      const Manner manner = manner_;
      constexpr auto kManners = static_cast<std::size_t>(Manner::eachInTurn);
      answer(*connection,
             manner == Manner::eachInTurn ? static_cast<Manner>(turn++ % kManners) : manner);
    }
  }

 private:
  static void answer(FakeRemoteConnection& connection, Manner manner) {
    const RemoteEvent death{RemoteEvent::Kind::error, {}, "dead"};
    if (manner == Manner::stalling) return;
    if (manner == Manner::dying) return connection.deliver(death);
    RemoteDictionary response;
    response.values.insert_or_assign("RESPONSE_TYPE",
                                     WireValue(std::uint64_t{manner == Manner::failing ? 2U : 1U}));
    response.values.insert_or_assign("FILE_NAME", WireValue(std::string(kArchive)));
    if (manner == Manner::failing) return connection.deliver(response);
    const auto file = connection.makeFile();
    response.files["FILE_TX"] = file;
    connection.deliver(response);
    // It may be that nobody asks any more.
    while (file->destination() < 0 && !connection.cancelled())
      std::this_thread::yield();
    (void)file->write("archive");
    file->end(manner == Manner::good ? 0 : EIO);
    if (manner == Manner::breaking) connection.deliver(death);
  }

  const FakeRemoteDeviceService& service_;
  std::atomic<Manner> manner_ = Manner::eachInTurn;
};

class StormTest : public DaemonFixture {
 protected:
  StormTest() {
    device_->services[kRemoteService] = service_;
    platform_.remoteDevices().add(3, device_);
    platform_.remoteDevices().takePipesFrom([] { return makeLinuxPipe(); });
    auto agent = std::make_unique<CountingAgent>();
    agent_ = agent.get();
    Platform::current().recoveryAgent = std::move(agent);
    port_ = KernelEventPort::open(daemon_, &code_);
  }

  void startSession() {
    if (start()) ++accepted_;
  }
  // At most one for each session that has begun. Else, where sessions are slow, starts that nobody
  // wants any more would queue up without end.
  void clearOnce() {
    const int begun = agent_->sessions();
    if (std::exchange(begunAtLastClear_, begun) != begun) daemon_->clearRecoveryData();
  }
  void kernelEvent() {
    (void)platform_.kernelMessages().deliver({makeKernelRequest(31338, 55), makeKernelTrailer({})});
  }
  void save(int number) {
    const std::string name = "save-" + std::to_string(number);
    const bool asArchive = number % 2 == 0;
    daemon_->saveQuillsiftToDestination(asArchive ? output(name) : "/" + name, asArchive, true,
                                        nullptr);
  }
  void watch(int number) {
    const auto client = connect(number + 100);
    std::optional<QSDate> date;
    const auto jobs = daemon_->getCurrentJobInfosWithDate(&date);
    // The end is told with the jobs that it ended, or not at all.
    EXPECT_TRUE(!date || !jobs.empty());
    client->fireInvalidation();
  }
  // As long as anybody waits for the time. Its pace is that of the queues and of the session's
  // lock, not a count of yields: one costs next to nothing on an idle machine, and a whole slice of
  // time where others compute.
  void turnTheClock(const std::atomic<bool>& stop) {
    for (; !stop; std::this_thread::yield()) {
      if (platform_.workQueues().parked() == 0 || platform_.workQueues().ready() > 0) continue;
      (void)daemon_->currentlyTakingQuillsift();
      daemon_->serviceQueue()->sync([] {});
      platform_.workQueues().advance(std::chrono::seconds(1));
    }
  }
  int sessionsOfTheKernel() {
    const auto flashes = platform_.visualFlash().flashes();
    return static_cast<int>(std::count(flashes.begin(), flashes.end(), std::nullopt));
  }

  const std::shared_ptr<FakeRemoteDevice> device_ = std::make_shared<FakeRemoteDevice>("corvane0");
  const std::shared_ptr<FakeRemoteDeviceService> service_ =
      std::make_shared<FakeRemoteDeviceService>();
  Companion companion_{*service_};
  CountingAgent* agent_ = nullptr;  // owned by the platform
  std::atomic<int> accepted_ = 0;
  int begunAtLastClear_ = 0;  // of the one thread that clears
  int code_ = -1;
  std::unique_ptr<KernelEventPort> port_;
};

TEST_F(StormTest, OfStartsClearsSavesEventsAndDyingCompanionsLeavesAWorkingDaemon) {
  std::atomic<bool> stop = false;
  std::thread clock([&] { turnTheClock(stop); });
  std::atomic<bool> stopCompanion = false;
  std::thread companion([&] { companion_.run(stopCompanion); });

  // Each calls again and again, with so many others let go first, until there has been enough.
  std::vector<std::thread> callers;
  const auto keep = [&](std::function<void(int)> call, int others) {
    callers.emplace_back([this, others, call = std::move(call)] {
      for (int i = 0; agent_->sessions() < kSessions; ++i) {
        call(i);
        for (int j = 0; j < others; ++j)
          std::this_thread::yield();
      }
    });
  };
  keep([this](int) { startSession(); }, 10);
  keep([this](int) { startSession(); }, 10);
  keep([this](int) { kernelEvent(); }, 20);
  keep([this](int) { clearOnce(); }, 100);
  keep([this](int i) { save(i % 8); }, 100);
  keep([this](int i) { save(8 + i % 8); }, 100);
  keep([this](int i) { watch(i); }, 50);
  for (std::thread& caller : callers)
    caller.join();
  platform_.workQueues().drain();
  stop = true;
  clock.join();

  RecordProperty("sessions", agent_->sessions());
  EXPECT_FALSE(agent_->overlapped());
  EXPECT_GT(accepted_, 0);
  EXPECT_EQ(agent_->sessions(), accepted_ + sessionsOfTheKernel());
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
  EXPECT_FALSE(daemon_->quillsiftSaveLock().isHeld());
  EXPECT_EQ(daemon_->clients().snapshot()->size(), 0U);

  // One more in the quiet is as good as any, without a turn of the clock.
  companion_.setManner(Companion::Manner::good);
  runSession();
  std::optional<QSDate> date;
  const auto jobs = daemon_->getCurrentJobInfosWithDate(&date);
  EXPECT_TRUE(date);
  EXPECT_EQ(
      std::count_if(jobs.begin(), jobs.end(),
                    [](const QSJobInfo& job) { return job.relativeFilePathAndName() == kArchive; }),
      1);
  save(0);
  EXPECT_TRUE(std::filesystem::exists(output("save-0")));
  EXPECT_TRUE(daemon_->getCurrentJobInfosWithDate(nullptr).empty());
  stopCompanion = true;
  companion.join();
}

}  // namespace
}  // namespace quillsift
