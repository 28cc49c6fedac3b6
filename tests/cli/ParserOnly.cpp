// The smallest use of the parser of modern rules: what a program carries that has nothing but options.

#include <cstdio>

#include "cli/CommandHelp.h"
#include "cli/CommandLine.h"

namespace {

constexpr GB::Option kOptions[] = {
    {.name = "count", .letter = 'c', .value = "N", .description = "How many", .kind = GB::OptionKind::integer},
    {.name = "verbose", .letter = 'v', .description = "Say what is done"}};
constexpr GB::Command kProgram = {.name = "parser-only", .version = "1.0", .options = kOptions};

}  // namespace

int main(int argc, char **argv) {
  const auto line = GB::CommandLine::parse(kProgram, argc, argv);
  if (!line) return GB::printUsageError(kProgram, line.error());
  if (GB::printWhatIsAsked(*line)) return 0;
  std::printf("%d\n", line->isOn("verbose") ? 1 : 0);
  return 0;
}
