// Parsing with the block that comes with the parser: values go into settings, errors to standard error, by stdio alone,
// so that a program which only parses carries no formatter of ours.

#include <cstdio>

#include "cli/GBCommandLineParser.h"

namespace GB {

namespace {

const char *shown(const std::optional<std::string> &text) { return text ? text->c_str() : "(null)"; }

}  // namespace

void GBCommandLineParser::validateSimplifiedOptionsWithSelector(std::string_view) {}

GBParseBlock GBCommandLineParser::simplifiedOptionsParserBlock() {
  return [this](GBParseEvent event, const Text &option, const Value &value, bool *) {
    switch (event) {
      case GBParseEventOption:
        if (settings_) settings_->setObjectForKey(value, *option);
        break;
      case GBParseEventArgument:
        if (settings_) settings_->addArgument(value.string());
        break;
      case GBParseEventOptionNotInGroup:
        std::fprintf(stderr, "Invalid option %s for group %s!\n", shown(option), shown(currentOptionsGroupName_));
        break;
      case GBParseEventMissingValue:
        std::fprintf(stderr, "Missing value for command line option %s, try --help!\n", shown(option));
        break;
      case GBParseEventUnknownOption:
        std::fprintf(stderr, "Unknown command line option %s, try --help!\n", shown(option));
        break;
    }
  };
}

bool GBCommandLineParser::parseOptionsUsingDefaultArguments() {
  validateSimplifiedOptionsWithSelector("parseOptionsUsingDefaultArguments");
  return parseOptionsUsingDefaultArgumentsWithBlock(simplifiedOptionsParserBlock());
}

bool GBCommandLineParser::parseOptionsWithArguments(const char *const *arguments, int count) {
  validateSimplifiedOptionsWithSelector("parseOptionsWithArguments:count:");
  return parseOptionsWithArguments(arguments, count, simplifiedOptionsParserBlock());
}

bool GBCommandLineParser::parseOptionsWithArguments(const std::vector<std::string> &arguments,
                                                    const std::string &commandLine) {
  validateSimplifiedOptionsWithSelector("parseOptionsWithArguments:commandLine:");
  return parseOptionsWithArguments(arguments, commandLine, simplifiedOptionsParserBlock());
}

}  // namespace GB
