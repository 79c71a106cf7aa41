// quillsift-platform: all programs of the platform tree in one. A link to it at a program's path in
// the tree is that program; started by its own name it lists what it offers, or holds the tree
// against the daemon's plan.

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "tools/ExitCodes.h"
#include "tools/PlatformCheck.h"
#include "tools/ProgramStart.h"
#include "tools/Recipe.h"

namespace quillsift::tools {
namespace {

int run(const Recipe& recipe, int count, char** arguments) {
  const Host host(platformTreeOf(startedPath(), recipe.planPath, executableFile()));
  Output output(STDOUT_FILENO);
  Invocation invocation{std::string(recipe.planPath), {arguments, arguments + count}, host, output};
  return recipe.run(invocation);
}

int listRecipes() {
  Output output(STDOUT_FILENO);
  for (const Recipe& recipe : recipes())
    output.line(recipe.planPath);
  return 0;
}

int main(int count, char** arguments) {
  if (count < 1) return kExitUnknownArguments;
  if (const Recipe* recipe = recipeNamed(arguments[0]))
    return run(*recipe, count - 1, arguments + 1);
  if (count == 2 && std::strcmp(arguments[1], "--list") == 0) return listRecipes();
  if (count == 2 && std::strcmp(arguments[1], "--check") == 0) {
    Output output(STDOUT_FILENO);
    return checkPlatform(executableFile(), output);
  }
  // By its own name, with the program's path in front of the program's own arguments.
  if (count >= 2) {
    if (const Recipe* recipe = recipeNamed(arguments[1])) {
      return run(*recipe, count - 2, arguments + 2);
    }
  }
  std::fputs(
      "usage: quillsift-platform --list\n"
      "       quillsift-platform --check\n"
      "       quillsift-platform PROGRAM [ARGUMENT]...\n",
      stderr);
  return kExitUnknownArguments;
}

}  // namespace
}  // namespace quillsift::tools

int main(int count, char** arguments) {
  return quillsift::tools::main(count, arguments);
}
