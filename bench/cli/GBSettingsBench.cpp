// Reading a key through layers (the cost per layer is to stay flat), and a property list of 10 MB.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "cli/GBSettings.h"

namespace {

using GB::GBSettings;

// The key is in the bottom layer alone; each layer has 100 others.
std::shared_ptr<GBSettings> layers(std::int64_t count) {
  std::shared_ptr<GBSettings> top;
  for (std::int64_t i = 0; i < count; ++i) {
    top = GBSettings::settingsWithName("layer", top);
    top->registerArrayForKey("inputs");
    top->setObjectForKey(i, "inputs");
    if (i == 0) top->setInteger(1, "key");
    for (int j = 0; j < 100; ++j) top->setInteger(j, "other-" + std::to_string(j));
  }
  return top;
}

void readThroughLayers(benchmark::State &state) {
  const auto top = layers(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(top->integerForKey("key"));
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void readArrayThroughLayers(benchmark::State &state) {
  const auto top = layers(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(top->objectForKey("inputs"));
  state.SetComplexityN(state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Settings whose file is a little more than 10 MB.
void fill(GBSettings &settings) {
  for (int i = 0; i < 140000; ++i)
    settings.setObjectForKey("a value of some length, number " + std::to_string(i), "key-" + std::to_string(i));
}

class File {
 public:
  File() : path_(std::filesystem::temp_directory_path() / ("cli-bench." + std::to_string(::getpid()) + ".plist")) {}
  File(const File &) = delete;
  File &operator=(const File &) = delete;
  ~File() { std::remove(path_.c_str()); }
  std::string path() const { return path_.string(); }
  double size() const { return static_cast<double>(std::filesystem::file_size(path_)); }

 private:
  std::filesystem::path path_;
};

void savePropertyList(benchmark::State &state) {
  const File file;
  GBSettings settings("file");
  fill(settings);
  for (auto _ : state)
    if (!settings.saveSettingsToPlist(file.path())) state.SkipWithError("not saved");
  state.counters["file_bytes"] = file.size();
}

void loadPropertyList(benchmark::State &state) {
  const File file;
  GBSettings settings("file");
  fill(settings);
  if (!settings.saveSettingsToPlist(file.path())) state.SkipWithError("not saved");
  for (auto _ : state)
    if (!settings.loadSettingsFromPlist(file.path())) state.SkipWithError("not loaded");
  state.counters["file_bytes"] = file.size();
}

}  // namespace

BENCHMARK(readThroughLayers)->Arg(1)->Arg(10)->Arg(100)->Complexity();
BENCHMARK(readArrayThroughLayers)->Arg(1)->Arg(10)->Arg(100)->Complexity();
BENCHMARK(savePropertyList)->Unit(benchmark::kMillisecond);
BENCHMARK(loadPropertyList)->Unit(benchmark::kMillisecond);
