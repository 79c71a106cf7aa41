#include "client/CommandLine.h"

#include <CLI/CLI.hpp>
#include <sstream>
#include <utility>

namespace quillsift {

namespace {

using Command = CommandLine::Command;

// Texts are broken by hand: they are read on a console of 80 columns.
constexpr std::size_t kOptionColumn = 24;

constexpr const char* kAbout =
    "Collects diagnostics of this machine through the daemon quillsiftd, and saves\n"
    "them. In a hurry: \"quillsift collect\" does all of it and leaves an archive here.";

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0  done            3  no daemon answers, or it does not admit you\n"
    "  1  failed          4  refused: a session or a save is running\n"
    "  2  wrong usage\n"
    "\"quillsift COMMAND --help\" tells more, \"man quillsift\" everything.";

void addCommonOptions(CLI::App* app, CommandLine* result) {
  app->set_help_flag("-h,--help", "print this help");
  app->add_flag("--json", result->json, "print one JSON object a line");
  app->add_option("--socket", result->socketPath,
                  std::string("where the daemon listens\n(default: ") + kDefaultSocketPath + ")")
      ->type_name("PATH");
}

void addSaveOptions(CLI::App* command, CommandLine* result) {
  command
      ->add_option("DEST", result->destination,
                   "the archive to write, or a directory to put it in under\n"
                   "a name made of date, model and system build\n"
                   "(default: the current directory); a file that is\n"
                   "there already is replaced")
      ->type_name("");
  command->add_flag("--directory", result->directory,
                    "save as a directory tree; DEST is the directory to\n"
                    "fill, new or empty");
  command->add_flag("--without-sensitive", result->withoutSensitive,
                    "leave out what may hold personal data");
}

struct CommandRow {
  const char* name;
  const char* summary;
  const char* details;
  Command command;
  bool saves;
};

constexpr CommandRow kCommands[] = {
    {"collect", "start or join a session, watch it, save it",
     "A session that has finished is saved, not done again. Ctrl-C leaves the session\n"
     "running in the daemon: collect again to come back to it.",
     Command::collect, true},
    {"start", "start a session and leave it running",
     "Drops what an earlier session has collected. Refused while a session or a save\n"
     "runs.",
     Command::start, false},
    {"status", "tell how the session stands, and which jobs failed", "", Command::status, false},
    {"watch", "watch the session until it finishes",
     "Waits for a session to start if there is none. Ctrl-C leaves it running.", Command::watch,
     false},
    {"save", "save the finished session",
     "A session that has been saved is cleared in the daemon. Ctrl-C does not stop the\n"
     "save.",
     Command::save, true},
    {"clear", "drop what has been collected", "", Command::clear, false},
};

void addCommand(CLI::App* app, CommandLine* result, const CommandRow& row) {
  CLI::App* added = app->add_subcommand(row.name, row.summary);
  added->group("Commands");
  added->footer(row.details);
  added->callback([result, command = row.command] { result->command = command; });
  if (row.saves) addSaveOptions(added, result);
  addCommonOptions(added, result);
}

ParsedCommandLine usageError(const std::string& why) {
  return {std::nullopt, ExitCode::usage, "", "quillsift: " + why + "\nTry \"quillsift --help\".\n"};
}

}  // namespace

ParsedCommandLine parseCommandLine(int argc, const char* const* argv) {
  CommandLine result;
  CLI::App app(kAbout, "quillsift");
  app.footer(kExitCodes);
  app.get_formatter()->column_width(kOptionColumn);
  app.get_formatter()->label("SUBCOMMAND", "COMMAND");
  app.set_version_flag("--version", "quillsift " QUILLSIFT_VERSION, "print the version");
  app.require_subcommand(1, 1);
  addCommonOptions(&app, &result);
  for (const CommandRow& row : kCommands)
    addCommand(&app, &result, row);

  try {
    app.parse(argc, argv);
  } catch (const CLI::RequiredError&) {
    const auto unknown = app.remaining();
    if (unknown.empty()) return usageError("no command given");
    const char* what = unknown.front().starts_with('-') ? "no such option: " : "no such command: ";
    return usageError(what + unknown.front());
  } catch (const CLI::ParseError& error) {
    std::ostringstream output;
    std::ostringstream ignored;
    if (app.exit(error, output, ignored) != 0) return usageError(error.what());
    return {std::nullopt, ExitCode::success, output.str(), ""};
  }
  return {std::move(result), ExitCode::success, "", ""};
}

}  // namespace quillsift
