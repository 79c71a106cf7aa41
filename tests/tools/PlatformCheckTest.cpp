#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>

#include "tests/tools/PlanRows.h"
#include "tests/tools/ScratchMachine.h"
#include "tools/PlatformCheck.h"
#include "tools/Recipe.h"

namespace quillsift::tools {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kPlatterctl = "/usr/sbin/platterctl";

class PlatformCheckTest : public testing::Test {
 protected:
  void treeProgram(const std::string& path) {
    machine_.treeFile(path, "#!/bin/sh\n");
    ASSERT_EQ(::chmod((machine_.tree() + path).c_str(), 0755), 0);
  }
  int check(const PlannedSource& source) { return check(source, machine_.host()); }
  int check(const PlannedSource& source, const Host& host) {
    const PlannedSource sources[] = {source};
    Output output(pipe_.writing());
    return checkSources(sources, host, output);
  }
  std::string printed() { return pipe_.printed(); }

  ScratchMachine machine_;
  OutputPipe pipe_;
};

TEST(PlannedSourceTest, IsReadFromALine) {
  const auto source = plannedSourceIn("command\ta b.txt\tpublic\talways\t/bin/ls\t-la\t/x y");
  ASSERT_TRUE(source);
  EXPECT_EQ(source->kind, "command");
  EXPECT_EQ(source->member, "a b.txt");
  EXPECT_EQ(source->path, "/bin/ls");
  EXPECT_THAT(source->arguments, ElementsAre("-la", "/x y"));
  EXPECT_THAT(plannedSourceIn("own\tx\tpublic\talways\t")->arguments, IsEmpty());
  EXPECT_FALSE(plannedSourceIn("command\tx"));
}

TEST_F(PlatformCheckTest, NamesTheHostProgramsThatAListingWouldMiss) {
  treeProgram(kPlatterctl);
  machine_.program("lsblk", "");
  machine_.program("smartctl", "");
  EXPECT_EQ(check({"command", "info.txt", kPlatterctl, {"info", "-all"}}), 0);
  EXPECT_EQ(printed(),
            "tree    info.txt  /usr/sbin/platterctl info -all  "
            "[missing: sfdisk (fdisk)]\n");
}

TEST_F(PlatformCheckTest, FindsAProgramThatTheTreeLacks) {
  EXPECT_EQ(check({"command", "x.txt", kPlatterctl, {}}), 69);
  EXPECT_EQ(printed(),
            "none    x.txt  /usr/sbin/platterctl  [not in the tree]\n"
            "1 programs of the plan are not in the tree\n");
}

TEST_F(PlatformCheckTest, FindsALinkThatLeadsNowhere) {
  machine_.treeLink(kPlatterctl, "../../../gone");
  EXPECT_EQ(check({"command", "x.txt", kPlatterctl, {}}), 69);
  EXPECT_THAT(printed(), HasSubstr("[the tree's link leads nowhere: ../../../gone]\n"));
}

TEST_F(PlatformCheckTest, FindsWhatIsNoProgram) {
  machine_.treeFile(kPlatterctl, "");
  EXPECT_EQ(check({"command", "x.txt", kPlatterctl, {}}), 69);
  EXPECT_THAT(printed(), HasSubstr("[what the tree has is no program]\n"));
}

TEST_F(PlatformCheckTest, FindsAHostProgramThatOnlyHasTheName) {
  machine_.file("/usr/sbin/nvram", "#!/bin/sh\n", 0755);
  EXPECT_EQ(check({"command", "x.txt", "/usr/sbin/nvram", {"-p"}}), 69);
  EXPECT_THAT(printed(), HasSubstr("host    x.txt  /usr/sbin/nvram -p  [not in the tree"));
}

TEST_F(PlatformCheckTest, TakesWhatTheTreeHidesForAbsent) {
  machine_.treeLink(kPlatterctl, "/dev/null");
  EXPECT_EQ(check({"command", "x.txt", kPlatterctl, {}}), 0);
  EXPECT_THAT(printed(), HasSubstr("none    x.txt"));
}

TEST_F(PlatformCheckTest, TellsWhereALogComesFrom) {
  machine_.treeLink("/var/log/system.log", machine_.root() + "/var/log/syslog");
  machine_.treeLink("/var/log/rescueos.log", "/nowhere/boot.log");
  machine_.file("/var/log/syslog", "");
  machine_.file("/var/log/install.log", "");
  EXPECT_EQ(check({"file", "system.log", "/var/log/system.log", {}}), 0);
  EXPECT_EQ(check({"file", "rescueos.log", "/var/log/rescueos.log", {}}), 0);
  EXPECT_EQ(check({"file", "install.log", "/var/log/install.log", {}}), 0);
  EXPECT_EQ(check({"directory", "reports/<name>", "/Reports/", {}}), 0);
  EXPECT_EQ(check({"own", "own.txt", "", {}}), 0);
  EXPECT_EQ(printed(), "tree    system.log  /var/log/system.log  [" + machine_.root() +
                           "/var/log/syslog]\n"
                           "none    rescueos.log  /var/log/rescueos.log  [no /nowhere/boot.log]\n"
                           "host    install.log  /var/log/install.log  [/var/log/install.log]\n"
                           "none    reports/<name>  /Reports/  [no /Reports/]\n"
                           "daemon  own.txt\n");
}

TEST_F(PlatformCheckTest, TellsWhichOfSeveralSourcesIsThere) {
  const PlannedSource source{"file", "rescueos.log", "/var/log/rescueos.log", {}};
  machine_.treeLink(source.path, machine_.root() + "/run/initramfs.debug");
  machine_.treeLink(source.path + "@2", machine_.root() + "/var/log/boot.log");
  EXPECT_EQ(check(source), 0);
  machine_.file("/var/log/boot.log", "");
  EXPECT_EQ(check(source), 0);
  const std::string line = "rescueos.log  /var/log/rescueos.log  [";
  EXPECT_EQ(printed(), "none    " + line + "no " + machine_.root() + "/run/initramfs.debug, " +
                           machine_.root() + "/var/log/boot.log]\n" + "tree    " + line +
                           machine_.root() + "/var/log/boot.log]\n");
}

TEST_F(PlatformCheckTest, NamesAllSourcesOfADirectory) {
  machine_.treeLink("/private/logs", "/nowhere/first");
  machine_.treeLink("/private/logs@2", "/nowhere/second");
  EXPECT_EQ(check({"directory", "logs/<name>", "/private/logs/", {}}), 0);
  EXPECT_THAT(printed(), HasSubstr("[no /nowhere/first, /nowhere/second]\n"));
}

TEST_F(PlatformCheckTest, TakesNoLinkOfTheHostForOneOfATreeThatIsNotThere) {
  machine_.treeLink("/x", "/nowhere");
  const Host bare(machine_.root(), {}, "");
  EXPECT_EQ(check({"command", "x.txt", machine_.tree() + "/x", {}}, bare), 69);
  EXPECT_THAT(printed(), HasSubstr("[not in the tree]\n"));
}

// A listing says at its end what was not installed: all of that must be among the needs.
TEST(HostNeedsTest, HoldEveryProgramThatAListingMisses) {
  ScratchMachine machine;
  machine.file("/sys/block/sda/size", "1000\n");
  machine.file("/sys/block/sda/device/model", "x\n");
  machine.file("/sys/firmware/efi/fw_platform_size", "64\n");
  machine.file("/sys/firmware/dmi/tables/DMI", "x");
  machine.file("/sys/kernel/security/tpm0/binary_bios_measurements", "x");
  machine.file("/sys/class/drm/card0-DP-1/edid", "x");
  machine.file("/boot/grub/grubenv", "");
  machine.file("/dev/ipmi0", "");
  machine.file("/dev/tpm0", "");
  machine.directory("/sys/class/drm/card0");
  machine.directory("/sys/bus/pci/devices");
  int missed = 0;
  for (const CommandRow& row : commandRows()) {
    const std::string output = machine.run(row.command.program, row.command.arguments).output;
    constexpr std::string_view kNotInstalled = "not installed: ";
    const std::size_t at = output.find(kNotInstalled);
    if (at == std::string::npos) continue;
    const std::size_t begin = at + kNotInstalled.size();
    std::string names = output.substr(begin, output.find('\n', begin) - begin) + ", ";
    for (std::size_t end = names.find(", "); end != std::string::npos; end = names.find(", ")) {
      const std::string name = names.substr(0, end);
      names.erase(0, end + 2);
      ++missed;
      const bool isKnown =
          std::any_of(hostNeeds().begin(), hostNeeds().end(), [&](const HostNeed& need) {
            return need.planPath == row.command.program && need.program == name &&
                   (need.firstArgument.empty() ||
                    need.firstArgument == row.command.arguments.front());
          });
      EXPECT_TRUE(isKnown) << row.member << ": " << name;
    }
  }
  EXPECT_GT(missed, 20);
}

TEST(HostNeedsTest, BelongToProgramsOfTheTree) {
  for (const HostNeed& need : hostNeeds())
    EXPECT_NE(recipeNamed(need.planPath), nullptr) << need.planPath;
}

// What the plan runs, the tree has.
TEST(RecipesAndPlanTest, HaveTheSamePrograms) {
  std::set<std::string> planned;
  for (const CommandRow& row : commandRows()) {
    planned.insert(row.command.program);
    EXPECT_NE(recipeNamed(row.command.program), nullptr) << row.command.program;
  }
  for (const Recipe& recipe : recipes())
    EXPECT_TRUE(planned.contains(std::string(recipe.planPath))) << recipe.planPath;
}

}  // namespace
}  // namespace quillsift::tools
