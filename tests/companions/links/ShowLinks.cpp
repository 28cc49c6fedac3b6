// Prints the links of this machine, as text or one line of JSON each: show_links [text | json]

#include <cstdio>
#include <string_view>

#include "companions/links/LinkRendering.h"
#include "companions/links/LinksUp.h"

using namespace companions;

int main(int count, char **arguments) {
  const std::string_view form = count > 1 ? arguments[1] : "text";
  const Sources sources = Sources::ofThisMachine();
  const auto links = linksUp(sources);
  if (!links) {
    std::fprintf(stderr, "%s\n", links.error().message.c_str());
    return 1;
  }
  if (links->empty() && form == "text") std::puts(kNoLink);
  for (const LinkState &link : *links)
    std::fputs((form == "json" ? jsonOf(link).line() : textOf(link, sources.now)).c_str(), stdout);
  return 0;
}
