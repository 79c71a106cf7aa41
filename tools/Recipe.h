#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/Host.h"
#include "tools/Output.h"

namespace quillsift::tools {

// One run of one program of the platform tree.
struct Invocation {
  std::string planPath;                // the program's path in the collection plan
  std::vector<std::string> arguments;  // behind argv[0]
  const Host& host;
  Output& output;

  // The last component of the plan's path, to begin a message with.
  std::string name() const;
  bool hasArguments(std::initializer_list<std::string_view> expected) const;
};

// Prints to `output` what the plan's program would have shown, as this system has it, and returns
// the exit code (tools/ExitCodes.h).
using RecipeFunction = int (*)(Invocation& invocation);

struct Recipe {
  std::string_view planPath;
  RecipeFunction run;
};

// Every program that the platform tree offers. The list is tools/Recipes.def.
std::span<const Recipe> recipes();

// The recipe that argv[0] asks for: the plan's path, or a path that ends in one, as when a program
// of an installed tree is started by hand. Null when there is none.
const Recipe* recipeNamed(std::string_view argumentZero);

// One line that says that the arguments are not known, and the exit code for it.
int unknownArguments(Invocation& invocation);

// `text` as a line, and `exitCode`.
int lineAndExit(Invocation& invocation, std::string_view text, int exitCode);

}  // namespace quillsift::tools
