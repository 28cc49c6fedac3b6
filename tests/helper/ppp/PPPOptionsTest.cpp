#include <gtest/gtest.h>

#include <algorithm>

#include "helper/ppp/PPPOptions.h"

using foundation::Value;
using namespace helper;

namespace {

PPPSurroundings surroundings(const std::string &type = "PPTP") {
  return {.tunnelType = type,
          .pluginPath = "/lib/plugin.so",
          .socketPath = "/run/link/plugin",
          .logPath = "/var/log/ppp.log",
          .noScript = "/run/link/none"};
}

class Options {
 public:
  explicit Options(const Value &ppp, const std::string &type = "PPTP") : words_(pppOptions(ppp, surroundings(type))) {}
  bool has(const std::string &word) const { return std::count(words_.begin(), words_.end(), word) == 1; }
  std::string after(const std::string &word) const {
    const auto at = std::find(words_.begin(), words_.end(), word);
    return at == words_.end() || at + 1 == words_.end() ? "(none)" : *(at + 1);
  }
  const std::vector<std::string> &words() const { return words_; }

 private:
  std::vector<std::string> words_;
};

Value dictionary(std::initializer_list<std::pair<const std::string, Value>> entries) {
  return Value(Value::Dictionary(entries));
}

TEST(PPPOptions, LoadThePluginBeforeItsOwnOptions) {
  const Options options(dictionary({}));
  EXPECT_EQ(options.words().at(0), "plugin");
  EXPECT_EQ(options.words().at(1), "/lib/plugin.so");
  EXPECT_EQ(options.after("vpnctl-socket"), "/run/link/plugin");
}

TEST(PPPOptions, OverrideWhatTheSystemsFileMaySay) {
  const Options options(dictionary({}));
  for (const char *word :
       {"nodetach", "nopersist", "noauth", "noipdefault", "ipcp-accept-local", "ipcp-accept-remote", "noipv6",
        "nodefaultroute", "noreplacedefaultroute", "noproxyarp", "hide-password", "noktune"})
    EXPECT_TRUE(options.has(word)) << word;
  EXPECT_EQ(options.after("idle"), "0");
  EXPECT_EQ(options.after("maxconnect"), "0");
  EXPECT_EQ(options.after("logfile"), "/var/log/ppp.log");
  EXPECT_EQ(options.after("ip-up-script"), "/run/link/none");
  EXPECT_EQ(options.after("ip-down-script"), "/run/link/none");
}

TEST(PPPOptions, NeverDemandThatTheServerAuthenticates) {
  for (const bool ccp : {false, true}) {
    const Options options(dictionary({{"CCPEnabled", ccp}}));
    for (const std::string &word : options.words())
      EXPECT_TRUE(!word.starts_with("require-") || word.starts_with("require-mppe")) << word;
  }
}

TEST(PPPOptions, KeepTheUserNameInOneWord) {
  EXPECT_EQ(Options(dictionary({{"AuthName", "DOM\\some one \"x\""}})).after("user"), "DOM\\some one \"x\"");
  EXPECT_EQ(Options(dictionary({})).after("user"), "");
}

TEST(PPPOptions, NeverCarryTheKeychainsName) {
  const Options options(dictionary({{"AuthPassword", "ITEM"}}));
  for (const std::string &word : options.words()) EXPECT_NE(word, "ITEM");
}

TEST(PPPOptions, RefuseWhatIsNotAllowed) {
  const Options plain(dictionary({}));
  EXPECT_FALSE(plain.has("refuse-pap"));
  EXPECT_FALSE(plain.has("refuse-mschap-v2"));
  EXPECT_TRUE(plain.has("refuse-eap"));
  const Options encrypted(dictionary({{"CCPEnabled", 1}}));
  EXPECT_TRUE(encrypted.has("refuse-pap"));
  EXPECT_TRUE(encrypted.has("refuse-chap"));
  EXPECT_TRUE(encrypted.has("refuse-eap"));
  EXPECT_FALSE(encrypted.has("refuse-mschap"));
  const Options one(dictionary({{"AuthProtocol", Value::Array{Value("MSCHAP2")}}}));
  EXPECT_TRUE(one.has("refuse-pap"));
  EXPECT_TRUE(one.has("refuse-mschap"));
  EXPECT_FALSE(one.has("refuse-mschap-v2"));
}

TEST(PPPOptions, EncryptAsTheKeysSay) {
  EXPECT_TRUE(Options(dictionary({})).has("noccp"));
  const Options both(dictionary({{"CCPEnabled", 1}}));
  EXPECT_TRUE(both.has("require-mppe"));
  EXPECT_TRUE(both.has("nomppe-stateful"));
  EXPECT_FALSE(both.has("noccp"));
  EXPECT_TRUE(Options(dictionary({{"CCPEnabled", 1}, {"CCPMPPE40Enabled", 0}})).has("require-mppe-128"));
  EXPECT_TRUE(Options(dictionary({{"CCPEnabled", 1}, {"CCPMPPE128Enabled", 0}})).has("require-mppe-40"));
  EXPECT_TRUE(Options(dictionary({{"CCPEnabled", 1}, {"CCPMPPE128Enabled", 0}, {"CCPMPPE40Enabled", 0}})).has("noccp"));
  EXPECT_TRUE(Options(dictionary({{"CCPEnabled", 1}}), "L2TP").has("noccp"));
}

TEST(PPPOptions, HaveTheTunnelsSizes) {
  EXPECT_EQ(Options(dictionary({})).after("mtu"), "1448");
  EXPECT_EQ(Options(dictionary({}), "L2TP").after("mtu"), "1400");
  EXPECT_EQ(Options(dictionary({{"LCPMTU", 1400}})).after("mtu"), "1400");
  EXPECT_EQ(Options(dictionary({{"LCPMTU", 7}})).after("mtu"), "1448");
  EXPECT_EQ(Options(dictionary({{"LCPMRU", "junk"}})).after("mru"), "1500");
}

TEST(PPPOptions, WatchTheLineUnlessToldNotTo) {
  EXPECT_EQ(Options(dictionary({})).after("lcp-echo-interval"), "20");
  const Options set(dictionary({{"LCPEchoInterval", 5}, {"LCPEchoFailure", 3}}));
  EXPECT_EQ(set.after("lcp-echo-interval"), "5");
  EXPECT_EQ(set.after("lcp-echo-failure"), "3");
  EXPECT_EQ(Options(dictionary({{"LCPEchoEnabled", 0}, {"LCPEchoInterval", 5}})).after("lcp-echo-interval"), "0");
}

TEST(PPPOptions, FollowTheSwitches) {
  EXPECT_TRUE(Options(dictionary({})).has("novj"));
  EXPECT_FALSE(Options(dictionary({{"IPCPCompressionVJ", 1}})).has("novj"));
  EXPECT_TRUE(Options(dictionary({})).has("vpnctl-peer-dns"));
  EXPECT_FALSE(Options(dictionary({{"IPCPUsePeerDNS", 0}})).has("vpnctl-peer-dns"));
  EXPECT_FALSE(Options(dictionary({})).has("debug"));
  EXPECT_TRUE(Options(dictionary({{"VerboseLogging", 1}})).has("debug"));
  EXPECT_EQ(Options(dictionary({{"DisconnectOnIdle", 1}, {"DisconnectOnIdleTimer", 600}})).after("idle"), "600");
}

}  // namespace
