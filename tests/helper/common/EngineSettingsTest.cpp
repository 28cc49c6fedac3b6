#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <set>

#include "helper/common/EngineSettings.h"
#include "tests/support/TemporaryFolder.h"

namespace helper {
namespace {

using namespace std::chrono_literals;
using Complaints = std::vector<std::string>;

EngineSettings::Reading parse(const std::string &text) { return EngineSettings::parse(text, "engine.conf"); }

void expectDefaults(const EngineSettings &settings) {
  const EngineSettings defaults;
  EXPECT_EQ(settings.ike.proposals, defaults.ike.proposals);
  EXPECT_EQ(settings.ike.espProposals, defaults.ike.espProposals);
  EXPECT_EQ(settings.ike.remoteIdentity, defaults.ike.remoteIdentity);
  EXPECT_EQ(settings.ike.deadline, defaults.ike.deadline);
  EXPECT_EQ(settings.ike.lifetime, defaults.ike.lifetime);
  EXPECT_EQ(settings.ike.espLifetime, defaults.ike.espLifetime);
  EXPECT_EQ(settings.ike.deadPeerDelay, defaults.ike.deadPeerDelay);
  EXPECT_EQ(settings.ike.localIdentity, defaults.ike.localIdentity);
  EXPECT_EQ(settings.ike.mode, defaults.ike.mode);
  EXPECT_EQ(settings.l2tp.sourcePort, defaults.l2tp.sourcePort);
  EXPECT_EQ(settings.l2tp.deadline, defaults.l2tp.deadline);
  EXPECT_EQ(settings.l2tp.deadPeerDelay, defaults.l2tp.deadPeerDelay);
  EXPECT_EQ(settings.pptp.mppe, defaults.pptp.mppe);
  EXPECT_EQ(settings.pptp.deadline, defaults.pptp.deadline);
  EXPECT_EQ(settings.pptp.deadPeerDelay, defaults.pptp.deadPeerDelay);
  EXPECT_EQ(settings.ppp.mtu, defaults.ppp.mtu);
  EXPECT_EQ(settings.ppp.mru, defaults.ppp.mru);
  EXPECT_EQ(settings.ppp.authProtocols, defaults.ppp.authProtocols);
  EXPECT_EQ(settings.ppp.dns, defaults.ppp.dns);
  EXPECT_EQ(settings.ppp.defaultRoute, defaults.ppp.defaultRoute);
  EXPECT_EQ(settings.ppp.routes, defaults.ppp.routes);
  EXPECT_EQ(settings.ppp.localNetworks, defaults.ppp.localNetworks);
  EXPECT_EQ(settings.ppp.ipv6, defaults.ppp.ipv6);
  EXPECT_EQ(settings.ppp.echoInterval, defaults.ppp.echoInterval);
  EXPECT_EQ(settings.ppp.echoFailures, defaults.ppp.echoFailures);
  EXPECT_EQ(settings.ppp.debug, defaults.ppp.debug);
  EXPECT_EQ(settings.ppp.domains, defaults.ppp.domains);
  EXPECT_EQ(settings.ppp.deadline, defaults.ppp.deadline);
}

TEST(EngineSettings, EveryKeyIsTakenOver) {
  const auto [settings, complaints] = parse(R"(
    ike = {
      proposals = [ "aes256-sha1-modp1024", "3des-sha1-modp1024" ];
      esp_proposals = ( "aes128-sha1" );
      remote_identity = "10.0.0.1";
      deadline = 7;
      lifetime = 60;
      esp_lifetime = 30;
      dead_peer_delay = 0;
      local_identity = "@branch";
      mode = "aggressive";
    };
    l2tp : { source_port = "any"; deadline = 8; dead_peer_delay = 11; };
    pptp = { mppe = "require-128"; deadline = 9; dead_peer_delay = 12; };
    ppp = {
      mtu = 1400; mru = 0x578;
      authentication = [ "MSCHAP2", "EAP" ];
      dns = false;
      default_route = false;
      routes = [ "10.0.0.0/8", "0.0.0.0/0" ]; local_networks = false; ipv6 = "leave";
      echo_interval = 13; echo_failures = 14; debug = true; domains = [ "corp.example", "x" ];
      deadline = 10;
    };
  )");
  EXPECT_EQ(complaints, Complaints());
  EXPECT_EQ(settings.ike.proposals, (Complaints{"aes256-sha1-modp1024", "3des-sha1-modp1024"}));
  EXPECT_EQ(settings.ike.espProposals, Complaints{"aes128-sha1"});
  EXPECT_EQ(settings.ike.remoteIdentity, "10.0.0.1");
  EXPECT_EQ(settings.ike.deadline, 7s);
  EXPECT_EQ(settings.ike.lifetime, 60s);
  EXPECT_EQ(settings.ike.espLifetime, 30s);
  EXPECT_EQ(settings.ike.deadPeerDelay, 0s);
  EXPECT_EQ(settings.ike.localIdentity, "@branch");
  EXPECT_EQ(settings.ike.mode, EngineSettings::IKEMode::aggressive);
  EXPECT_EQ(settings.l2tp.sourcePort, EngineSettings::SourcePort::any);
  EXPECT_EQ(settings.l2tp.deadline, 8s);
  EXPECT_EQ(settings.l2tp.deadPeerDelay, 11s);
  EXPECT_EQ(settings.pptp.mppe, EngineSettings::MPPE::require128);
  EXPECT_EQ(settings.pptp.deadline, 9s);
  EXPECT_EQ(settings.pptp.deadPeerDelay, 12s);
  EXPECT_EQ(settings.ppp.mtu, 1400);
  EXPECT_EQ(settings.ppp.mru, 1400);
  EXPECT_EQ(settings.ppp.authProtocols, (Complaints{"MSCHAP2", "EAP"}));
  EXPECT_EQ(settings.ppp.dns, false);
  EXPECT_EQ(settings.ppp.defaultRoute, false);
  EXPECT_EQ(settings.ppp.routes, (Complaints{"10.0.0.0/8", "0.0.0.0/0"}));
  EXPECT_EQ(settings.ppp.localNetworks, false);
  EXPECT_EQ(settings.ppp.ipv6, EngineSettings::IPv6::leave);
  EXPECT_EQ(settings.ppp.echoInterval, 13);
  EXPECT_EQ(settings.ppp.echoFailures, 14);
  EXPECT_EQ(settings.ppp.debug, true);
  EXPECT_EQ(settings.ppp.domains, (std::vector<std::string>{"corp.example", "x"}));
  EXPECT_EQ(settings.ppp.deadline, 10s);
}

TEST(EngineSettings, EveryWordOfAChoiceIsKnown) {
  using S = EngineSettings;
  EXPECT_EQ(parse("l2tp = { source_port = \"automatic\"; };").settings.l2tp.sourcePort, S::SourcePort::automatic);
  EXPECT_EQ(parse("l2tp = { source_port = \"1701\"; };").settings.l2tp.sourcePort, S::SourcePort::wellKnown);
  EXPECT_EQ(parse("pptp = { mppe = \"service\"; };").settings.pptp.mppe, S::MPPE::service);
  EXPECT_EQ(parse("pptp = { mppe = \"none\"; };").settings.pptp.mppe, S::MPPE::none);
  EXPECT_EQ(parse("ppp = { ipv6 = \"refuse\"; };").settings.ppp.ipv6, S::IPv6::refuse);
}

TEST(EngineSettings, AnEmptyTextIsAllDefaults) {
  for (const char *const text : {"", "# nothing\n", "ike = {};", "ike = { proposals = []; esp_proposals = (); };"}) {
    const auto [settings, complaints] = parse(text);
    EXPECT_EQ(complaints, Complaints()) << text;
    expectDefaults(settings);
  }
}

struct Unusable {
  std::string text;
  std::string complaint;  // without the file
};

class UnusableSetting : public ::testing::TestWithParam<Unusable> {};

TEST_P(UnusableSetting, IsNamedWithItsLineAndTheDefaultHolds) {
  const auto [settings, complaints] = parse(GetParam().text);
  EXPECT_EQ(complaints, Complaints{"engine.conf:" + GetParam().complaint});
  expectDefaults(settings);
}

constexpr const char *kProposals =
    "must be a list of proposals such as [ \"aes256-sha1-modp1024\" ]; the default holds.";
constexpr const char *kBytes = "must be a whole number from 128 to 16384 (bytes); the default holds.";
constexpr const char *kAuthentication =
    "2: ppp.authentication must be a list of \"PAP\", \"CHAP\", \"MSCHAP1\", \"MSCHAP2\", \"EAP\"; the default holds.";
constexpr const char *kDomains =
    "2: ppp.domains must be a list of domains such as [ \"corp.example\" ]; the default holds.";
constexpr const char *kSeconds = "must be a whole number from 1 to 600 (seconds); the default holds.";
constexpr const char *kLocalIdentity =
    "2: ike.local_identity must be an address, a name, \"user@name\", \"@group\", or \"%address\", in quotes; the "
    "default "
    "holds.";

INSTANTIATE_TEST_SUITE_P(
    Kinds, UnusableSetting,
    ::testing::Values(
        // Keys that are none.
        Unusable{"\n\nike = { propsals = []; };", "3: there is no setting ike.propsals."},
        Unusable{"ike = { socket = \"/run/charon.vici\"; };",
                 "1: there is no setting ike.socket any more: no IKE daemon is asked. Take it out."},
        Unusable{"mtu = 1400;", "1: there is no setting mtu."},
        Unusable{"ppp = {};\n\nikev2 = { deadline = 5; };", "3: there is no setting ikev2."},
        Unusable{"ppp = { source_port = \"any\"; };", "1: there is no setting ppp.source_port."},
        Unusable{"ike = { Deadline = 5; };", "1: there is no setting ike.Deadline."},
        // Types.
        Unusable{"ike = 5;", "1: ike must be a group in braces; its defaults hold."},
        Unusable{"ppp = [ 1400 ];", "1: ppp must be a group in braces; its defaults hold."},
        Unusable{"ppp = {\n mtu = \"1400\"; };", std::string("2: ppp.mtu ") + kBytes},
        Unusable{"ppp = {\n mtu = 1400.0; };", std::string("2: ppp.mtu ") + kBytes},
        Unusable{"ppp = {\n mtu = true; };", std::string("2: ppp.mtu ") + kBytes},
        Unusable{"ppp = {\n mtu = { }; };", std::string("2: ppp.mtu ") + kBytes},
        Unusable{"ppp = {\n dns = 0; };", "2: ppp.dns must be true or false; the default holds."},
        Unusable{"ppp = {\n routes = [ \"10.0.0.1/8\" ]; };",
                 "2: ppp.routes must be a list of IPv4 networks such as [ \"10.0.0.0/8\" ]; the default holds."},
        Unusable{"ppp = {\n default_route = \"no\"; };",
                 "2: ppp.default_route must be true or false; the default holds."},
        Unusable{"ppp = {\n authentication = \"PAP\"; };", kAuthentication},
        Unusable{"ppp = {\n authentication = [ 1, 2 ]; };", kAuthentication},
        Unusable{"ike = {\n proposals = \"aes256-sha1-modp1024\"; };", std::string("2: ike.proposals ") + kProposals},
        Unusable{"ike = {\n esp_proposals = ( \"aes128-sha1\", 5 ); };",
                 std::string("2: ike.esp_proposals ") + kProposals},
        Unusable{"ike = {\n remote_identity = 5; };",
                 "2: ike.remote_identity must be an address, a name, or \"%any\", in quotes; the default holds."},
        Unusable{"l2tp = {\n source_port = 1701; };",
                 "2: l2tp.source_port must be one of \"automatic\", \"1701\", \"any\"; the default holds."},
        Unusable{"ppp = {\n domains = \"corp.example\"; };", kDomains},
        Unusable{"ppp = {\n domains = [ \"\" ]; };", kDomains},
        Unusable{"ppp = {\n domains = [ \"corp..example\" ]; };", kDomains},
        Unusable{"ppp = {\n domains = [ \"~corp.example\" ]; };", kDomains},
        Unusable{"ppp = {\n domains = [ \"a b\" ]; };", kDomains},
        Unusable{"ppp = {\n debug = 1; };", "2: ppp.debug must be true or false; the default holds."},
        // Ranges.
        Unusable{"ppp = {\n mtu = 127; };", std::string("2: ppp.mtu ") + kBytes},
        Unusable{"ppp = {\n mru = 16385; };", std::string("2: ppp.mru ") + kBytes},
        Unusable{"ppp = {\n mru = -1400; };", std::string("2: ppp.mru ") + kBytes},
        Unusable{"ppp = {\n mru = 4294968696; };", std::string("2: ppp.mru ") + kBytes},
        Unusable{"ppp = {\n mru = 99999999999999999999999; };", std::string("2: ppp.mru ") + kBytes},
        Unusable{"ike = {\n deadline = 0; };", std::string("2: ike.deadline ") + kSeconds},
        Unusable{"l2tp = {\n deadline = 601; };", std::string("2: l2tp.deadline ") + kSeconds},
        Unusable{"pptp = {\n deadline = 0; };", std::string("2: pptp.deadline ") + kSeconds},
        Unusable{"ppp = {\n deadline = 0; };", std::string("2: ppp.deadline ") + kSeconds},
        Unusable{"ike = {\n lifetime = 9; };",
                 "2: ike.lifetime must be a whole number from 10 to 86400 (seconds); the default holds."},
        Unusable{"ike = {\n dead_peer_delay = -1; };",
                 "2: ike.dead_peer_delay must be a whole number from 0 to 3600 (seconds); the default holds."},
        Unusable{"ppp = {\n authentication = [ \"MSCHAP2\", \"MSCHAP\" ]; };", kAuthentication},
        Unusable{"ike = {\n proposals = [ \"aes256 sha1\" ]; };", std::string("2: ike.proposals ") + kProposals},
        Unusable{"ike = {\n proposals = [ \"\" ]; };", std::string("2: ike.proposals ") + kProposals},
        Unusable{"ike = {\n remote_identity = \"\"; };",
                 "2: ike.remote_identity must be an address, a name, or \"%any\", in quotes; the default holds."},
        Unusable{"ike = {\n remote_identity = \"a\\nb\"; };",
                 "2: ike.remote_identity must be an address, a name, or \"%any\", in quotes; the default holds."},
        Unusable{"ike = {\n local_identity = \"\"; };", kLocalIdentity},
        Unusable{"ike = {\n local_identity = \"" + std::string(201, 'x') + "\"; };", kLocalIdentity},
        Unusable{"ike = {\n mode = \"quick\"; };",
                 "2: ike.mode must be one of \"main\", \"aggressive\"; the default holds."},
        Unusable{"pptp = {\n mppe = \"off\"; };",
                 "2: pptp.mppe must be one of \"service\", \"require-128\", \"none\"; the default holds."},
        // The file as a whole.
        Unusable{"ppp = {\n mtu = ;\n};", "2: syntax error; the defaults hold for everything."},
        Unusable{"ppp = { mtu = 1400; };\nppp = { mru = 1400; };",
                 "2: duplicate setting name; the defaults hold for everything."},
        Unusable{"ppp = { mtu = 1400; };\n  @include \"other\"\n",
                 "2: @include cannot be used here; the defaults hold for everything."},
        Unusable{std::string("ppp = { mtu = 1400; };\0", 23),
                 " it holds a zero byte; the defaults hold for everything."}));

TEST(EngineSettings, OneBadValueLeavesTheOthersAlone) {
  const auto [settings, complaints] = parse("ppp = {\n  mtu = 5;\n  mru = 1400;\n  dsn = true;\n  dns = true;\n};\n");
  EXPECT_EQ(complaints, (Complaints{std::string("engine.conf:2: ppp.mtu ") + kBytes,
                                    "engine.conf:4: there is no setting ppp.dsn."}));
  EXPECT_EQ(settings.ppp.mtu, std::nullopt);
  EXPECT_EQ(settings.ppp.mru, 1400);
  EXPECT_EQ(settings.ppp.dns, true);
}

TEST(EngineSettings, DoesNotFillTheLog) {
  std::string text;
  for (int i = 0; i < 100; ++i) text += "a" + std::to_string(i) + " = 1;\n";
  const auto complaints = parse(text).complaints;
  ASSERT_EQ(complaints.size(), 17u);
  EXPECT_EQ(complaints.back(), "engine.conf: 84 more lines cannot be used.");
}

TEST(EngineSettings, TooLongAListIsNotUsed) {
  std::string text = "ike = { proposals = [ ";
  for (int i = 0; i < 33; ++i) text += std::string(i > 0 ? ", " : "") + "\"aes128\"";
  EXPECT_EQ(parse(text + " ]; };").complaints, Complaints{std::string("engine.conf:1: ike.proposals ") + kProposals});
}

class EngineSettingsFile : public ::testing::Test {
 protected:
  // The one complaint about the file.
  std::string complaint() const {
    const auto [settings, complaints] = EngineSettings::read(path);
    expectDefaults(settings);
    return complaints.size() == 1 ? complaints.front() : std::to_string(complaints.size()) + " complaints";
  }
  std::string refusal(const std::string &why) const {
    return path + ": " + why + "; the defaults hold for everything.";
  }
  support::TemporaryFolder folder;
  const std::string path = folder.path("engine.conf");
};

TEST_F(EngineSettingsFile, IsRead) {
  support::writeFile(path, "ppp = { mtu = 1400; };");
  const auto [settings, complaints] = EngineSettings::read(path);
  EXPECT_EQ(complaints, Complaints());
  EXPECT_EQ(settings.ppp.mtu, 1400);
}

TEST_F(EngineSettingsFile, MayBeMissingWithoutAWord) {
  EXPECT_EQ(EngineSettings::read(path).complaints, Complaints());
  EXPECT_EQ(EngineSettings::read(folder.path("no/such/folder")).complaints, Complaints());
}

TEST_F(EngineSettingsFile, IsRefusedWhenOthersMayWriteIt) {
  support::writeFile(path, "ppp = { mtu = 1400; };");
  for (const mode_t mode : {0664U, 0646U, 0666U}) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    EXPECT_EQ(complaint(), refusal("others may write it; chmod go-w it"));
  }
}

TEST_F(EngineSettingsFile, IsRefusedWhenItIsSomebodyElses) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  support::writeFile(path, "ppp = { mtu = 1400; };");
  ASSERT_EQ(::chown(path.c_str(), 12345, 0), 0);
  EXPECT_EQ(complaint(), refusal("it belongs to user 12345; chown it to user 0"));
}

// An ordinary user can say what the helper, which is root's, would make of it.
TEST_F(EngineSettingsFile, IsReadForSomebodyElse) {
  support::writeFile(path, "ppp = { mtu = 1400; };");
  const uid_t other = ::geteuid() + 1;
  EXPECT_EQ(EngineSettings::read(path, other).complaints,
            Complaints{refusal("it belongs to user " + std::to_string(::geteuid()) + "; chown it to user " +
                               std::to_string(other))});
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  ASSERT_EQ(::chown(path.c_str(), other, 0), 0);
  EXPECT_EQ(EngineSettings::read(path, other).settings.ppp.mtu, 1400);
  EXPECT_EQ(EngineSettings::readFor("", folder.path(), other).settings.ppp.mtu, 1400);
}

TEST_F(EngineSettingsFile, IsRefusedWhenItIsNoRegularFile) {
  std::filesystem::create_directory(path);
  EXPECT_EQ(complaint(), refusal("it is not a regular file"));
  std::filesystem::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(complaint(), refusal("it is not a regular file"));
  std::filesystem::remove(path);
  support::writeFile(folder.path("other"), "ppp = { mtu = 1400; };");
  std::filesystem::create_symlink(folder.path("other"), path);
  EXPECT_EQ(complaint(), refusal("it is a symbolic link; put the file itself there"));
}

TEST_F(EngineSettingsFile, IsRefusedWhenItIsTooLong) {
  support::writeFile(path, "ppp = { mtu = 1400; };" + std::string(65536 - 22, '\n'));
  EXPECT_EQ(EngineSettings::read(path).settings.ppp.mtu, 1400);
  support::writeFile(path, std::string(65537, '\n'));
  EXPECT_EQ(complaint(), refusal("it is longer than 64 KiB"));
}

// ---- The settings of one server

class ServersSettings : public ::testing::Test {
 protected:
  ServersSettings() {
    std::filesystem::create_directory(folder.path("engine.d"));
    support::writeFile(folder.path("engine.conf"), "ppp = { mtu = 1400; mru = 1401; routes = [ \"10.0.0.0/8\" ]; };");
  }
  void write(const std::string &server, const std::string &text) const {
    support::writeFile(folder.path("engine.d/" + server + ".conf"), text);
  }
  EngineSettings::Reading read(const std::string &server) const {
    return EngineSettings::readFor(server, folder.path("."));
  }
  support::TemporaryFolder folder;
};

TEST_F(ServersSettings, StandOverTheGeneralOnes) {
  write("vpn.example.org", "ppp = { mtu = 1300; routes = []; }; l2tp = { deadline = 3; };");
  const auto [settings, complaints] = read("vpn.example.org");
  EXPECT_EQ(complaints, Complaints());
  EXPECT_EQ(settings.ppp.mtu, 1300);
  EXPECT_EQ(settings.ppp.mru, 1401);
  EXPECT_EQ(settings.ppp.routes, std::vector<std::string>());
  EXPECT_EQ(settings.l2tp.deadline, 3s);
}

TEST_F(ServersSettings, AreForTheServerAsItIsWritten) {
  write("vpn.example.org", "ppp = { mtu = 1300; };");
  for (const char *other : {"VPN.example.org", "vpn.example.org.", "vpn.example", "192.0.2.1", ""})
    EXPECT_EQ(read(other).settings.ppp.mtu, 1400) << other;
}

TEST_F(ServersSettings, LieInTheirFolderOnly) {
  support::writeFile(folder.path("other.conf"), "ppp = { mtu = 1300; };");
  write(".hidden", "ppp = { mtu = 1300; };");
  for (const std::string server : {"../other", ".hidden", "/etc/x"})
    EXPECT_EQ(read(server).settings.ppp.mtu, 1400) << server;
  EXPECT_EQ(read(std::string(5000, 'a')).complaints, Complaints());
}

TEST_F(ServersSettings, ThatCannotBeUsedLeaveTheGeneralOnes) {
  write("a", "ppp = { mtu = 1; };\nike = 5;");
  const auto [settings, complaints] = read("a");
  EXPECT_EQ(settings.ppp.mtu, 1400);
  const std::string path = folder.path(".") + "/engine.d/a.conf";
  EXPECT_EQ(
      complaints,
      (Complaints{path + ":1: ppp.mtu must be a whole number from 128 to 16384 (bytes); the general setting holds.",
                  path + ":2: ike must be a group in braces; its general settings hold."}));
  write("a", "ppp");
  EXPECT_EQ(read("a").settings.ppp.mtu, 1400);
  EXPECT_EQ(read("a").complaints, Complaints{path + ":1: syntax error; the general settings hold."});
  ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
  EXPECT_EQ(read("a").complaints,
            Complaints{path + ": others may write it; chmod go-w it; the general settings hold."});
}

TEST_F(ServersSettings, AreComplainedAboutAfterTheGeneralOnes) {
  support::writeFile(folder.path("engine.conf"), "ppp = { mut = 1; };");
  write("a", "ppp = { mru = 0; };");
  const Complaints complaints = read("a").complaints;
  ASSERT_EQ(complaints.size(), 2U);
  EXPECT_NE(complaints[0].find("ppp.mut"), std::string::npos);
  EXPECT_NE(complaints[1].find("ppp.mru"), std::string::npos);
}

// ---- What documents the settings

std::string contents(const std::string &path) { return support::contentsOf(path).value_or(""); }

// The example with the # taken away from its settings.
std::string uncommentedExample() {
  return std::regex_replace(contents(PACKAGING "/engine.conf"), std::regex("\n  #([a-z])"), "\n  $1");
}

TEST(EngineSettingsExample, IsAllDefaultsAsItStands) {
  const std::string text = contents(PACKAGING "/engine.conf");
  ASSERT_NE(text, "");
  const auto [settings, complaints] = parse(text);
  EXPECT_EQ(complaints, Complaints());
  expectDefaults(settings);
}

TEST(EngineSettingsExample, CanBeUsedUncommented) {
  auto [settings, complaints] = parse(uncommentedExample());
  EXPECT_EQ(complaints, Complaints());
  // Their defaults depend on the service.
  const auto deadline = settings.ppp.deadline;
  settings.ppp = EngineSettings::PPP();
  settings.ppp.deadline = deadline;
  expectDefaults(settings);
}

TEST(EngineSettingsExample, ShowsEverySetting) {
  const std::string example = uncommentedExample();
  for (const std::string &name : EngineSettings::names()) {
    const std::size_t group = example.find("\n" + name.substr(0, name.find('.')) + " = {\n");
    ASSERT_NE(group, std::string::npos) << name;
    const std::size_t setting = example.find("\n  " + name.substr(name.find('.') + 1) + " = ", group);
    EXPECT_LT(setting, example.find("\n};", group)) << name;
  }
}

TEST(EngineSettingsManPage, NamesEverySettingAndNoOther) {
  const std::string page = contents(PACKAGING "/vpnctl-engine.conf.5");
  std::set<std::string> named;
  const std::regex setting("(ike|l2tp|pptp|ppp)\\.[a-z0-9_]+");
  for (std::sregex_iterator i(page.begin(), page.end(), setting); i != std::sregex_iterator(); ++i)
    named.insert(i->str());
  named.erase("ppp.log");
  const auto names = EngineSettings::names();
  EXPECT_EQ(named, std::set<std::string>(names.begin(), names.end()));
}

}  // namespace
}  // namespace helper
