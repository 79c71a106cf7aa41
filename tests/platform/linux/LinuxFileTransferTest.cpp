#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "platform/linux/LinuxFileTransfer.h"
#include "platform/linux/LinuxPipe.h"

namespace quillsift {
namespace {

FileDescriptor fileOf(const std::string& content) {
  FileDescriptor file(::memfd_create("archive", MFD_CLOEXEC));
  EXPECT_EQ(::pwrite(file.get(), content.data(), content.size(), 0),
            static_cast<ssize_t>(content.size()));
  return file;
}

class LinuxFileTransferTest : public testing::Test {
 protected:
  std::future<int> transfer(FileDescriptor source) {
    auto outcome = std::make_shared<std::promise<int>>();
    LinuxFileTransfer(std::move(source), cancelled)
        .writeTo(pipe.writeHandle->take(), [outcome](int error) { outcome->set_value(error); });
    return outcome->get_future();
  }

  const Pipe pipe = makeLinuxPipe(1000 * 1000).value();
  const std::shared_ptr<const WakeDescriptor> cancelled = std::make_shared<const WakeDescriptor>();
};

TEST_F(LinuxFileTransferTest, CarriesAFileToItsEnd) {
  const std::string content(300000, 'a');
  auto outcome = transfer(fileOf(content));
  const auto data = pipe.readHandle->readToEnd(nullptr);
  ASSERT_TRUE(data);
  EXPECT_EQ(data->text(), content);
  EXPECT_EQ(outcome.get(), 0);
}

TEST_F(LinuxFileTransferTest, TellsTheOutcomeBeforeTheEnd) {
  auto outcome = transfer(fileOf("x"));
  ASSERT_TRUE(pipe.readHandle->readToEnd(nullptr));
  EXPECT_EQ(outcome.wait_for(std::chrono::seconds(0)), std::future_status::ready);
}

TEST_F(LinuxFileTransferTest, TakesAnEmptyFileForEmptyData) {
  auto outcome = transfer(fileOf(""));
  EXPECT_EQ(pipe.readHandle->readToEnd(nullptr).value().length(), 0U);
}

TEST_F(LinuxFileTransferTest, FailsWhenNobodyReadsOn) {
  auto outcome = transfer(fileOf(std::string(3000000, 'a')));
  QSError error;
  EXPECT_FALSE(pipe.readHandle->readToEnd(&error));
  EXPECT_EQ(error.code, EFBIG);
  EXPECT_EQ(outcome.get(), EPIPE);
}

TEST_F(LinuxFileTransferTest, IsCancelledWhileTheDeviceStalls) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor writer(ends[1]);
  auto outcome = transfer(FileDescriptor(ends[0]));
  cancelled->wake();
  EXPECT_EQ(outcome.get(), ECANCELED);
}

TEST_F(LinuxFileTransferTest, IsCancelledWhileNobodyReads) {
  auto outcome = transfer(fileOf(std::string(3000000, 'a')));
  cancelled->wake();
  EXPECT_EQ(outcome.get(), ECANCELED);
}

TEST_F(LinuxFileTransferTest, ReadsFromASocket) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  ASSERT_EQ(::send(ends[1], "abc", 3, 0), 3);
  ::close(ends[1]);
  auto outcome = transfer(FileDescriptor(ends[0]));
  EXPECT_EQ(pipe.readHandle->readToEnd(nullptr).value().text(), "abc");
  EXPECT_EQ(outcome.get(), 0);
}

class SocketWithoutEndTest : public LinuxFileTransferTest,
                             public testing::WithParamInterface<int> {};

TEST_P(SocketWithoutEndTest, IsRefused) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, GetParam() | SOCK_CLOEXEC, 0, ends), 0);
  const FileDescriptor open(ends[1]);
  EXPECT_EQ(transfer(FileDescriptor(ends[0])).get(), EINVAL);
}

INSTANTIATE_TEST_SUITE_P(Types, SocketWithoutEndTest, testing::Values(SOCK_DGRAM, SOCK_SEQPACKET));

TEST_F(LinuxFileTransferTest, FailsOnASocketThatIsConnectedToNobody) {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_NE(transfer(std::move(socket)).get(), 0);
}

TEST_F(LinuxFileTransferTest, RefusesADirectory) {
  EXPECT_EQ(transfer(FileDescriptor(::open("/", O_RDONLY | O_CLOEXEC))).get(), EISDIR);
}

TEST_F(LinuxFileTransferTest, RefusesADevice) {
  EXPECT_EQ(transfer(FileDescriptor(::open("/dev/zero", O_RDONLY | O_CLOEXEC))).get(), EINVAL);
}

TEST_F(LinuxFileTransferTest, RefusesTheWriteEndOfAPipe) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor reader(ends[0]);
  EXPECT_EQ(transfer(FileDescriptor(ends[1])).get(), EBADF);
}

TEST_F(LinuxFileTransferTest, NeedsADestination) {
  pipe.writeHandle->close();
  EXPECT_EQ(transfer(fileOf("x")).get(), EBADF);
}

class LinuxPipeTest : public LinuxFileTransferTest {};

TEST_F(LinuxPipeTest, ClosingWakesAReader) {
  std::promise<int> code;
  std::thread reader([&] {
    QSError error;
    EXPECT_FALSE(pipe.readHandle->readToEnd(&error));
    code.set_value(static_cast<int>(error.code));
  });
  pipe.readHandle->close();
  EXPECT_EQ(code.get_future().get(), EBADF);
  reader.join();
  EXPECT_FALSE(pipe.readHandle->valid());
}

TEST_F(LinuxPipeTest, IsReadOnce) {
  pipe.writeHandle->close();
  EXPECT_TRUE(pipe.readHandle->readToEnd(nullptr));
  EXPECT_TRUE(pipe.readHandle->valid());
  QSError error;
  EXPECT_FALSE(pipe.readHandle->readToEnd(&error));
  EXPECT_EQ(error.code, EBADF);
}

TEST_F(LinuxPipeTest, SurvivesReadersTransfersAndClosesAtOnce) {
  for (int round = 0; round < 100; ++round) {
    const Pipe racing = makeLinuxPipe().value();
    const auto end = std::make_shared<const WakeDescriptor>();
    std::promise<void> done;
    std::thread reader([&] { (void)racing.readHandle->readToEnd(nullptr); });
    LinuxFileTransfer(fileOf(std::string(200000, 'a')), end)
        .writeTo(racing.writeHandle->take(), [&done](int) { done.set_value(); });
    std::thread closer([&] {
      end->wake();
      racing.writeHandle->close();
      racing.readHandle->close();
    });
    done.get_future().wait();
    closer.join();
    reader.join();
  }
}

}  // namespace
}  // namespace quillsift
