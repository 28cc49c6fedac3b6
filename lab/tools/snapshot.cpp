// The state of hosts in lines that compare, for the check that nothing was left behind.
//
//   snapshot FOLDER before HOST...                 remembers how these hosts are now
//   snapshot FOLDER compare MILLISECONDS HOST...   says what differs; waits that long for differences to go away
//
// FOLDER/HOST/pid holds the number of the host's first process, FOLDER/HOST/layer every file written on that host. The
// snapshot is remembered in FOLDER/HOST/before. Numbers of processes and interfaces are left out: they say nothing
// about what is there. One process for all hosts and all kinds, because under emulation every further process would
// cost more than the whole snapshot. The status of "compare" is 0 if nothing differs, 1 if something does, 2 for a
// failure.
#include <fcntl.h>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>

#include "Netlink.h"
#include "Vici.h"

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// What a run leaves on purpose.
static const std::regex leftOnPurpose(
    "file (etc|var/lib)/vpnctl d"                      // the folders of the two stores
    "|file etc/vpnctl/preferences\\.plist .*"          // the network preferences
    "|file var/lib/vpnctl/System(\\.keychain|Key) .*"  // the keychain and its key
    "|file var/lib/vpnctl/users-lock .*"     // of users who are not root: empty, each link's place in it a lock
    "|file root/config\\.qolm .*"            // the configuration, which scenarios rewrite
    "|run vpnctl d"                          // empty, or its contents show
    "|run vpnctl/l2tp-not-told\\.[0-9.]+ f"  // until the server has forgotten, too
    "|run pppd2\\.tdb f");                   // pppd's table of units

// Of a process's files: as far as they could be read before it was gone.
static std::string contentsOf(const fs::path &path) {
  std::ostringstream contents;
  contents << std::ifstream(path, std::ios::binary).rdbuf();
  return contents.str();
}

static void processes(Lines &lines) {
  for (const auto &entry : fs::directory_iterator("/proc")) {
    if (entry.path().filename().string().find_first_not_of("0123456789") != std::string::npos) continue;
    std::string words = contentsOf(entry.path() / "cmdline");
    if (words.empty()) {  // a process that has ended and waits for its parent is a leftover, too
      words = contentsOf(entry.path() / "comm");
      if (words.empty()) continue;
      words += "(ended)";
    }
    std::replace(words.begin(), words.end(), '\0', ' ');
    std::replace(words.begin(), words.end(), '\n', ' ');
    lines.push_back("process " + words);
  }
}

static std::string linkName(unsigned index) {
  char name[IF_NAMESIZE];
  return if_indextoname(index, name) ? name : std::to_string(index);
}

// The attributes behind the fixed part of a message, by number.
static std::map<int, std::string> attributesOf(const nlmsghdr &head, size_t fixed) {
  std::map<int, std::string> attributes;
  const auto *attribute =
      reinterpret_cast<const rtattr *>(reinterpret_cast<const char *>(&head) + NLMSG_HDRLEN + NLMSG_ALIGN(fixed));
  for (auto left = static_cast<int>(head.nlmsg_len - NLMSG_LENGTH(NLMSG_ALIGN(fixed))); RTA_OK(attribute, left);
       attribute = RTA_NEXT(attribute, left))
    attributes[attribute->rta_type] =
        std::string(static_cast<const char *>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute));
  return attributes;
}

static uint32_t number(const std::string &bytes) {
  uint32_t value = 0;
  memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
  return value;
}

static void links(lab::Netlink &netlink, Lines &lines) {
  ifinfomsg ask{};
  netlink.dump(RTM_GETLINK, &ask, sizeof ask, [&](const nlmsghdr &head) {
    const auto *link = static_cast<const ifinfomsg *>(NLMSG_DATA(&head));
    auto attributes = attributesOf(head, sizeof *link);
    lines.push_back("link " + linkName(static_cast<unsigned>(link->ifi_index)) +
                    (link->ifi_flags & IFF_UP ? " up" : " down") + " mtu " +
                    std::to_string(number(attributes[IFLA_MTU])));
  });
}

static void addresses(lab::Netlink &netlink, Lines &lines) {
  ifaddrmsg ask{};
  netlink.dump(RTM_GETADDR, &ask, sizeof ask, [&](const nlmsghdr &head) {
    const auto *address = static_cast<const ifaddrmsg *>(NLMSG_DATA(&head));
    auto attributes = attributesOf(head, sizeof *address);
    std::string line = "address " + linkName(address->ifa_index);
    for (int kind : {IFA_LOCAL, IFA_ADDRESS, IFA_BROADCAST})
      if (attributes.count(kind)) line += " " + lab::addressText(address->ifa_family, attributes[kind].data());
    lines.push_back(line + "/" + std::to_string(address->ifa_prefixlen));
  });
}

static void routes(lab::Netlink &netlink, int family, Lines &lines) {
  rtmsg ask{};
  ask.rtm_family = static_cast<unsigned char>(family);
  netlink.dump(RTM_GETROUTE, &ask, sizeof ask, [&](const nlmsghdr &head) {
    const auto *route = static_cast<const rtmsg *>(NLMSG_DATA(&head));
    if (route->rtm_flags & RTM_F_CLONED)
      return;  // the kernel's memory of ways it has gone, not a route that somebody made
    auto attributes = attributesOf(head, sizeof *route);
    std::ostringstream line;
    line << "route table " << number(attributes[RTA_TABLE]) << " type " << int(route->rtm_type) << " to "
         << (attributes.count(RTA_DST) ? lab::addressText(route->rtm_family, attributes[RTA_DST].data()) : "default")
         << "/" << int(route->rtm_dst_len) << " protocol " << int(route->rtm_protocol) << " scope "
         << int(route->rtm_scope);
    if (attributes.count(RTA_GATEWAY))
      line << " via " << lab::addressText(route->rtm_family, attributes[RTA_GATEWAY].data());
    if (attributes.count(RTA_OIF)) line << " link " << linkName(number(attributes[RTA_OIF]));
    if (attributes.count(RTA_PREFSRC))
      line << " from " << lab::addressText(route->rtm_family, attributes[RTA_PREFSRC].data());
    for (int kind : {RTA_PRIORITY, RTA_METRICS, RTA_MULTIPATH})
      if (attributes.count(kind))
        line << " " << kind << "=" << lab::hexText(attributes[kind].data(), attributes[kind].size());
    lines.push_back(line.str());
  });
}

static void rules(lab::Netlink &netlink, int family, Lines &lines) {
  fib_rule_hdr ask{};
  ask.family = static_cast<uint8_t>(family);
  netlink.dump(RTM_GETRULE, &ask, sizeof ask, [&](const nlmsghdr &head) {
    const auto *rule = static_cast<const fib_rule_hdr *>(NLMSG_DATA(&head));
    std::ostringstream line;
    auto attributes = attributesOf(head, sizeof *rule);
    line << "rule " << number(attributes[FRA_PRIORITY]) << " family " << int(rule->family) << " table "
         << number(attributes[FRA_TABLE]) << " action " << int(rule->action) << " flags " << rule->flags;
    for (const auto &[kind, bytes] : attributes)
      if (kind != FRA_PRIORITY && kind != FRA_TABLE)
        line << " " << kind << "=" << lab::hexText(bytes.data(), bytes.size());
    lines.push_back(line.str());
  });
}

static std::string selectorText(const xfrm_selector &selector) {
  std::ostringstream text;
  text << lab::addressText(selector.family ? selector.family : AF_INET, &selector.saddr) << "/"
       << int(selector.prefixlen_s) << ":" << ntohs(selector.sport) << " -> "
       << lab::addressText(selector.family ? selector.family : AF_INET, &selector.daddr) << "/"
       << int(selector.prefixlen_d) << ":" << ntohs(selector.dport) << " protocol " << int(selector.proto);
  return text.str();
}

static void transforms(Lines &lines) {
  lab::Netlink netlink(NETLINK_XFRM);
  xfrm_usersa_id state{};
  netlink.dump(XFRM_MSG_GETSA, &state, sizeof state, [&](const nlmsghdr &head) {
    const auto *info = static_cast<const xfrm_usersa_info *>(NLMSG_DATA(&head));
    std::ostringstream line;
    line << "xfrm state " << lab::addressText(info->family, &info->saddr) << " -> "
         << lab::addressText(info->family, &info->id.daddr) << " spi " << ntohl(info->id.spi) << " protocol "
         << int(info->id.proto) << " mode " << int(info->mode);
    lines.push_back(line.str());
  });
  xfrm_userpolicy_id policy{};
  netlink.dump(XFRM_MSG_GETPOLICY, &policy, sizeof policy, [&](const nlmsghdr &head) {
    const auto *info = static_cast<const xfrm_userpolicy_info *>(NLMSG_DATA(&head));
    std::ostringstream line;
    line << "xfrm policy " << selectorText(info->sel) << " direction " << int(info->dir) << " action "
         << int(info->action);
    lines.push_back(line.str());
  });
}

// What the kernel knows of L2TP. The names hold numbers that no two calls share; a dead one's stay visible.
static void l2tp(Lines &lines) {
  std::istringstream table(contentsOf("/proc/1/net/pppol2tp"));  // "self" is nobody in the host's /proc
  for (std::string line; std::getline(table, line);)
    if (std::smatch match; std::regex_search(line, match, std::regex("(TUNNEL|SESSION) '([^']*)'")))
      lines.push_back("l2tp " + match[2].str());
}

// What the host's IKE daemon has been told, if one runs; one that dies while it is asked has nothing more to tell.
static void daemon(Lines &lines) try {
  lab::Vici vici("/run/charon.vici");
  if (!vici.connected()) return;
  auto note = [&](const std::string &kind) {
    return [&lines, kind](const std::string &message) {
      lab::Vici::names(message, [&](const std::string &name) {
        // Half an association, which a client began and gave up: the daemon forgets it by itself, later than we wait.
        if (name != "(unnamed)") lines.push_back("ike " + kind + " " + name);
      });
    };
  };
  vici.ask("list-conns", "list-conn", note("connection"));
  vici.ask("list-sas", "list-sa", note("association"));
  vici.ask("get-shared", "", note("secret"));
} catch (const std::runtime_error &error) {
  lines.push_back(std::string("ike ") + error.what());
}

static void mounts(Lines &lines) {
  // Of the host's first process: "self" is nobody in the host's /proc, since this program is not on the host.
  std::istringstream table(contentsOf("/proc/1/mountinfo"));
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string id, parent, device, root, point, options;
    words >> id >> parent >> device >> root >> point >> options;
    lines.push_back("mount " + root + " on " + point + " " + options);
  }
}

static char kindOf(const fs::directory_entry &entry) {
  switch (entry.symlink_status().type()) {
    case fs::file_type::regular:
      return 'f';
    case fs::file_type::directory:
      return 'd';
    case fs::file_type::symlink:
      return 'l';
    case fs::file_type::socket:
      return 's';
    case fs::file_type::fifo:
      return 'p';
    default:
      return 'x';  // among them the character devices by which a layer says "deleted"
  }
}

// The root folder from before any host was entered.
static const int sharedRoot = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);

static void files(const fs::path &layer, Lines &lines) {
  for (const auto &entry : fs::recursive_directory_iterator("/run"))
    lines.push_back("run " + entry.path().lexically_relative("/run").string() + " " + kindOf(entry));
  std::istringstream resolver(contentsOf("/etc/resolv.conf"));
  for (std::string line; std::getline(resolver, line);) lines.push_back("resolver " + line);
  for (auto entry = fs::recursive_directory_iterator(layer); entry != fs::recursive_directory_iterator(); ++entry) {
    std::string name = entry->path().lexically_relative(layer).string();
    char kind = kindOf(*entry);
    // A folder that all hosts share is in the layer as soon as anything in it is written: that says nothing.
    if (kind == 'd' && faccessat(sharedRoot, name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
      if (name == "var/log") entry.disable_recursion_pending();  // logs grow
      continue;
    }
    std::string line = "file " + name + " " + kind;
    if (kind == 'f') line += " " + std::to_string(std::hash<std::string>()(contentsOf(entry->path())));
    lines.push_back(line);
  }
}

// Enters the host; the caller of this program is not affected, and the next host is entered from here just as well.
static void enter(int netFd, int mountFd) {
  if (setns(netFd, CLONE_NEWNET) != 0 || setns(mountFd, CLONE_NEWNS) != 0)
    throw std::runtime_error("cannot enter a host: " + std::string(strerror(errno)));
}

static Lines lookOnce(const fs::path &layer) {
  Lines lines;
  processes(lines);
  lab::Netlink netlink(NETLINK_ROUTE);
  links(netlink, lines);
  addresses(netlink, lines);
  for (int family : {AF_INET, AF_INET6}) {
    routes(netlink, family, lines);
    rules(netlink, family, lines);
  }
  transforms(lines);
  l2tp(lines);
  daemon(lines);
  mounts(lines);
  files(layer, lines);
  std::erase_if(lines, [](const std::string &line) { return std::regex_match(line, leftOnPurpose); });
  std::sort(lines.begin(), lines.end());
  return lines;
}

// A folder that goes away while it is read ends the reading: then what is there has changed, and is looked at again.
static Lines look(const fs::path &layer) {
  for (int tries = 1;; ++tries) try {
      return lookOnce(layer);
    } catch (const fs::filesystem_error &) {
      if (tries == 20) throw;
    }
}

struct Host {
  std::string name;
  fs::path folder;
  int netFd, mountFd;
};

static Host hostOf(const fs::path &folder, const std::string &name) {
  std::string pid;
  std::ifstream(folder / name / "pid") >> pid;
  Host host{name, folder / name, open(("/proc/" + pid + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC),
            open(("/proc/" + pid + "/ns/mnt").c_str(), O_RDONLY | O_CLOEXEC)};
  if (pid.empty() || host.netFd < 0 || host.mountFd < 0) throw std::runtime_error("there is no host " + name);
  return host;
}

static Lines differences(const std::vector<Host> &hosts) {
  Lines result;
  for (const auto &host : hosts) {
    enter(host.netFd, host.mountFd);
    Lines before, after = look(host.folder / "layer"), lost, more;
    std::ifstream remembered(host.folder / "before");
    if (!remembered) throw std::runtime_error("there is no snapshot of " + host.name + " to compare with");
    for (std::string line; std::getline(remembered, line);) before.push_back(line);
    std::set_difference(before.begin(), before.end(), after.begin(), after.end(), std::back_inserter(lost));
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(more));
    for (const auto &line : lost) result.push_back(host.name + " lost: " + line);
    for (const auto &line : more) result.push_back(host.name + " has still: " + line);
  }
  return result;
}

int main(int argc, char **argv) try {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  bool compare = arguments.size() > 3 && arguments[1] == "compare";
  if (!compare && !(arguments.size() > 2 && arguments[1] == "before"))
    throw std::runtime_error("usage: snapshot FOLDER before HOST... | snapshot FOLDER compare MILLISECONDS HOST...");
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(compare ? std::stoi(arguments[2]) : 0);
  std::vector<Host> hosts;
  for (size_t i = compare ? 3 : 2; i < arguments.size(); ++i) hosts.push_back(hostOf(arguments[0], arguments[i]));
  if (!compare) {
    for (const auto &host : hosts) {
      enter(host.netFd, host.mountFd);
      std::ofstream file(host.folder / "before");
      for (const auto &line : look(host.folder / "layer")) file << line << "\n";
    }
    return 0;
  }
  for (;;) {
    bool last = std::chrono::steady_clock::now() >= deadline;
    Lines different = differences(hosts);
    if (!different.empty() && !last) {
      poll(nullptr, 0, 50);
      continue;
    }
    for (const auto &line : different) std::cout << line << "\n";
    return different.empty() ? 0 : 1;
  }
} catch (const std::exception &error) {
  std::cerr << "snapshot: " << error.what() << "\n";
  return 2;
}
