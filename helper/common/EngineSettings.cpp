#include "helper/common/EngineSettings.h"

#include <libconfig.h>

#include <algorithm>
#include <array>
#include <functional>
#include <string_view>
#include <utility>

#include "helper/common/IPv4Address.h"
#include "helper/common/SettingsText.h"

namespace helper {

namespace {

constexpr std::size_t kMaximumText = 200;       // bytes of one value
constexpr std::size_t kMaximumElements = 32;    // of one list
constexpr std::size_t kMaximumComplaints = 16;  // what else is wrong shows when these are mended

// What a value is to be, as part of a sentence; no text when the value was taken.
using Expectation = std::string;
// Takes a value over, or says what it would have to be.
using Taker = std::function<Expectation(const config_setting_t *value, EngineSettings &settings)>;

std::optional<long long> wholeNumber(const config_setting_t *value, long long lowest, long long highest) {
  const int type = config_setting_type(value);
  if (type != CONFIG_TYPE_INT && type != CONFIG_TYPE_INT64) return std::nullopt;
  const long long number = type == CONFIG_TYPE_INT ? config_setting_get_int(value) : config_setting_get_int64(value);
  if (number < lowest || number > highest) return std::nullopt;
  return number;
}

Expectation takeNumber(const config_setting_t *value, long long lowest, long long highest, const char *unit,
                       const std::function<void(long long)> &take) {
  const auto number = wholeNumber(value, lowest, highest);
  if (!number) return "a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest) + unit;
  take(*number);
  return {};
}

template <class Number>
Taker number(std::optional<Number> EngineSettings::PPP::*member, long long lowest, long long highest,
             const char *unit) {
  return [=](const config_setting_t *value, EngineSettings &settings) {
    return takeNumber(
        value, lowest, highest, unit, [&](long long taken) { settings.ppp.*member = static_cast<Number>(taken); });
  };
}

template <class Group, class Duration>
Taker seconds(Group EngineSettings::*group, Duration Group::*member, long long lowest, long long highest) {
  return [=](const config_setting_t *value, EngineSettings &settings) {
    return takeNumber(
        value, lowest, highest, " (seconds)",
        [&](long long number) { (settings.*group).*member = std::chrono::seconds(number); });
  };
}

Taker boolean(std::optional<bool> EngineSettings::PPP::*member) {
  return [=](const config_setting_t *value, EngineSettings &settings) -> Expectation {
    if (config_setting_type(value) != CONFIG_TYPE_BOOL) return "true or false";
    settings.ppp.*member = config_setting_get_bool(value) == CONFIG_TRUE;
    return {};
  };
}

template <class Choice>
struct Word {
  const char *word;
  Choice choice;
};

template <class Group, class Choice, std::size_t count>
Taker choice(Group EngineSettings::*group, Choice Group::*member, std::array<Word<Choice>, count> words) {
  return [=](const config_setting_t *value, EngineSettings &settings) -> Expectation {
    const char *text = config_setting_get_string(value);
    Expectation expected = "one of";
    for (const Word<Choice> &word : words) {
      if (text != nullptr && std::string_view(text) == word.word) {
        (settings.*group).*member = word.choice;
        return {};
      }
      expected += std::string(&word == &words.front() ? " \"" : ", \"") + word.word + "\"";
    }
    return expected;
  };
}

bool isPlainText(std::string_view text) {
  return !text.empty() && text.size() <= kMaximumText &&
         std::ranges::all_of(
             text, [](char character) { return character >= ' ' && character <= '~'; });
}

Taker text(std::string EngineSettings::IKE::*member, Expectation expected) {
  return [=](const config_setting_t *value, EngineSettings &settings) -> Expectation {
    const char *given = config_setting_get_string(value);
    if (given == nullptr || !isPlainText(given)) return expected;
    settings.ike.*member = given;
    return {};
  };
}

template <class Group>
Taker list(Group EngineSettings::*group, std::vector<std::string> Group::*member, bool (*fits)(std::string_view),
           Expectation expected) {
  return [=](const config_setting_t *value, EngineSettings &settings) -> Expectation {
    // Either kind of brackets.
    if (config_setting_is_array(value) != CONFIG_TRUE && config_setting_is_list(value) != CONFIG_TRUE) return expected;
    const int length = config_setting_length(value);
    if (static_cast<std::size_t>(length) > kMaximumElements) return expected;
    std::vector<std::string> texts;
    for (int i = 0; i < length; ++i) {
      const char *element = config_setting_get_string_elem(value, i);
      if (element == nullptr || !fits(element)) return expected;
      texts.emplace_back(element);
    }
    (settings.*group).*member = std::move(texts);
    return {};
  };
}

bool isProposal(std::string_view text) {
  return isPlainText(text) && std::ranges::all_of(
                                  text,
                                  [](char character) {
                                    return (character >= 'a' && character <= 'z') ||
                                           (character >= '0' && character <= '9') || character == '-' ||
                                           character == '_';
                                  });
}

bool isAuthProtocol(std::string_view text) {
  static constexpr std::array<std::string_view, 5> kProtocols{"PAP", "CHAP", "MSCHAP1", "MSCHAP2", "EAP"};
  return std::ranges::find(kProtocols, text) != kProtocols.end();
}

// As systemd-resolved takes it, and a line of resolv.conf; no dot at the end, and not the root.
bool isDomain(std::string_view text) {
  constexpr std::size_t kMaximumName = 253;
  constexpr std::size_t kMaximumLabel = 63;
  if (text.empty() || text.size() > kMaximumName) return false;
  std::size_t label = 0;
  for (const char character : text) {
    const bool fits = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
                      (character >= '0' && character <= '9') || character == '-' || character == '_';
    if (!fits && (character != '.' || label == 0)) return false;
    label = character == '.' ? 0 : label + 1;
    if (label > kMaximumLabel) return false;
  }
  return label > 0;
}
bool isNetwork(std::string_view text) { return networkFrom(std::string(text)).has_value(); }

struct Key {
  const char *group;
  const char *name;
  Taker take;
};

// Everything that may stand in the file; packaging/engine.conf and vpnctl-engine.conf(5) say what it does.
const std::vector<Key> &table() {
  using S = EngineSettings;
  static const Expectation kProposals = "a list of proposals such as [ \"aes256-sha1-modp1024\" ]";
  static const std::vector<Key> kTable{
      {"ike", "proposals", list(&S::ike, &S::IKE::proposals, isProposal, kProposals)},
      {"ike", "esp_proposals", list(&S::ike, &S::IKE::espProposals, isProposal, kProposals)},
      {"ike", "local_identity",
       text(&S::IKE::localIdentity, "an address, a name, \"user@name\", \"@group\", or \"%address\", in quotes")},
      {"ike", "remote_identity", text(&S::IKE::remoteIdentity, "an address, a name, or \"%any\", in quotes")},
      {"ike", "mode",
       choice(&S::ike, &S::IKE::mode,
              std::array{Word<S::IKEMode>{"main", S::IKEMode::main},
                         Word<S::IKEMode>{"aggressive", S::IKEMode::aggressive}})},
      {"ike", "deadline", seconds(&S::ike, &S::IKE::deadline, 1, 600)},
      // Shorter ones would be spent on making the next.
      {"ike", "lifetime", seconds(&S::ike, &S::IKE::lifetime, 10, 86400)},
      {"ike", "esp_lifetime", seconds(&S::ike, &S::IKE::espLifetime, 10, 86400)},
      {"ike", "dead_peer_delay", seconds(&S::ike, &S::IKE::deadPeerDelay, 0, 3600)},
      {"l2tp", "source_port",
       choice(&S::l2tp, &S::L2TP::sourcePort,
              std::array{Word<S::SourcePort>{"automatic", S::SourcePort::automatic},
                         Word<S::SourcePort>{"1701", S::SourcePort::wellKnown},
                         Word<S::SourcePort>{"any", S::SourcePort::any}})},
      {"l2tp", "deadline", seconds(&S::l2tp, &S::L2TP::deadline, 1, 600)},
      {"l2tp", "dead_peer_delay", seconds(&S::l2tp, &S::L2TP::deadPeerDelay, 1, 3600)},
      {"pptp", "mppe",
       choice(&S::pptp, &S::PPTP::mppe,
              std::array{Word<S::MPPE>{"service", S::MPPE::service}, Word<S::MPPE>{"require-128", S::MPPE::require128},
                         Word<S::MPPE>{"none", S::MPPE::none}})},
      {"pptp", "deadline", seconds(&S::pptp, &S::PPTP::deadline, 1, 600)},
      {"pptp", "dead_peer_delay", seconds(&S::pptp, &S::PPTP::deadPeerDelay, 1, 3600)},
      // What pppd takes.
      {"ppp", "mtu", number(&S::PPP::mtu, 128, 16384, " (bytes)")},
      {"ppp", "mru", number(&S::PPP::mru, 128, 16384, " (bytes)")},
      {"ppp", "authentication",
       list(&S::ppp, &S::PPP::authProtocols, isAuthProtocol,
            "a list of \"PAP\", \"CHAP\", \"MSCHAP1\", \"MSCHAP2\", \"EAP\"")},
      {"ppp", "domains", list(&S::ppp, &S::PPP::domains, isDomain, "a list of domains such as [ \"corp.example\" ]")},
      {"ppp", "dns", boolean(&S::PPP::dns)},
      {"ppp", "default_route", boolean(&S::PPP::defaultRoute)},
      {"ppp", "routes",
       list(&S::ppp, &S::PPP::routes, isNetwork, "a list of IPv4 networks such as [ \"10.0.0.0/8\" ]")},
      {"ppp", "local_networks", boolean(&S::PPP::localNetworks)},
      {"ppp", "ipv6",
       choice(&S::ppp, &S::PPP::ipv6,
              std::array{Word<S::IPv6>{"refuse", S::IPv6::refuse}, Word<S::IPv6>{"leave", S::IPv6::leave}})},
      {"ppp", "echo_interval", number(&S::PPP::echoInterval, 1, 3600, " (seconds)")},
      {"ppp", "echo_failures", number(&S::PPP::echoFailures, 1, 1000, "")},
      {"ppp", "debug", boolean(&S::PPP::debug)},
      {"ppp", "deadline", seconds(&S::ppp, &S::PPP::deadline, 1, 600)},
  };
  return kTable;
}

bool isGroup(std::string_view name) {
  return std::ranges::any_of(
      table(), [&](const Key &key) { return name == key.group; });
}

// What holds instead of a setting, a group, a file that cannot be used, as parts of a sentence.
struct Fallback {
  const char *one;
  const char *group;
  const char *all;
};
constexpr Fallback kDefaults{"the default holds", "its defaults hold", "the defaults hold for everything"};
constexpr Fallback kGeneral{"the general setting holds", "its general settings hold", "the general settings hold"};

// Goes through a parsed file; keeps what can be used and collects what cannot.
class Reader {
 public:
  // What cannot be used leaves BASE as it is; FALLBACK says what that is.
  Reader(std::string path, const EngineSettings &base, Fallback fallback)
      : path_(std::move(path)), fallback_(fallback), reading_{base, {}} {}

  void complain(unsigned line, const std::string &what) {
    ++troubles_;
    if (troubles_ <= kMaximumComplaints)
      reading_.complaints.push_back(path_ + (line > 0 ? ":" + std::to_string(line) : "") + ": " + what);
  }

  void readRoot(const config_setting_t *root) {
    forEach(
        root,
        [this](const config_setting_t *group, const std::string &name) {
          if (!isGroup(name)) return unknown(group, name);
          if (config_setting_is_group(group) != CONFIG_TRUE)
            return complain(config_setting_source_line(group),
                            name + " must be a group in braces; " + fallback_.group + ".");
          readGroup(group, name);
        });
  }

  EngineSettings::Reading take() {
    if (troubles_ > kMaximumComplaints) {
      reading_.complaints.push_back(path_ + ": " + std::to_string(troubles_ - kMaximumComplaints) +
                                    " more lines cannot be used.");
    }
    return std::move(reading_);
  }

 private:
  template <class Visit>
  static void forEach(const config_setting_t *group, Visit visit) {
    for (int i = 0; i < config_setting_length(group); ++i) {
      const config_setting_t *setting = config_setting_get_elem(group, static_cast<unsigned>(i));
      visit(setting, config_setting_name(setting));
    }
  }

  void readGroup(const config_setting_t *group, const std::string &groupName) {
    forEach(
        group,
        [&](const config_setting_t *value, const std::string &name) {
          const std::string fullName = groupName + "." + name;
          const auto key = std::ranges::find_if(
              table(), [&](const Key &k) { return groupName == k.group && name == k.name; });
          if (key == table().end()) return unknown(value, fullName);
          if (const Expectation expected = key->take(value, reading_.settings); !expected.empty())
            complain(config_setting_source_line(value), fullName + " must be " + expected + "; " + fallback_.one + ".");
        });
  }

  void unknown(const config_setting_t *setting, const std::string &name) {
    const std::string why = name == "ike.socket" ? " any more: no IKE daemon is asked. Take it out" : "";
    complain(config_setting_source_line(setting), "there is no setting " + name.substr(0, kMaximumText) + why + ".");
  }

  std::string path_;
  Fallback fallback_;
  EngineSettings::Reading reading_;
  std::size_t troubles_ = 0;
};

EngineSettings::Reading parseOver(const EngineSettings &base, const std::string &text, const std::string &path,
                                  Fallback fallback) {
  Reader reader(path, base, fallback);
  if (text.find('\0') != std::string::npos) {
    reader.complain(0, std::string("it holds a zero byte; ") + fallback.all + ".");
    return reader.take();
  }
  if (const unsigned line = lineOfInclude(text); line > 0) {
    reader.complain(line, std::string("@include cannot be used here; ") + fallback.all + ".");
    return reader.take();
  }
  config_t config;
  config_init(&config);
  if (config_read_string(&config, withLongIntegers(text).c_str()) == CONFIG_TRUE) {
    reader.readRoot(config_root_setting(&config));
  } else {
    reader.complain(static_cast<unsigned>(config_error_line(&config)),
                    std::string(config_error_text(&config)) + "; " + fallback.all + ".");
  }
  config_destroy(&config);
  return reader.take();
}

EngineSettings::Reading readOver(const EngineSettings &base, const std::string &path, uid_t owner, Fallback fallback) {
  const auto text = readSettingsText(path, owner);
  if (!text) return {base, {path + ": " + text.error().message + "; " + fallback.all + "."}};
  if (!*text) return {base, {}};
  return parseOver(base, **text, path, fallback);
}

// Addresses and names of hosts can; nothing that leads to another folder.
bool canBeFileName(std::string_view server) {
  constexpr std::size_t kLongest = 250;
  return !server.empty() && server.size() <= kLongest && !server.starts_with('.') &&
         server.find('/') == std::string_view::npos && isPlainText(server);
}

}  // namespace

EngineSettings::Reading EngineSettings::read(const std::string &path, uid_t owner) {
  return readOver({}, path, owner, kDefaults);
}

EngineSettings::Reading EngineSettings::readFor(const std::string &server, const std::string &folder, uid_t owner) {
  Reading general = read(folder + "/engine.conf", owner);
  if (!canBeFileName(server)) return general;
  Reading special = readOver(general.settings, folder + "/engine.d/" + server + ".conf", owner, kGeneral);
  special.complaints.insert(special.complaints.begin(), general.complaints.begin(), general.complaints.end());
  return special;
}

std::vector<std::string> EngineSettings::names() {
  std::vector<std::string> names;
  for (const Key &key : table()) names.push_back(std::string(key.group) + "." + key.name);
  return names;
}

EngineSettings::Reading EngineSettings::parse(const std::string &text, const std::string &path) {
  return parseOver({}, text, path, kDefaults);
}

}  // namespace helper
