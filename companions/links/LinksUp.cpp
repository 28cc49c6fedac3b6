#include "companions/links/LinksUp.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <set>
#include <utility>

#include "helper/isakmp/RekeyTime.h"
#include "helper/network/Routing.h"

namespace companions {

using helper::Journal;
using helper::LinkNote;
using helper::PolicyRule;

namespace {

constexpr std::uint32_t kFirstTable = helper::Routing::kFirstTable;

template <class Items, class Condition>
auto *firstThat(const Items &items, Condition condition) {
  const auto found = std::ranges::find_if(items, condition);
  return found == items.end() ? nullptr : &*found;
}

template <class Entry>
const Entry *firstEntry(const Journal::Sight *sight) {
  if (sight == nullptr) return nullptr;
  for (const helper::JournalEntry &entry : sight->entries)
    if (const auto *found = std::get_if<Entry>(&entry)) return found;
  return nullptr;
}

// One link, put together step by step; what comes later uses what stands before.
class Portrait {
 public:
  Portrait(const Sources &sources, std::uint32_t number)
      : sources_(sources),
        sight_(sources.journals
                   ? firstThat(*sources.journals, [number](const auto &each) { return each.number == number; })
                   : nullptr),
        note_(sight_ != nullptr && sight_->note ? &*sight_->note : nullptr),
        pppd_(firstThat(sources.processes, [number](const auto &each) { return each.link == number; })) {
    link_.number = number;
  }

  LinkState draw() {
    takeNote();
    takeServer();
    takeProcesses();
    takeInterface();
    takeNetworks();
    link_.stage = stage();
    takeEncryption();
    if (!sources_.journals) tellWhatRootSees();
    return std::move(link_);
  }

 private:
  Moment moment(std::chrono::seconds sinceBoot) const { return sources_.now - (sources_.sinceBoot - sinceBoot); }

  void takeNote() {
    if (note_ == nullptr) return;
    link_.server = note_->server;
    link_.protocol = note_->protocol;
    link_.begun = moment(note_->begun);
    if (!note_->up) return;
    link_.upSince = moment(note_->up->since);
    link_.interface = note_->up->interface;
    for (const in_addr server : note_->up->nameServers) link_.nameServers.push_back(helper::textOf(server));
  }

  void takeServer() {
    const auto *way = firstThat(*sources_.rules, [this](const PolicyRule &rule) {
      return rule.kind == PolicyRule::Kind::wayToServer && rule.table == kFirstTable + link_.number;
    });
    if (note_ != nullptr && note_->up)
      link_.address = helper::textOf(note_->up->server);
    else if (way != nullptr)
      link_.address = helper::textOf(way->server);
    // An older helper's, which has no note.
    if (link_.protocol.empty() && firstEntry<helper::ProtectedFlow>(sight_) != nullptr) link_.protocol = "L2TP";
  }

  const RunningProcess *notedHelper() const {
    if (note_ == nullptr) return nullptr;
    return firstThat(sources_.processes, [this](const RunningProcess &each) {
      return each.pid == note_->helper.pid && each.startTime == note_->helper.startTime;
    });
  }

  void takeProcesses() {
    const RunningProcess *helper = notedHelper();
    if (pppd_ != nullptr) {
      link_.pppd = pppd_->pid;
      const auto ticks = static_cast<std::uint64_t>(std::max(::sysconf(_SC_CLK_TCK), 1L));
      if (!link_.begun) link_.begun = moment(std::chrono::seconds(pppd_->startTime / ticks));
      if (helper == nullptr)
        helper = firstThat(sources_.processes, [this](const RunningProcess &each) {
          return each.pid == pppd_->parent && each.name == "vpnctl-helper";
        });
    }
    if (helper == nullptr) return;
    link_.helper = helper->pid;
    const auto *ike = firstThat(sources_.processes, [helper](const RunningProcess &each) {
      return each.parent == helper->pid && each.name == "vpnctl-ike";
    });
    if (ike != nullptr) link_.ike = ike->pid;
  }

  // By its name, or as what leads out of the link's table.
  const Interface *findInterface() const {
    std::string name = link_.interface;
    if (name.empty() && pppd_ != nullptr) name = pppd_->interface;
    if (!name.empty())
      return firstThat(
          *sources_.interfaces, [&name](const Interface &each) { return each.name == name; });
    const auto *led = firstThat(*sources_.ledNetworks,
                                [this](const LedNetwork &each) { return each.table == kFirstTable + link_.number; });
    if (led == nullptr) return nullptr;
    return firstThat(*sources_.interfaces, [led](const Interface &each) { return each.index == led->interface; });
  }

  void takeInterface() {
    const Interface *interface = findInterface();
    link_.interface = interface == nullptr ? std::string() : interface->name;
    if (interface == nullptr) return;
    link_.mtu = interface->mtu;
    link_.traffic = interface->traffic;
    const auto *address = firstThat(
        *sources_.addresses, [interface](const InterfaceAddress &each) { return each.interface == interface->index; });
    if (address == nullptr) return;
    link_.localAddress = helper::textOf(address->local);
    link_.peerAddress = helper::textOf(address->peer);
  }

  void takeNetworks() {
    for (const LedNetwork &led : *sources_.ledNetworks)
      if (led.table == kFirstTable + link_.number) link_.networks.push_back(led.network);
    if (!link_.networks.empty()) return;
    // While PPP negotiates anew they are refused; they are what goes through it all the same.
    if (const auto *table = firstEntry<helper::FilledTable>(sight_)) link_.networks = table->networks;
  }

  LinkState::Stage stage() const {
    using Stage = LinkState::Stage;
    const bool helperRuns = link_.helper != 0 || pppd_ != nullptr;
    // One that has only just begun has nothing noted, and one may see no processes of others.
    const bool hasDone = sight_ == nullptr || note_ != nullptr || !sight_->entries.empty();
    if (!helperRuns && !sources_.journals) return Stage::unknown;
    if (!helperRuns && hasDone) return Stage::leftBehind;
    if (note_ != nullptr && note_->up) return link_.interface.empty() ? Stage::goingDown : Stage::up;
    if (note_ != nullptr || link_.localAddress.empty()) return Stage::comingUp;
    return Stage::up;
  }

  void takeEncryption() {
    if (link_.protocol == "L2TP") return takeIPSec();
    if (note_ == nullptr || !note_->up) return;
    link_.encryption = note_->up->encryptedByPPP ? LinkState::Encryption::mppe : LinkState::Encryption::none;
  }

  void takeIPSec() {
    const auto *flow = firstEntry<helper::ProtectedFlow>(sight_);
    if (flow == nullptr) return;
    if (!sources_.associations) {
      const vpnctl::Error &error = sources_.associations.error();
      if (error.code == EPERM)
        link_.needsRoot.emplace_back("IPSec");
      else
        link_.fault = error.message;
      return;
    }
    const ESPAssociation *newest = nullptr;
    for (const ESPAssociation &each : *sources_.associations)
      if (each.reqid == flow->reqid && helper::textOf(each.destination) == link_.address &&
          (newest == nullptr || each.made >= newest->made))
        newest = &each;
    if (newest == nullptr) return;
    link_.encryption = LinkState::Encryption::ipsec;
    link_.ipsec = stateOf(*newest);
  }

  static IPSecState stateOf(const ESPAssociation &association) {
    using helper::isakmp::rekeyJitter;
    using helper::isakmp::replacementTime;
    const auto lifetime = association.lifetime;
    const auto after = [&association](std::chrono::milliseconds time) {
      return Moment(association.made) + std::chrono::duration_cast<Moment::duration>(time);
    };
    return {.algorithms = association.algorithms,
            .insideUDP = association.insideUDP,
            .made = after({}),
            .renewedFrom = after(replacementTime(lifetime, rekeyJitter(lifetime))),
            .renewedUntil = after(replacementTime(lifetime, {})),
            .ends = after(lifetime)};
  }

  void tellWhatRootSees() { link_.needsRoot = {"server's name", "protocol", "time since up", "name servers", "IPSec"}; }

  const Sources &sources_;
  const Journal::Sight *sight_;
  const LinkNote *note_;
  const RunningProcess *pppd_;
  LinkState link_;
};

std::set<std::uint32_t> numbersIn(const Sources &sources) {
  std::set<std::uint32_t> numbers;
  if (sources.journals)
    for (const Journal::Sight &sight : *sources.journals) numbers.insert(sight.number);
  // The rules for the machine's own networks are shared by all links.
  for (const PolicyRule &rule : *sources.rules)
    if (rule.kind != PolicyRule::Kind::localNetworks && rule.table > kFirstTable)
      numbers.insert(rule.table - kFirstTable);
  for (const RunningProcess &process : sources.processes)
    if (process.link != 0) numbers.insert(process.link);
  return numbers;
}

template <class... Items>
const vpnctl::Error *firstError(const vpnctl::Result<Items> &...results) {
  const vpnctl::Error *first = nullptr;
  ((first = first == nullptr && !results ? &results.error() : first), ...);
  return first;
}

}  // namespace

bool LinkState::carriesEverything() const {
  return std::ranges::any_of(
      networks, [](const helper::IPv4Network &each) { return each.prefixLength == 0; });
}

vpnctl::Result<std::vector<LinkState>> linksUp(const Sources &sources) {
  if (!sources.journals && sources.journals.error().code != EACCES) return sources.journals.error();
  if (const auto *error = firstError(sources.rules, sources.ledNetworks, sources.interfaces, sources.addresses))
    return *error;
  std::vector<LinkState> links;
  for (const std::uint32_t number : numbersIn(sources)) links.push_back(Portrait(sources, number).draw());
  return links;
}

}  // namespace companions
