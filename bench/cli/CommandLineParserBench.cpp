// Parsing argument lists of growing length with 200 registered options. The goal: at most 100 ms for 100,000 arguments,
// a flat cost per argument, and not slower than CLI11 on the same list.

#include <benchmark/benchmark.h>

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "bench/cli/ParserArguments.h"
#include "cli/GBCommandLineParser.h"

namespace {

void registerAll(GB::GBCommandLineParser &parser) {
  for (int i = 0; i < kOptionCount; ++i)
    parser.registerOption(optionName(i), isSwitch(i) ? GB::GBOptionNoValue : GB::GBOptionRequiresValue);
}

void complain(benchmark::State &state, const char *message) { state.SkipWithError(message); }

void parseIntoSettings(benchmark::State &state) {
  const std::vector<std::string> arguments = argumentList(state.range(0));
  GB::GBCommandLineParser parser;
  registerAll(parser);
  for (auto _ : state) {
    parser.registerSettings(std::make_shared<GB::GBSettings>("command line"));
    if (!parser.parseOptionsWithArguments(arguments, "bench")) complain(state, "an option was refused");
  }
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Registering included, since CLI11 is measured so as well: its options hold the results.
void registerAndParseIntoSettings(benchmark::State &state) {
  const std::vector<std::string> arguments = argumentList(state.range(0));
  for (auto _ : state) {
    GB::GBCommandLineParser parser;
    registerAll(parser);
    parser.registerSettings(std::make_shared<GB::GBSettings>("command line"));
    if (!parser.parseOptionsWithArguments(arguments, "bench")) complain(state, "an option was refused");
  }
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void registerAndParseByCLI11(benchmark::State &state) {
  std::vector<std::string> arguments = argumentList(state.range(0));
  std::reverse(arguments.begin(), arguments.end());  // as its parse() wants a vector
  for (auto _ : state) {
    CLI::App app;
    std::vector<std::string> values(kOptionCount);
    bool flags[kOptionCount] = {};
    std::vector<std::string> files;
    for (int i = 0; i < kOptionCount; ++i) {
      CLI::Option *option = isSwitch(i) ? app.add_flag("--" + optionName(i), flags[i])
                                        : app.add_option("--" + optionName(i), values[static_cast<std::size_t>(i)]);
      option->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    }
    app.add_option("files", files);
    try {
      app.parse(std::vector<std::string>(arguments));
    } catch (const CLI::ParseError &error) {
      complain(state, error.what());
    }
    benchmark::DoNotOptimize(files);
  }
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(parseIntoSettings)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond)->Complexity();
BENCHMARK(registerAndParseIntoSettings)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond)->Complexity();
BENCHMARK(registerAndParseByCLI11)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond)->Complexity();
