#include "companions/doctor/Situation.h"

#include <utility>

namespace companions {

Situation Situation::of(Machine machine, uid_t user, std::optional<std::string> path) {
  Situation situation;
  situation.machine = std::move(machine);
  situation.user = user;
  situation.path = std::move(path);
  if (situation.path) {
    situation.configuration = ToolConfiguration::read(*situation.path);
    // Nothing here has a use for them.
    if (*situation.configuration) (*situation.configuration)->forgetSecrets();
  }
  situation.settings =
      helper::EngineSettings::readFor(situation.server(), situation.machine.settings, situation.machine.administrator)
          .settings;
  return situation;
}

bool Situation::concerns(std::string_view protocol) const {
  if (!configuration || !*configuration) return true;
  const auto &named = (*configuration)->protocol();
  return !named || (*named != "l2tp" && *named != "pptp") || *named == protocol;
}

std::string Situation::server() const {
  return configuration && *configuration ? (*configuration)->server().value_or("") : "";
}

}  // namespace companions
