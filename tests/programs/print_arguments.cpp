// Stands in for a program of the plan: prints its whole argument vector, a line each.

#include <cstdio>

int main(int count, char** arguments) {
  for (int i = 0; i < count; ++i)
    std::puts(arguments[i]);
}
