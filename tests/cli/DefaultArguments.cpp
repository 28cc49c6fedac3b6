// Prints what a parse of the process's own arguments finds, one finding in brackets after the other.

#include <cstdio>

#include "cli/GBCommandLineParser.h"
#include "cli/GBPrint.h"

int main() {
  GB::GBCommandLineParser parser;
  parser.registerOption("output", 'o', GB::GBOptionRequiresValue);
  parser.registerSwitch("verbose", 'v');
  const bool result = parser.parseOptionsUsingDefaultArgumentsWithBlock(
      [](GB::GBParseEvent, const std::optional<std::string> &option, const vpnctl::Value &value, bool *) {
        GB::gbprint("[%@=%@]", option, value);
      });
  GB::gbprintln("%s", result ? "yes" : "no");
  return 0;
}
