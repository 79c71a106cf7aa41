#include <gtest/gtest.h>

#include <vector>

#include "client/CommandLine.h"

namespace quillsift {
namespace {

using Command = CommandLine::Command;

ParsedCommandLine parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "quillsift");
  return parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

CommandLine accepted(std::vector<const char*> arguments) {
  const auto parsed = parse(std::move(arguments));
  EXPECT_TRUE(parsed.commandLine) << parsed.error;
  return parsed.commandLine.value_or(CommandLine());
}

void expectUsageError(std::vector<const char*> arguments) {
  const auto parsed = parse(std::move(arguments));
  EXPECT_FALSE(parsed.commandLine);
  EXPECT_EQ(parsed.exitCode, ExitCode::usage);
  EXPECT_EQ(parsed.output, "");
  EXPECT_NE(parsed.error, "");
}

TEST(CommandLineTest, KnowsTheSixCommands) {
  EXPECT_EQ(accepted({"collect"}).command, Command::collect);
  EXPECT_EQ(accepted({"start"}).command, Command::start);
  EXPECT_EQ(accepted({"status"}).command, Command::status);
  EXPECT_EQ(accepted({"watch"}).command, Command::watch);
  EXPECT_EQ(accepted({"save"}).command, Command::save);
  EXPECT_EQ(accepted({"clear"}).command, Command::clear);
}

TEST(CommandLineTest, HasDefaults) {
  const CommandLine line = accepted({"collect"});
  EXPECT_FALSE(line.destination);
  EXPECT_FALSE(line.directory);
  EXPECT_FALSE(line.withoutSensitive);
  EXPECT_FALSE(line.json);
  EXPECT_EQ(line.socketPath, "/run/io.vantor.quillsiftd/socket");
}

TEST(CommandLineTest, TakesTheOptionsOfASave) {
  for (const char* command : {"collect", "save"}) {
    const CommandLine line = accepted({command, "--directory", "--without-sensitive", "/x/y"});
    EXPECT_EQ(line.destination, "/x/y");
    EXPECT_TRUE(line.directory);
    EXPECT_TRUE(line.withoutSensitive);
  }
}

TEST(CommandLineTest, TakesCommonOptionsBeforeAndBehindTheCommand) {
  EXPECT_TRUE(accepted({"--json", "status"}).json);
  EXPECT_TRUE(accepted({"status", "--json"}).json);
  EXPECT_EQ(accepted({"--socket", "/s", "watch"}).socketPath, "/s");
  EXPECT_EQ(accepted({"watch", "--socket=/s"}).socketPath, "/s");
}

TEST(CommandLineTest, TakesADestinationThatIsNamedLikeACommandOrAnOption) {
  EXPECT_EQ(accepted({"save", "status"}).destination, "status");
  EXPECT_EQ(accepted({"save", "status"}).command, Command::save);
  EXPECT_EQ(accepted({"save", "--", "--json"}).destination, "--json");
}

TEST(CommandLineTest, RefusesWhatItDoesNotKnow) {
  expectUsageError({});
  expectUsageError({"no-such-command"});
  expectUsageError({"--no-such-option", "status"});
  expectUsageError({"status", "--no-such-option"});
  expectUsageError({"start", "destination"});
  expectUsageError({"save", "one", "two"});
  expectUsageError({"status", "--directory"});
  expectUsageError({"--socket"});
  expectUsageError({"status", "--socket"});
}

TEST(CommandLineTest, NamesWhatItDoesNotKnow) {
  EXPECT_EQ(parse({}).error, "quillsift: no command given\nTry \"quillsift --help\".\n");
  EXPECT_EQ(parse({"colect"}).error,
            "quillsift: no such command: colect\nTry \"quillsift --help\".\n");
  EXPECT_EQ(parse({"--jason"}).error,
            "quillsift: no such option: --jason\nTry \"quillsift --help\".\n");
  EXPECT_NE(parse({"save", "--dircetory"}).error.find("--dircetory"), std::string::npos);
}

TEST(CommandLineTest, HelpsOnRequest) {
  for (const auto& arguments : std::vector<std::vector<const char*>>{
           {"--help"}, {"-h"}, {"collect", "--help"}, {"save", "-h"}}) {
    const auto parsed = parse(arguments);
    EXPECT_FALSE(parsed.commandLine);
    EXPECT_EQ(parsed.exitCode, ExitCode::success);
    EXPECT_EQ(parsed.error, "");
    EXPECT_NE(parsed.output.find("sage:"), std::string::npos) << parsed.output;
  }
  const std::string help = parse({"--help"}).output;
  for (const char* word : {"collect", "start", "status", "watch", "save", "clear", "--socket",
                           "--json", "--version", "Exit codes"}) {
    EXPECT_NE(help.find(word), std::string::npos) << word;
  }
  const std::string collectHelp = parse({"collect", "--help"}).output;
  for (const char* word : {"DEST", "--directory", "--without-sensitive", "--socket", "--json"}) {
    EXPECT_NE(collectHelp.find(word), std::string::npos) << word;
  }
}

TEST(CommandLineTest, FitsTheHelpInto80Columns) {
  for (const char* command : {"collect", "start", "status", "watch", "save", "clear", "--json"}) {
    const std::string help = parse({command, "--help"}).output;
    std::size_t begin = 0;
    while (begin < help.size()) {
      const std::size_t end = std::min(help.find('\n', begin), help.size());
      EXPECT_LE(end - begin, 80u) << help.substr(begin, end - begin);
      begin = end + 1;
    }
  }
}

TEST(CommandLineTest, TellsItsVersion) {
  const auto parsed = parse({"--version"});
  EXPECT_EQ(parsed.exitCode, ExitCode::success);
  EXPECT_EQ(parsed.output.rfind("quillsift ", 0), 0u) << parsed.output;
  EXPECT_EQ(parsed.output.back(), '\n');
  EXPECT_EQ(parsed.error, "");
}

}  // namespace
}  // namespace quillsift
