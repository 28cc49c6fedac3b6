// Parsing argument lists of growing length with 200 registered options. The goal: at most 100 ms for 100,000 arguments,
// a flat cost per argument, and not slower than CLI11 on the same list.

#include <benchmark/benchmark.h>

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "cli/GBCommandLineParser.h"

namespace {

constexpr int kOptions = 200;

std::string optionName(int number) { return "option-" + std::to_string(number % kOptions); }

// Every fourth of the options is a switch; values come joined and apart by turns; the last tenth is positional.
bool isSwitch(int number) { return number % 4 == 3; }

std::vector<std::string> argumentList(std::int64_t count) {
  const auto size = static_cast<std::size_t>(count);
  std::vector<std::string> arguments;
  for (int i = 0; arguments.size() + 1 < size - size / 10; ++i) {
    const int option = i * 7 % kOptions;
    if (isSwitch(option)) {
      arguments.push_back("--" + optionName(option));
    } else if (i % 2 == 0) {
      arguments.push_back("--" + optionName(option) + "=value-" + std::to_string(i));
    } else {
      arguments.push_back("--" + optionName(option));
      arguments.push_back("value-" + std::to_string(i));
    }
  }
  while (arguments.size() < size) arguments.push_back("file-" + std::to_string(arguments.size()));
  return arguments;
}

void registerAll(GB::GBCommandLineParser &parser) {
  for (int i = 0; i < kOptions; ++i)
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
    std::vector<std::string> values(kOptions);
    bool flags[kOptions] = {};
    std::vector<std::string> files;
    for (int i = 0; i < kOptions; ++i) {
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
