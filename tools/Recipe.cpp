#include "tools/Recipe.h"

#include <algorithm>

#include "tools/ExitCodes.h"

namespace quillsift::tools {

#define QUILLSIFT_RECIPE(path, function) int function(Invocation& invocation);
#include "tools/Recipes.def"
#undef QUILLSIFT_RECIPE

namespace {

constexpr Recipe kRecipes[] = {
#define QUILLSIFT_RECIPE(path, function) {path, function},
#include "tools/Recipes.def"
#undef QUILLSIFT_RECIPE
};

}  // namespace

std::string Invocation::name() const {
  return planPath.substr(planPath.rfind('/') + 1);
}

bool Invocation::hasArguments(std::initializer_list<std::string_view> expected) const {
  return std::equal(arguments.begin(), arguments.end(), expected.begin(), expected.end());
}

std::span<const Recipe> recipes() {
  return kRecipes;
}

const Recipe* recipeNamed(std::string_view argumentZero) {
  for (const Recipe& recipe : kRecipes) {
    if (argumentZero.ends_with(recipe.planPath)) return &recipe;
  }
  return nullptr;
}

int unknownArguments(Invocation& invocation) {
  std::string text = invocation.name() + ": unknown arguments:";
  if (invocation.arguments.empty()) text += " none given";
  for (const std::string& argument : invocation.arguments)
    text += " " + argument;
  return lineAndExit(invocation, text, kExitUnknownArguments);
}

int lineAndExit(Invocation& invocation, std::string_view text, int exitCode) {
  invocation.output.line(text);
  return exitCode;
}

}  // namespace quillsift::tools
