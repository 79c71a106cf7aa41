#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "client/Destination.h"

namespace quillsift {
namespace {

namespace fs = std::filesystem;

std::string fixedName(bool limited) {
  return limited ? "name_limited.tgz" : "name.tgz";
}

class DestinationTest : public testing::Test {
 protected:
  DestinationTest() : before_(fs::current_path()) {
    std::string pattern = fs::temp_directory_path() / "destination-XXXXXX";
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    fs::current_path(directory_);
  }
  ~DestinationTest() override {
    std::error_code ignored;
    fs::current_path(before_, ignored);
    fs::remove_all(directory_, ignored);
  }

  // The path, or the problem behind a "!".
  std::string resolved(const std::optional<std::string>& given, SaveForm form = SaveForm::archive,
                       bool limited = false) {
    std::string problem;
    const auto destination = Destination::resolve(given, form, limited, &problem);
    return destination ? destination->path(fixedName) : "!" + problem;
  }
  std::string inside(const std::string& name) const { return directory_ + "/" + name; }
  void put(const std::string& name) { std::ofstream(inside(name)) << "x"; }

  const fs::path before_;
  std::string directory_;
};

TEST_F(DestinationTest, IsTheDefaultNameInTheCurrentDirectory) {
  EXPECT_EQ(resolved(std::nullopt), inside("name.tgz"));
  EXPECT_EQ(resolved(std::nullopt, SaveForm::archive, true), inside("name_limited.tgz"));
  EXPECT_EQ(resolved(std::nullopt, SaveForm::directory), inside("name"));
  EXPECT_EQ(resolved(std::nullopt, SaveForm::directory, true), inside("name_limited"));
}

TEST_F(DestinationTest, MakesARelativeNameAbsolute) {
  EXPECT_EQ(resolved("x.tgz"), inside("x.tgz"));
  EXPECT_EQ(resolved("./x.tgz"), inside("x.tgz"));
  EXPECT_EQ(resolved("new", SaveForm::directory), inside("new"));
}

TEST_F(DestinationTest, KeepsAnAbsoluteNameAndTidiesIt) {
  EXPECT_EQ(resolved(inside("x.tgz")), inside("x.tgz"));
  EXPECT_EQ(resolved("/" + directory_ + "//./x.tgz"), inside("x.tgz"));
}

TEST_F(DestinationTest, DoesNotResolveDotDotByName) {
  fs::create_directory(inside("sub"));
  EXPECT_EQ(resolved("sub/../x.tgz"), inside("sub/../x.tgz"));
}

TEST_F(DestinationTest, PutsTheDefaultNameIntoAnExistingDirectory) {
  fs::create_directory(inside("sub"));
  EXPECT_EQ(resolved("sub"), inside("sub/name.tgz"));
  EXPECT_EQ(resolved("sub/"), inside("sub/name.tgz"));
  EXPECT_EQ(resolved("."), inside("name.tgz"));
  EXPECT_EQ(resolved("/"), "/name.tgz");
}

TEST_F(DestinationTest, ReplacesAnExistingFile) {
  put("x.tgz");
  EXPECT_EQ(resolved("x.tgz"), inside("x.tgz"));
}

TEST_F(DestinationTest, DoesNotReplaceWhatIsNoRegularFile) {
  EXPECT_EQ(resolved("/dev/null"), "!/dev/null is no regular file");
}

TEST_F(DestinationTest, NeedsADirectoryForTheArchive) {
  EXPECT_EQ(resolved("missing/x.tgz"),
            "!cannot save into " + inside("missing") + ": No such file or directory");
  put("file");
  EXPECT_EQ(resolved("file/x.tgz"), "!" + inside("file") + " is no directory");
  EXPECT_EQ(resolved("missing/"), "!missing/ is no directory");
}

TEST_F(DestinationTest, FillsANewOrEmptyDirectoryOnly) {
  EXPECT_EQ(resolved("a/b/c", SaveForm::directory), inside("a/b/c"));
  fs::create_directory(inside("empty"));
  EXPECT_EQ(resolved("empty/", SaveForm::directory), inside("empty"));
  put("file");
  EXPECT_EQ(resolved("file", SaveForm::directory), "!" + inside("file") + " is no directory");
  EXPECT_EQ(
      resolved(".", SaveForm::directory),
      "!" + directory_ + " is not empty: a save that fails would delete it with all it holds");
}

TEST_F(DestinationTest, LeavesToTheDaemonWhatItCannotSee) {
  constexpr uid_t kNobody = 65534;
  fs::create_directory(inside("closed"));
  fs::permissions(inside("closed"), fs::perms::none);
  fs::permissions(directory_, fs::perms::group_exec | fs::perms::others_exec,
                  fs::perm_options::add);
  const uid_t self = ::geteuid();
  if (self == 0) {  // who sees everything
    ASSERT_EQ(::seteuid(kNobody), 0);
  }
  const std::string path = resolved("closed/sub/x.tgz");
  ASSERT_EQ(::seteuid(self), 0);
  EXPECT_EQ(path, inside("closed/sub/x.tgz"));
  fs::permissions(inside("closed"), fs::perms::owner_all);
}

TEST_F(DestinationTest, TellsThatTheCurrentDirectoryIsGone) {
  fs::remove_all(directory_);
  EXPECT_EQ(resolved("x.tgz"), "!cannot tell the current directory: No such file or directory");
  EXPECT_EQ(resolved(std::nullopt),
            "!cannot tell the current directory: No such file or directory");
  EXPECT_EQ(resolved("/x.tgz"), "/x.tgz");
}

TEST_F(DestinationTest, RefusesWhatTheDaemonCannotBeTold) {
  EXPECT_EQ(resolved(""), "!the destination is empty");
  EXPECT_EQ(resolved("/tmp/\xFF.tgz"),
            "!the daemon takes only destinations in UTF-8, which /tmp/\xFF.tgz is not");
  EXPECT_EQ(resolved("/tmp/\xC3\xBC.tgz"), "/tmp/\xC3\xBC.tgz");
}

}  // namespace
}  // namespace quillsift
