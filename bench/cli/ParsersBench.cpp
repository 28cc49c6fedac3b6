// CommandLine beside the parsers that people would pick instead, on the same command lines (ParserArguments.h). What
// each needs to be told of its options counts, as it does in a program; all of them keep every value. The goal: faster
// than each of them at 10, 1,000 and 100,000 arguments.

#include <benchmark/benchmark.h>
#include <getopt.h>

#include <CLI/CLI.hpp>
#include <cxxopts.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "bench/cli/ParserArguments.h"
#include "cli/CommandLine.h"

namespace {

const std::vector<std::string> &names() {
  static const std::vector<std::string> &all = *[] {
    auto *list = new std::vector<std::string>;
    for (int i = 0; i < kOptionCount; ++i) list->push_back(optionName(i));
    return list;
  }();
  return all;
}

// What a program has as constants.
const std::vector<GB::Option> &definitions() {
  static const std::vector<GB::Option> &all = *[] {
    auto *list = new std::vector<GB::Option>;
    for (int i = 0; i < kOptionCount; ++i)
      list->push_back({.name = names()[static_cast<std::size_t>(i)], .value = isSwitch(i) ? "" : "VALUE"});
    return list;
  }();
  return all;
}

void finish(benchmark::State &state, std::size_t operands) {
  if (operands == 0 && state.range(0) >= 10) state.SkipWithError("no operand was found");
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void parseByCommandLine(benchmark::State &state) {
  std::vector<std::string> texts = argumentList(state.range(0));
  const std::vector<char *> arguments = argumentVector(&texts);
  const GB::Command program = {
      .name = "bench", .options = {definitions().data(), definitions().size()}, .maximumOperands = GB::kAnyNumber};
  std::size_t operands = 0;
  for (auto _ : state) {
    const auto line = GB::CommandLine::parse(program, static_cast<int>(arguments.size() - 1), arguments.data());
    if (!line) state.SkipWithError(line.error().message.c_str());
    if (line) operands = line->operands().size();
    benchmark::DoNotOptimize(operands);
  }
  finish(state, operands);
}

void parseByGetoptLong(benchmark::State &state) {
  std::vector<std::string> texts = argumentList(state.range(0));
  const std::vector<char *> arguments = argumentVector(&texts);
  constexpr int kFirst = 256;  // past every character, '?' above all
  std::vector<option> options;
  for (int i = 0; i < kOptionCount; ++i)
    options.push_back({names()[static_cast<std::size_t>(i)].c_str(), isSwitch(i) ? no_argument : required_argument,
                       nullptr, kFirst + i});
  options.push_back({});
  std::size_t operands = 0;
  for (auto _ : state) {
    std::vector<std::vector<std::string_view>> values(kOptionCount);
    std::vector<char *> permuted = arguments;
    const int count = static_cast<int>(permuted.size() - 1);
    optind = 0;
    int index = 0;
    int found = 0;
    while ((found = getopt_long(count, permuted.data(), "", options.data(), &index)) >= 0) {
      if (found == '?') state.SkipWithError("an option was refused");
      values[static_cast<std::size_t>(index)].push_back(optarg != nullptr ? optarg : "");
    }
    operands = static_cast<std::size_t>(count - optind);
    benchmark::DoNotOptimize(values);
  }
  finish(state, operands);
}

void parseByCLI11(benchmark::State &state) {
  std::vector<std::string> texts = argumentList(state.range(0));
  const std::vector<char *> arguments = argumentVector(&texts);
  std::size_t operands = 0;
  for (auto _ : state) {
    CLI::App app;
    std::vector<std::vector<std::string>> values(kOptionCount);
    std::vector<int> switches(kOptionCount);
    std::vector<std::string> files;
    for (std::size_t i = 0; i < kOptionCount; ++i)
      if (isSwitch(static_cast<int>(i)))
        app.add_flag("--" + names()[i], switches[i]);
      else
        app.add_option("--" + names()[i], values[i])->allow_extra_args(false);
    app.add_option("files", files);
    try {
      app.parse(static_cast<int>(arguments.size() - 1), arguments.data());
    } catch (const CLI::ParseError &error) {
      state.SkipWithError(error.what());
    }
    operands = files.size();
    benchmark::DoNotOptimize(values);
  }
  finish(state, operands);
}

void parseByCxxopts(benchmark::State &state) {
  std::vector<std::string> texts = argumentList(state.range(0));
  const std::vector<char *> arguments = argumentVector(&texts);
  std::size_t operands = 0;
  for (auto _ : state) {
    cxxopts::Options options("bench");
    auto add = options.add_options();
    for (int i = 0; i < kOptionCount; ++i)
      if (isSwitch(i))
        add(names()[static_cast<std::size_t>(i)], "");
      else
        add(names()[static_cast<std::size_t>(i)], "", cxxopts::value<std::vector<std::string>>());
    add("files", "", cxxopts::value<std::vector<std::string>>());
    options.parse_positional("files");
    try {
      const auto result = options.parse(static_cast<int>(arguments.size() - 1), arguments.data());
      operands = result["files"].as<std::vector<std::string>>().size();
    } catch (const std::exception &error) {
      state.SkipWithError(error.what());
    }
  }
  finish(state, operands);
}

}  // namespace

BENCHMARK(parseByCommandLine)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(parseByGetoptLong)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(parseByCLI11)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(parseByCxxopts)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
