#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "companions/doctor/ConfigurationCheck.h"
#include "companions/doctor/KernelCheck.h"
#include "companions/doctor/LeftoversCheck.h"
#include "companions/doctor/OthersCheck.h"
#include "companions/doctor/PPPDCheck.h"
#include "companions/doctor/PartsCheck.h"
#include "companions/doctor/PortsCheck.h"
#include "companions/doctor/SettingsCheck.h"
#include "helper/journal/Journal.h"
#include "tests/companions/doctor/LaidOutMachine.h"

using namespace companions;
using Grade = Finding::Grade;

namespace {

Findings lookAtAll(const LaidOutMachine &machine) {
  const Situation situation = machine.situation();
  Findings all;
  for (auto *look : {ConfigurationCheck::look, SettingsCheck::look, KernelCheck::look, PPPDCheck::look,
                     PartsCheck::look, PortsCheck::look, LeftoversCheck::look})
    for (Finding &finding : look(situation)) all.push_back(std::move(finding));
  for (Finding &finding : OthersCheck::look(situation, machine.network)) all.push_back(std::move(finding));
  return all;
}

// What is not fine.
Findings trouble(const LaidOutMachine &machine) {
  Findings found = lookAtAll(machine);
  std::erase_if(found, [](const Finding &finding) { return finding.grade == Grade::fine; });
  return found;
}

struct Obstacle {
  std::string name;
  std::function<void(LaidOutMachine &)> plant;
  Grade grade;
  std::string_view finding;
  std::string says;  // part of what is said of it
};
using M = LaidOutMachine;

std::ostream &operator<<(std::ostream &out, const Obstacle &obstacle) { return out << obstacle.name; }

const Obstacle kObstacles[] = {
    // The configuration.
    {"NoFile", [](M &m) { m.remove("office.conf"); }, Grade::prevents, "configuration.file", "There is no file"},
    {"Folder", [](M &m) { m.path = m.at("etc"); }, Grade::prevents, "configuration.file", "Is a directory"},
    {"Syntax", [](M &m) { m.configure("ip =", "ip = ="); }, Grade::prevents, "configuration.file", "office.conf:2: "},
    {"NoPassword", [](M &m) { m.configure("password = \"hidden-one\";", ""); }, Grade::prevents,
     "configuration.missing", "has no password"},
    {"MistypedPassword", [](M &m) { m.configure("password", "pasword"); }, Grade::prevents, "configuration.missing",
     "office.conf:4: did you mean password by pasword?"},
    {"Number", [](M &m) { m.configure("\"hidden-one\"", "4711"); }, Grade::prevents, "configuration.text",
     "office.conf:4: password is no text"},
    {"Latin1", [](M &m) { m.configure("\"ann\"", "\"\xe4nn\""); }, Grade::prevents, "configuration.text",
     "office.conf:3: username is no text in UTF-8"},
    {"CapitalProtocol", [](M &m) { m.configure("l2tp", "L2TP"); }, Grade::prevents, "configuration.protocol",
     "office.conf:1: "},
    {"EmptyProtocol", [](M &m) { m.configure("l2tp", ""); }, Grade::prevents, "configuration.protocol", ""},
    {"EmptyPassword", [](M &m) { m.configure("hidden-one", ""); }, Grade::hinders, "configuration.empty",
     "office.conf:4: password is empty"},
    {"EmptyServer", [](M &m) { m.configure("vpn.example.org", ""); }, Grade::prevents, "configuration.server",
     "names no server"},
    {"IPv6", [](M &m) { m.configure("vpn.example.org", "2001:db8::1"); }, Grade::prevents, "configuration.server",
     "IPv6"},
    {"NoAddress", [](M &m) { m.configure("vpn.example.org", "1.2.3.4.5"); }, Grade::prevents, "configuration.server",
     "neither"},
    {"Readable", [](M &m) { m.write("office.conf", M::kConfiguration, 0640); }, Grade::hinders,
     "configuration.permissions", "may read"},
    {"Writable", [](M &m) { m.write("office.conf", M::kConfiguration, 0620); }, Grade::hinders,
     "configuration.permissions", "may write"},
    {"UnknownSetting", [](M &m) { m.configure("ip =", "port = 1;\nip ="); }, Grade::hinders, "configuration.unknown",
     "office.conf:2: vpnctl knows no setting port"},
    // The engine's settings.
    {"BadSetting", [](M &m) { m.write("etc/engine.conf", "ppp = { mut = 1; };"); }, Grade::hinders, "settings.file",
     "engine.conf:1: there is no setting ppp.mut"},
    {"BadSettingOfTheServer",
     [](M &m) {
       m.write("etc/engine.d/vpn.example.org.conf", "x = 1;");
       m.write("etc/engine.d/another.conf", "y = 1;");
     },
     Grade::hinders, "settings.file", "vpn.example.org.conf:1: "},
    {"WritableSettings", [](M &m) { m.write("etc/engine.conf", "", 0666); }, Grade::hinders, "settings.file",
     "others may write it"},
    {"OneBadProposal",
     [](M &m) { m.write("etc/engine.conf", "ike = { proposals = [ \"aes256-sha1-modp1024\", \"rot13\" ]; };"); },
     Grade::hinders, "settings.proposals", "rot13"},
    {"NoGoodProposal", [](M &m) { m.write("etc/engine.conf", "ike = { esp_proposals = [ \"rot13\" ]; };"); },
     Grade::prevents, "settings.proposals", "ike.esp_proposals"},
    {"ProposalsThatDoNotGoTogether",
     [](M &m) {
       m.write("etc/engine.conf", "ike = { esp_proposals = [ \"aes256-sha1\", \"aes128-sha1-modp1024\" ]; };");
     },
     Grade::prevents, "settings.proposals", "ike.esp_proposals"},
    // The kernel.
    {"NoL2TP", [](M &m) { m.forgetModule("l2tp-ppp"); }, Grade::prevents, "kernel.l2tp", "(module l2tp_ppp)"},
    {"NoESP", [](M &m) { m.forgetModule("esp4"); }, Grade::prevents, "kernel.ipsec", "(module esp4)"},
    {"ADependencyIsGone", [](M &m) { m.remove("modules/6.1.0-1/kernel/l2tp_core.ko.xz"); }, Grade::prevents,
     "kernel.l2tp", "l2tp_core.ko.xz is gone"},
    {"Blacklisted", [](M &m) { m.write("modprobe.d/no.conf", "blacklist l2tp_ppp\n"); }, Grade::prevents, "kernel.l2tp",
     "no.conf forbids"},
    {"Locked",
     [](M &m) {
       m.write("proc/sys/kernel/modules_disabled", "1\n");
       support::appendToFile(m.at("proc/modules"), "l2tp_ppp 1\nesp4 1\n");
     },
     Grade::prevents, "kernel.ipsec", "xfrm_user, and loads nothing more"},
    {"Upgraded",
     [](M &m) {
       std::filesystem::rename(m.at("modules/6.1.0-1"), m.at("modules/6.1.0-2"));
       support::appendToFile(m.at("proc/crypto"),
                             "name : authenc(x)\nname : echainiv(x)\nname : hmac(x)\nname : aes\n");
     },
     Grade::prevents, "kernel.folder", "not on the disk"},
    {"NoDevice", [](M &m) { m.remove("dev/ppp"); }, Grade::prevents, "kernel.device", "/ppp"},
    {"NoAlgorithm",
     [](M &m) { m.write("modules/6.1.0-1/modules.alias", "alias crypto-authenc authenc\nalias crypto-aes a\n"); },
     Grade::prevents, "kernel.algorithms", "lacks echainiv."},
    {"NoListOfParts", [](M &m) { m.remove("modules/6.1.0-1/modules.builtin.modinfo"); }, Grade::unseen,
     "kernel.algorithms", "hmac"},
    // pppd.
    {"NoPPPD", [](M &m) { m.remove("pppd"); }, Grade::prevents, "pppd.program", "There is no pppd"},
    {"PPPDThatNobodyMayRun", [](M &m) { m.write("pppd", "", 0644); }, Grade::prevents, "pppd.program",
     "may not be run"},
    {"PPPDThatCannotBeRun", [](M &m) { m.write("pppd", "#!/nowhere/sh\n", 0755); }, Grade::prevents, "pppd.program",
     "cannot be run"},
    {"AnotherPPPD", [](M &m) { m.program("pppd", "echo pppd version 2.5.2 >&2"); }, Grade::prevents, "pppd.version",
     "is not for pppd 2.5.2"},
    {"APPPDThatIsLonger", [](M &m) { m.program("pppd", "echo pppd version 2.4.90"); }, Grade::prevents, "pppd.version",
     "2.4.90"},
    {"APPPDThatIsShorter", [](M &m) { m.program("pppd", "echo pppd version 4.9"); }, Grade::prevents, "pppd.version",
     "pppd 4.9"},
    {"SilentPPPD", [](M &m) { m.program("pppd", "exit 0"); }, Grade::hinders, "pppd.version", "does not say"},
    {"NoPlugin", [](M &m) { m.remove("plugin.so"); }, Grade::prevents, "pppd.plugin", "plugin.so"},
    {"EmptyPlugin", [](M &m) { m.write("plugin.so", ""); }, Grade::unseen, "pppd.version", "cannot be read"},
    // vpnctl's own.
    {"NoTool", [](M &m) { m.remove("vpnctl"); }, Grade::prevents, "parts.tool", "There is no"},
    {"NoHelper", [](M &m) { m.remove("vpnctl-helper"); }, Grade::prevents, "parts.helper", "There is no"},
    {"NoIKE", [](M &m) { m.remove("vpnctl-ike"); }, Grade::prevents, "parts.ike", "There is no"},
    {"HelperThatCannotBeRun", [](M &m) { m.write("vpnctl-helper", "", 0644); }, Grade::prevents, "parts.helper",
     "cannot be run"},
    // Ports.
    {"L2TPsPort", [](M &m) { m.runProcess("xl2tpd", "06A5"); }, Grade::hinders, "ports.l2tp", "xl2tpd (process 77)"},
    {"L2TPsPortAndNoOther",
     [](M &m) {
       m.runProcess("xl2tpd", "06A5");
       m.write("etc/engine.conf", "l2tp = { source_port = \"1701\"; };");
     },
     Grade::prevents, "ports.l2tp", "xl2tpd (process 77)"},
    {"IKEsPort", [](M &m) { m.runProcess("racer", "01F4"); }, Grade::hinders, "ports.ike", "racer (process 77)"},
    {"IKEsPortOfTheKernel",
     [](M &m) {
       m.runProcess("racer", "01F4");
       m.remove("proc/77");
     },
     Grade::hinders, "ports.ike", "the kernel, or a program elsewhere"},
    // Others.
    {"Charon", [](M &m) { m.runProcess("charon"); }, Grade::hinders, "others.ike", "charon (process 77)"},
    {"Policies", [](M &m) { m.network.policies = 2; }, Grade::hinders, "others.policies", "2 outgoing ones"},
    {"HiddenPolicies", [](M &m) { m.network.policies.reset(); }, Grade::unseen, "others.policies", "cannot be seen"},
    {"RuleBeforeOurs",
     [](M &m) {
       m.network.rules.push_back({0, 42, 3, true, false});
     },
     Grade::hinders, "others.rules", "table 42"},
    {"WireGuard",
     [](M &m) {
       m.network.rules.push_back({32765, 51820, 3, true, true});
     },
     Grade::hinders, "others.tunnel", "table 51820"},
    {"HalfTheWorld",
     [](M &m) {
       m.network.halves.push_back({"0.0.0.0/1", "tun0"});
     },
     Grade::hinders, "others.tunnel", "0.0.0.0/1 goes to tun0"},
    // Leftovers.
    {"DeadJournal", [](M &m) { ASSERT_TRUE(helper::Journal::create(m.machine.journals)); }, Grade::hinders,
     "leftovers.journal", "link.1"},
    {"DeadJournalThatMakesNoSense",
     [](M &m) {
       ASSERT_TRUE(helper::Journal::create(m.machine.journals));
       m.write("journals/link.1/journal.plist", "no list");
     },
     Grade::hinders, "leftovers.journal", "cannot be read"},
    {"LastingJournal", [](M &m) { ASSERT_TRUE(helper::Journal::create(m.machine.lastingJournals)); }, Grade::hinders,
     "leftovers.file", "replaced/link.1"},
    {"BrokenJournal", [](M &m) { m.makeFolder("journals/broken.3"); }, Grade::hinders, "leftovers.broken",
     "journals/broken.3"},
    {"NoFolderOfJournals", [](M &m) { m.write("journals", ""); }, Grade::unseen, "leftovers.journal", ""},
    {"LostInterface",
     [](M &m) {
       m.makeFolder("sys/class/net/ppp3");
       m.write("run/ppp3.pid", "99\n");
     },
     Grade::hinders, "leftovers.interface", "ppp3"},
};

class Obstacles : public testing::TestWithParam<Obstacle> {
 protected:
  Obstacles() { machine_.path = machine_.configuration; }
  LaidOutMachine machine_;
};

TEST_P(Obstacles, IsWhatIsFound) {
  const Obstacle &obstacle = GetParam();
  ASSERT_EQ(trouble(machine_).size(), 0U) << trouble(machine_).front().what;
  obstacle.plant(machine_);
  const Findings found = trouble(machine_);
  ASSERT_FALSE(found.empty());
  Grade worst = Grade::fine;
  bool isSaid = false;
  for (const Finding &finding : found) {
    EXPECT_EQ(finding.name, obstacle.finding) << finding.what;
    worst = std::min(worst, finding.grade);
    isSaid = isSaid || (finding.what + finding.remedy).find(obstacle.says) != std::string::npos;
    EXPECT_EQ(finding.what.back(), '.') << finding.what;
    EXPECT_FALSE(finding.why.empty()) << finding.what;
    EXPECT_TRUE(finding.grade == Grade::unseen || !finding.remedy.empty()) << finding.what;
    for (const std::string &text : {finding.what, finding.why, finding.remedy})
      EXPECT_EQ(text.find("hidden"), std::string::npos) << text;
  }
  EXPECT_EQ(worst, obstacle.grade) << found.front().what;
  EXPECT_TRUE(isSaid) << found.front().what << found.front().remedy;
}

INSTANTIATE_TEST_SUITE_P(OfAnyKind, Obstacles, testing::ValuesIn(kObstacles),
                         [](const testing::TestParamInfo<Obstacle> &planted) { return planted.param.name; });

TEST(NoObstacle, IsFoundWhereThereIsNone) {
  LaidOutMachine machine;
  const auto expectNone = [&](const std::string &what) {
    for (const Finding &finding : trouble(machine)) ADD_FAILURE() << what << ": " << finding.what;
  };
  expectNone("without a configuration");
  machine.path = machine.configuration;
  machine.configure("l2tp", "pptp");
  expectNone("PPTP");
  // Nothing of this is PPTP's.
  machine.configure("l2tp\"", "pptp\"");
  machine.remove("vpnctl-ike");
  machine.forgetModule("l2tp-ppp");
  machine.runProcess("xl2tpd", "06A5");
  expectNone("PPTP on a machine without L2TP");
}

TEST(NoObstacle, AreUnusedSecretsAndWhatLives) {
  LaidOutMachine machine;
  machine.path = machine.configuration;
  std::string text = LaidOutMachine::kConfiguration;
  text.replace(text.find("l2tp"), 4, "pptp");
  text.replace(text.find("hidden-two"), 10, "");
  machine.write("office.conf", text, 0600);
  const auto living = helper::Journal::create(machine.machine.journals);
  ASSERT_TRUE(living);
  machine.makeFolder("sys/class/net/ppp3");
  machine.makeFolder("sys/class/net/eth0");
  machine.runProcess("pppd");
  machine.write("run/ppp3.pid", "77\n");
  for (const Finding &finding : trouble(machine)) ADD_FAILURE() << finding.what;
  EXPECT_TRUE(std::filesystem::exists(living->folder()));
}

TEST(NoObstacle, IsAModuleInTheKernelItself) {
  LaidOutMachine machine;
  machine.forgetModule("l2tp-ppp");
  machine.forgetModule("pptp");
  machine.forgetModule("xfrm_user");
  EXPECT_EQ(trouble(machine).size(), 3U);
  machine.write("modules/6.1.0-1/modules.builtin", "kernel/net/l2tp/l2tp-ppp.ko\n");
  support::appendToFile(machine.at("proc/net/protocols"), "PPTP 1 2\n");
  support::appendToFile(machine.at("proc/net/netlink"), "0000000022ee7b90 6   0\n");
  for (const Finding &finding : trouble(machine)) ADD_FAILURE() << finding.what;
}

TEST(Kernel, WithoutModulesHasWhatItShows) {
  LaidOutMachine machine;
  machine.remove("modules");
  machine.remove("proc/modules");
  std::set<std::pair<Grade, std::string_view>> found;
  for (const Finding &finding : trouble(machine)) found.emplace(finding.grade, finding.name);
  EXPECT_EQ(found, (std::set<std::pair<Grade, std::string_view>>{{Grade::prevents, "kernel.pptp"},
                                                                 {Grade::prevents, "kernel.l2tp"},
                                                                 {Grade::prevents, "kernel.ipsec"},
                                                                 {Grade::unseen, "kernel.ipsec"},
                                                                 {Grade::unseen, "kernel.mppe"},
                                                                 {Grade::unseen, "kernel.algorithms"}}));
}

TEST(Kernel, NeedsNoMPPEWhereNothingIsEncrypted) {
  LaidOutMachine machine;
  machine.forgetModule("ppp_mppe");
  EXPECT_EQ(trouble(machine).size(), 1U);
  machine.write("etc/engine.conf", "pptp = { mppe = \"none\"; };");
  EXPECT_EQ(trouble(machine).size(), 0U);
}

TEST(Kernel, OfAContainerIsItsHosts) {
  LaidOutMachine machine;
  machine.remove("modules");
  const Findings found = KernelCheck::look(machine.situation());
  const auto l2tp = std::ranges::find(found, "kernel.l2tp", &Finding::name);
  ASSERT_NE(l2tp, found.end());
  EXPECT_NE(l2tp->remedy.find("on the host"), std::string::npos);
}

TEST(Network, CanBeRead) {
  const auto state = NetworkState::read();
  ASSERT_TRUE(state) << state.error().message;
  const auto hasTable = [&](std::uint32_t table) {
    return std::ranges::any_of(state->rules, [&](const auto &rule) { return rule.table == table; });
  };
  EXPECT_TRUE(hasTable(RT_TABLE_LOCAL));
  EXPECT_TRUE(hasTable(RT_TABLE_MAIN));
}

TEST(Network, ThatCannotBeReadIsUnseen) {
  LaidOutMachine machine;
  const Findings found = OthersCheck::look(machine.situation(), vpnctl::errnoError(EPERM, "ask"));
  EXPECT_TRUE(std::ranges::any_of(
      found, [](const Finding &finding) { return finding.grade == Grade::unseen && finding.name == "others.rules"; }));
}

}  // namespace
