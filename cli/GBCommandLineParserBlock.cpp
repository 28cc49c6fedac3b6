// Parsing with the block that comes with the parser: values go into settings, errors to standard error.

#include <cstdio>

#include "cli/GBCommandLineParser.h"
#include "cli/GBPrint.h"

namespace GB {

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
        gbfprintln(stderr, "Invalid option %@ for group %@!", option, currentOptionsGroupName_);
        break;
      case GBParseEventMissingValue:
        gbfprintln(stderr, "Missing value for command line option %s, try --help!", option->c_str());
        break;
      case GBParseEventUnknownOption:
        gbfprintln(stderr, "Unknown command line option %@, try --help!", option);
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
