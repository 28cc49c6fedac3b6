#include <utility>

#include "helper/common/EngineSettings.h"
#include "helper/link/LinkFactory.h"

namespace helper {

namespace {

class RealLink : public RunningLink {
 public:
  RealLink(sd_event *event, LinkConfiguration configuration, SecretSource &secrets, PPPLog &log,
           Link::StatusHandler handler)
      : link_(event, std::move(configuration), secrets, log, std::move(handler)) {}

  void start() override { link_.start(); }
  void stop() override { link_.stop(); }
  const LinkStatus &status() const override { return link_.status(); }
  bool isDown() const override { return link_.isDown(); }

 private:
  Link link_;
};

// The machine's settings as they are now: a change counts for the next link.
EngineSettings readSettings(PPPLog &log) {
  auto [settings, complaints] = EngineSettings::read();
  for (const std::string &complaint : complaints) log.write(complaint);
  return std::move(settings);
}

}  // namespace

LinkFactory realLinks(sd_event *event, SecretSource &secrets, PPPLog &log, const bool &serverRemembers) {
  return [=, &secrets, &log, &serverRemembers](
             const foundation::Value &preferences, const std::string &serviceID,
             Link::StatusHandler handler) -> foundation::Result<std::unique_ptr<RunningLink>> {
    auto configuration = LinkConfiguration::fromPreferences(preferences, serviceID);
    if (!configuration) return configuration.error();
    EngineSettings settings = readSettings(log);
    using SourcePort = EngineSettings::SourcePort;
    if (serverRemembers && configuration->tunnelType == "L2TP" && settings.l2tp.sourcePort == SourcePort::automatic) {
      settings.l2tp.sourcePort = SourcePort::any;
      log.write(
          "The server was not told that the earlier connection has ended: L2TP goes out from another port than 1701, "
          "which a few servers do not accept.");
    }
    configuration->applySettings(settings);
    if (configuration->isInClear())
      log.write(std::string("Nothing in this connection is encrypted, because pptp.mppe is \"none\" in ") +
                EngineSettings::kPath + ".");
    return std::unique_ptr<RunningLink>(
        std::make_unique<RealLink>(event, std::move(*configuration), secrets, log, std::move(handler)));
  };
}

}  // namespace helper
