// The smallest use of GBCommandLineParser with settings: what a program carries that loads no files.

#include "cli/GBCommandLineParser.h"
#include "cli/GBSettings.h"

int main(int argc, char **argv) {
  GB::GBCommandLineParser parser;
  parser.registerOption("count", 'c', GB::GBOptionRequiresValue);
  parser.registerSwitch("verbose", 'v');
  const auto settings = GB::GBSettings::settingsWithName("command line", nullptr);
  parser.registerSettings(settings);
  if (!parser.parseOptionsWithArguments(argv, argc)) return 1;
  return settings->boolForKey("verbose") ? 3 : 0;
}
