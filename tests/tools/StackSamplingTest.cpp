#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/tools/ScratchMachine.h"
#include "tools/StackSampler.h"

namespace quillsift::tools {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr auto kNever = std::chrono::steady_clock::time_point::max();
constexpr const char* kStallscope = "/usr/sbin/stallscope";
constexpr const char* kKernelThread = "2129984";  // PF_KTHREAD and another

class StackSamplingTest : public testing::Test {
 protected:
  void thread(int process, int id, const std::string& name, char state,
              const std::string& flags = "4194304", int ticks = 0) {
    const std::string task =
        "/proc/" + std::to_string(process) + "/task/" + std::to_string(id) + "/";
    machine_.file(task + "stat", std::to_string(id) + " (" + name + ") " + state + " 1 1 1 0 -1 " +
                                     flags + " 0 0 0 0 " + std::to_string(ticks) +
                                     " 0 0 0 20 0 1 0 5\n");
    machine_.file(task + "wchan", "do_wait");  // without a newline, as the kernel has it
    machine_.file(task + "syscall", "61 0xCANARY 0x0 0x0\n");
    machine_.file(task + "stack", "[<0>] do_wait+0x1/0x2\n[<0>] entry+0x3/0x4\n");
  }
  RunResult sampled() {
    return machine_.run(kStallscope, {"-noSymbolicate", "-stdout", "-noFile"});
  }

  ScratchMachine machine_;
  const Host host_ = machine_.host();
};

TEST_F(StackSamplingTest, CountsEqualPlacesOfEachThread) {
  thread(100, 100, "odd ) name", 'S');
  thread(100, 101, "worker", 'D');
  const RunResult result = sampled();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("10 rounds, 1 processes, 2 threads\n"));
  EXPECT_THAT(result.output, HasSubstr("Process 100 (odd ) name), threads: 2\n"
                                       "  Thread 100 (odd ) name)\n"
                                       "     10 x state S, waits in do_wait, system call 61\n"
                                       "            do_wait+0x1/0x2\n"
                                       "            entry+0x3/0x4\n"
                                       "  Thread 101 (worker)\n"
                                       "     10 x state D"));
  EXPECT_THAT(result.output, HasSubstr("user stacks: eu-stack not installed\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("CANARY"))) << "arguments of system calls";
}

TEST_F(StackSamplingTest, SaysWhenTheKernelHasNoStacks) {
  machine_.file("/proc/100/task/100/stat", "100 (a) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5\n");
  EXPECT_THAT(sampled().output, HasSubstr("no kernel stacks in this kernel\n"));
}

TEST_F(StackSamplingTest, SeparatesPlacesAndCountsTimeOnAProcessor) {
  thread(100, 100, "busy", 'S', "0", 10);
  StackSampler sampler(host_);
  sampler.sample(kNever);
  sampler.sample(kNever);
  thread(100, 100, "busy", 'R', "0", 35);
  machine_.file("/proc/100/task/100/wchan", "0");
  machine_.file("/proc/100/task/100/syscall", "running\n");
  machine_.file("/proc/100/task/100/stack", "");
  sampler.sample(kNever);
  OutputPipe pipe;
  {
    Output output(pipe.writing());
    sampler.print(output);
  }
  const std::string text = pipe.printed();
  EXPECT_THAT(text, HasSubstr("Thread 100 (busy), 250 ms on a processor\n"
                              "      2 x state S, waits in do_wait, system call 61\n"));
  EXPECT_THAT(text, HasSubstr("      1 x state R, system call running\n"));
}

TEST_F(StackSamplingTest, TracesUserProcessesAndThoseThatWaitForADeviceLast) {
  thread(100, 100, "waiting", 'D');
  thread(200, 200, "calm", 'S');
  thread(300, 300, "stopped", 'T');
  thread(400, 400, "dead", 'Z');
  thread(500, 500, "kworker", 'S', kKernelThread);
  StackSampler sampler(host_);
  sampler.sample(kNever);
  EXPECT_THAT(sampler.processesToTrace(), ElementsAre(200, 100));
}

TEST_F(StackSamplingTest, SparesTheFirstProcessAndItsOwnStarter) {
  thread(1, 1, "init", 'S');
  thread(::getpid(), ::getpid(), "starter", 'S');
  thread(424242, 424242, "other", 'S');
  machine_.program("eu-stack", "echo traced \"$@\"");
  const RunResult result = sampled();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output,
              HasSubstr("== user stacks ==\n\nProcess 424242 (other)\ntraced -q -b -p 424242\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("traced -q -b -p 1\n")));
  EXPECT_THAT(result.output,
              Not(HasSubstr("traced -q -b -p " + std::to_string(::getpid()) + "\n")));
}

}  // namespace
}  // namespace quillsift::tools
