#include "companions/doctor/ConfigurationCheck.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <string_view>

#include "cli/Suggestion.h"
#include "companions/doctor/FindingList.h"
#include "helper/common/ServerAddress.h"

namespace companions {

namespace {

using Setting = ToolConfiguration::Setting;
using Kind = Setting::Kind;

constexpr std::array<std::string_view, 5> kTexts{"protocol", "ip", "username", "password", "shared_secret"};
constexpr std::string_view kNeedsAll = "vpnctl wants all five of protocol, ip, username, password and shared_secret.";

// The setting that was probably meant by TYPED; empty: none.
std::string_view meantBy(std::string_view typed) {
  GB::Suggestion suggestion(typed);
  for (const std::string_view name : kTexts) suggestion.offer(name);
  return suggestion.name();
}

bool isKnown(std::string_view name) { return std::ranges::find(kTexts, name) != kTexts.end(); }

class Reading {
 public:
  Reading(const Situation &situation, FindingList &found)
      : path_(*situation.path), configuration_(situation.configuration->value()), found_(found) {}

  void look() {
    for (const std::string_view name : kTexts) lookForText(name);
    found_.fine("configuration.missing", "All five settings are in " + path_ + ".");
    found_.fine("configuration.text", "The settings are texts.");
    found_.fine("configuration.empty", "The settings say something.");
    lookAtProtocol();
    lookAtServer();
    lookForStrangers();
  }

 private:
  std::string at(const Setting &setting) const { return path_ + ":" + std::to_string(setting.line); }

  const Setting *find(std::string_view name) const {
    const auto &all = configuration_.settings();
    const auto found = std::ranges::find(all, name, &Setting::name);
    return found == all.end() ? nullptr : &*found;
  }

  // One that vpnctl does not know, and that was probably meant to be NAME.
  const Setting *findMistyped(std::string_view name) const {
    for (const Setting &setting : configuration_.settings())
      if (!isKnown(setting.name) && meantBy(setting.name) == name) return &setting;
    return nullptr;
  }

  void lookForText(std::string_view name) {
    const std::string quoted(name);
    const Setting *setting = find(name);
    if (setting == nullptr) return missing(quoted);
    switch (setting->kind) {
      case Kind::text:
        return;
      case Kind::empty:
        return empty(*setting);
      case Kind::notUTF8:
        return found_.prevents("configuration.text", at(*setting) + ": " + quoted + " is no text in UTF-8.",
                               "vpnctl reads texts in UTF-8 only.", "save " + path_ + " in UTF-8");
      case Kind::other:
        return found_.prevents("configuration.text", at(*setting) + ": " + quoted + " is no text.",
                               "vpnctl takes texts only, also where they are numbers.",
                               "put the value in quotation marks: " + quoted + " = \"...\";");
    }
  }

  void missing(const std::string &name) {
    const Setting *mistyped = findMistyped(name);
    if (mistyped != nullptr)
      return found_.prevents("configuration.missing", path_ + " has no " + name + ".", std::string(kNeedsAll),
                             at(*mistyped) + ": did you mean " + name + " by " + mistyped->name + "?");
    const bool isUseless = name == "shared_secret" && configuration_.protocol() == "pptp";
    found_.prevents("configuration.missing", path_ + " has no " + name + ".", std::string(kNeedsAll),
                    "a line " + name + " = \"" + (isUseless ? "unused" : "...") + "\"; in " + path_);
  }

  void empty(const Setting &setting) {
    // Of these another finding tells.
    if (setting.name == "protocol" || setting.name == "ip") return;
    if (setting.name == "shared_secret" && configuration_.protocol() == "pptp") return;
    found_.hinders("configuration.empty", at(setting) + ": " + setting.name + " is empty.",
                   "Hardly any server accepts that.", "put it between the quotation marks");
  }

  void lookAtProtocol() {
    const auto &protocol = configuration_.protocol();
    if (!protocol) return;
    if (*protocol != "l2tp" && *protocol != "pptp") {
      const Setting *setting = find("protocol");
      found_.prevents("configuration.protocol", at(*setting) + ": the protocol is neither l2tp nor pptp.",
                      "vpnctl knows these two, in small letters, and no other.",
                      "protocol = \"l2tp\"; or protocol = \"pptp\"; in " + path_);
    }
    found_.fine("configuration.protocol", "The protocol is " + *protocol + ".");
  }

  void lookAtServer() {
    const auto &server = configuration_.server();
    if (!server) return;
    if (const auto address = helper::serverAddressFrom(*server); !address)
      found_.prevents("configuration.server", at(*find("ip")) + ": " + address.error().message,
                      "vpnctl reaches its server over IPv4, by address or by name.",
                      "ip = \"vpn.example.org\"; in " + path_ + ", with the server's own name or IPv4 address");
    found_.fine("configuration.server", "The server's address can be one.");
  }

  void lookForStrangers() {
    for (const Setting &setting : configuration_.settings()) {
      if (isKnown(setting.name)) continue;
      const std::string_view meant = meantBy(setting.name);
      // What is missing says so itself.
      if (!meant.empty() && find(meant) == nullptr) continue;
      found_.hinders("configuration.unknown", at(setting) + ": vpnctl knows no setting " + setting.name + ".",
                     "It is not read, so that what it says does not hold.",
                     meant.empty() ? "take the line out" : "did you mean " + std::string(meant) + "?");
    }
    found_.fine("configuration.unknown", "vpnctl knows all the settings there are.");
  }

  const std::string &path_;
  const ToolConfiguration &configuration_;
  FindingList &found_;
};

void unreadable(const Situation &situation, FindingList &found) {
  const std::string &path = *situation.path;
  const auto &error = situation.configuration->error();
  const bool isSystems = error.domain == vpnctl::kPOSIXErrorDomain;
  if (isSystems && error.code == ENOENT)
    return found.prevents("configuration.file", "There is no file " + path + ".",
                          "Where to connect to stands in the configuration.",
                          "give -c the file's right name, or write it: vpnctl(8) says what belongs in it");
  if (isSystems && error.code == EACCES)
    return found.prevents("configuration.file",
                          "User " + std::to_string(situation.user) + " may not read " + path + ".",
                          "vpnctl reads it as the user who starts it.",
                          "as root: chown " + std::to_string(situation.user) + " " + path + " && chmod 600 " + path);
  if (isSystems)
    return found.prevents("configuration.file", "The configuration cannot be read: " + error.message + ".",
                          "Where to connect to stands in it.", "name a file that can be read by -c");
  found.prevents("configuration.file", error.message + ".", "vpnctl reads all of the file or nothing.",
                 "a setting is a line of the form ip = \"vpn.example.org\"; with both quotation marks");
}

void lookAtPermissions(const std::string &path, FindingList &found) {
  struct stat file = {};
  if (::stat(path.c_str(), &file) < 0 || !S_ISREG(file.st_mode)) return;
  if ((file.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    found.hinders("configuration.permissions", "Others than its owner may write " + path + ".",
                  "It holds secrets, and whoever may write it can have them sent to a server of his own.",
                  "chmod 600 " + path);
  else if ((file.st_mode & (S_IRGRP | S_IROTH)) != 0)
    found.hinders("configuration.permissions", "Others than its owner may read " + path + ".",
                  "It holds the password and the shared secret.", "chmod 600 " + path);
  found.fine("configuration.permissions", "Only its owner may read and write " + path + ".");
}

}  // namespace

Findings ConfigurationCheck::look(const Situation &situation) {
  FindingList found;
  if (!situation.configuration) return found.take();
  if (*situation.configuration)
    Reading(situation, found).look();
  else
    unreadable(situation, found);
  found.fine("configuration.file", *situation.path + " can be read.");
  lookAtPermissions(*situation.path, found);
  return found.take();
}

}  // namespace companions
