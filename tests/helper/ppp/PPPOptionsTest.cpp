#include <gtest/gtest.h>

#include <algorithm>

#include "helper/ppp/PPPOptions.h"

using namespace helper;

namespace {

class Options {
 public:
  explicit Options(const PPPPlan &plan = {})
      : words_(pppOptions(plan,
                          {.plugin = "/lib/plugin.so", .socket = "/run/link/plugin", .noScript = "/run/link/none"})) {}
  bool has(const std::string &word) const { return std::count(words_.begin(), words_.end(), word) == 1; }
  std::string after(const std::string &word) const {
    const auto at = std::find(words_.begin(), words_.end(), word);
    return at == words_.end() || at + 1 == words_.end() ? "(none)" : *(at + 1);
  }
  const std::vector<std::string> &words() const { return words_; }

 private:
  std::vector<std::string> words_;
};

TEST(PPPOptions, LoadThePluginBeforeItsOwnOptions) {
  const Options options;
  EXPECT_EQ(options.words().at(0), "plugin");
  EXPECT_EQ(options.words().at(1), "/lib/plugin.so");
  EXPECT_EQ(options.after("vpnctl-socket"), "/run/link/plugin");
}

TEST(PPPOptions, OverrideWhatTheSystemsFileMaySay) {
  const Options options;
  for (const char *word :
       {"nodetach", "nopersist", "noauth", "noipdefault", "ipcp-accept-local", "ipcp-accept-remote", "noipv6",
        "nodefaultroute", "noreplacedefaultroute", "noproxyarp", "hide-password", "noktune"})
    EXPECT_TRUE(options.has(word)) << word;
  EXPECT_EQ(options.after("idle"), "0");
  EXPECT_EQ(options.after("maxconnect"), "0");
  EXPECT_EQ(options.after("maxfail"), "1");
  EXPECT_EQ(options.after("lcp-restart"), "1");
  EXPECT_EQ(options.after("lcp-max-configure"), "10");
  EXPECT_EQ(options.after("ipcp-restart"), "1");
  EXPECT_EQ(options.after("logfd"), "2");
  EXPECT_EQ(options.after("ip-up-script"), "/run/link/none");
  EXPECT_EQ(options.after("ip-down-script"), "/run/link/none");
}

TEST(PPPOptions, NeverDemandThatTheServerAuthenticates) {
  for (const MPPE mppe : {MPPE::none, MPPE::any, MPPE::only40, MPPE::only128})
    for (const Options options({.mppe = mppe}); const std::string &word : options.words())
      EXPECT_TRUE(!word.starts_with("require-") || word.starts_with("require-mppe")) << word;
}

TEST(PPPOptions, KeepTheUserNameInOneWord) {
  EXPECT_EQ(Options({.account = "DOM\\some one \"x\""}).after("user"), "DOM\\some one \"x\"");
  EXPECT_EQ(Options().after("user"), "");
}

TEST(PPPOptions, NeverCarryTheKeychainsName) {
  for (const Options options({.passwordItem = "ITEM"}); const std::string &word : options.words())
    EXPECT_NE(word, "ITEM");
}

TEST(PPPOptions, RefuseWhatIsNotAllowed) {
  struct {
    AuthProtocol protocol;
    const char *refusal;
  } constexpr kRows[] = {{AuthProtocol::pap, "refuse-pap"},
                         {AuthProtocol::chap, "refuse-chap"},
                         {AuthProtocol::mschap1, "refuse-mschap"},
                         {AuthProtocol::mschap2, "refuse-mschap-v2"},
                         {AuthProtocol::eap, "refuse-eap"}};
  for (const auto &allowed : kRows) {
    const Options options({.authProtocols = {allowed.protocol}});
    for (const auto &row : kRows) EXPECT_EQ(options.has(row.refusal), row.protocol != allowed.protocol) << row.refusal;
  }
}

TEST(PPPOptions, EncryptOrDoNotCompress) {
  EXPECT_TRUE(Options().has("noccp"));
  EXPECT_TRUE(Options({.mppe = MPPE::any}).has("require-mppe"));
  EXPECT_TRUE(Options({.mppe = MPPE::only40}).has("require-mppe-40"));
  EXPECT_TRUE(Options({.mppe = MPPE::only128}).has("require-mppe-128"));
  for (const MPPE mppe : {MPPE::any, MPPE::only40, MPPE::only128}) {
    const Options options({.mppe = mppe});
    EXPECT_FALSE(options.has("noccp"));
    for (const char *word : {"nomppe-stateful", "nobsdcomp", "nodeflate"}) EXPECT_TRUE(options.has(word)) << word;
  }
}

TEST(PPPOptions, SayTheNumbers) {
  const Options options({.mtu = 1400,
                         .mru = 1410,
                         .echoInterval = std::chrono::seconds(5),
                         .echoFailures = 3,
                         .idleLimit = std::chrono::seconds(600)});
  EXPECT_EQ(options.after("mtu"), "1400");
  EXPECT_EQ(options.after("mru"), "1410");
  EXPECT_EQ(options.after("lcp-echo-interval"), "5");
  EXPECT_EQ(options.after("lcp-echo-failure"), "3");
  EXPECT_EQ(options.after("idle"), "600");
}

TEST(PPPOptions, FollowTheSwitches) {
  const Options plain;
  for (const char *word : {"novj", "nopcomp", "noaccomp", "vpnctl-peer-dns"}) EXPECT_TRUE(plain.has(word)) << word;
  EXPECT_FALSE(plain.has("debug"));
  const Options switched({.peerDNS = false,
                          .compressProtocolField = true,
                          .compressAddressAndControlField = true,
                          .compressTCPHeaders = true,
                          .trace = true});
  for (const char *word : {"novj", "nopcomp", "noaccomp", "vpnctl-peer-dns"}) EXPECT_FALSE(switched.has(word)) << word;
  EXPECT_TRUE(switched.has("debug"));
}

}  // namespace
