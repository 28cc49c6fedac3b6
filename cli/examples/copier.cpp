// A tool that pretends to copy files: options, a group, separators, and settings in three layers (factory defaults, a
// file given with --config, the command line).

#include <vpnctl/cli/GBCommandLineParser.h>
#include <vpnctl/cli/GBOptionsHelper.h>
#include <vpnctl/cli/GBPrint.h>
#include <vpnctl/cli/GBSettings.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

const GB::GBOptionDefinition kDefinitions[] = {
    {'h', "help", "Print this text and end", GB::GBOptionNoValue | GB::GBOptionFlagNoPrint},
    {0, "version", "Print the version and end", GB::GBOptionNoValue | GB::GBOptionFlagNoPrint},
    {'c', "config", "Read settings from a property list", GB::GBOptionRequiresValue | GB::GBOptionFlagNoPrint},
    {0, nullptr, "Copying:", GB::GBOptionFlagSeparator},
    {'o', "output", "Where to copy to", GB::GBOptionRequiresValue},
    {'v', "verbose", "Say what is done", GB::GBOptionNoValue},
    {0, "retries", "How often to try again", GB::GBOptionValueOptional},
    {0, "no-verbose", nullptr, GB::GBOptionNoValue | GB::GBOptionFlagNoCmdLine | GB::GBOptionFlagNoHelp},
    {}};

void describe(GB::GBOptionsHelper &options) {
  options.setApplicationName([] { return "copier"; });
  options.setApplicationVersion([] { return "1.0"; });
  options.setApplicationBuild([] { return "42"; });
  options.setPrintHelpHeader([] { return "%APPNAME %APPVERSION: usage: copier [OPTIONS] [verify [OPTIONS]] FILE..."; });
  options.setPrintValuesArgumentsHeader([] { return "Files:"; });
  options.setPrintValuesOptionsHeader([] { return "Settings:"; });
  options.registerOptionsFromDefinitions(kDefinitions);
  options.registerSeparator("Afterwards:");
  options.registerGroup("verify", "compare what was copied", [](GB::GBOptionsHelper &group) {
    group.registerOption('s', "strict", "Compare dates too", GB::GBOptionNoValue);
  });
}

}  // namespace

int main(int argc, char **argv) {
  const auto defaults = GB::GBSettings::settingsWithName("default", nullptr);
  const auto file = GB::GBSettings::settingsWithName("file", defaults);
  const auto settings = GB::GBSettings::settingsWithName("command line", file);
  defaults->setObjectForKey("/tmp", "output");
  defaults->setInteger(3, "retries");
  defaults->setBool(false, "verbose");

  GB::GBOptionsHelper options;
  describe(options);
  GB::GBCommandLineParser parser;
  parser.registerOptions(options);
  parser.registerSettings(settings);
  if (!parser.parseOptionsWithArguments(argv, argc)) return 1;

  if (settings->boolForKey("help")) {
    options.printHelp();
    return 0;
  }
  if (settings->boolForKey("version")) {
    options.printVersion();
    return 0;
  }
  if (const auto config = settings->objectForKey("config"); config.isString()) {
    vpnctl::Error error = {.domain = "copier", .code = 1, .message = config.string() + ": there is no such file"};
    if (!file->loadSettingsFromPlist(config.string(), &error)) {
      GB::gbfprintln(stderr, "copier: %@", error.message);
      return 1;
    }
  }
  options.printValuesFromSettings(*settings);
  GB::gbprintln("%ld tries into %@", settings->integerForKey("retries"), settings->objectForKey("output"));
  return 0;
}
