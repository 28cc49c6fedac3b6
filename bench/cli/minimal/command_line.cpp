#include <cstdio>

#include "cli/CommandHelp.h"
#include "cli/CommandLine.h"

constexpr GB::Option kOptions[] = {
    {.name = "count", .letter = 'c', .value = "N", .description = "How many", .kind = GB::OptionKind::integer},
    {.name = "output", .letter = 'o', .value = "FILE", .description = "Where to write"},
    {.name = "verbose", .letter = 'v', .description = "Say what is done"}};
constexpr GB::Command kProgram = {.name = "minimal", .options = kOptions, .maximumOperands = GB::kAnyNumber};

int main(int argc, char **argv) {
  const auto line = GB::CommandLine::parse(kProgram, argc, argv);
  if (!line) return GB::printUsageError(kProgram, line.error());
  if (GB::printWhatIsAsked(*line)) return 0;
  std::printf("%ld %s %d\n", static_cast<long>(line->isGiven("count") ? line->integer("count").value() : 0),
              line->text("output") ? line->text("output")->c_str() : "", line->isOn("verbose") ? 1 : 0);
  return 0;
}
