// What a link is, for people who ask which connections there are: the note lies beside the journal, in the link's own
// folder, and nothing is ever undone by it. Only root may read it, as all that lies there: what everybody may know, the
// kernel tells everybody. It holds no secret and no account.
//
// Thread rule: as a plain value.

#pragma once

#include <netinet/in.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Value.h"
#include "helper/journal/IPSecJournal.h"

namespace helper {

struct LinkNote {
  // Since the link came up. Times are counted from the machine's start and go on while it sleeps: timeSinceBoot().
  struct Up {
    std::string interface;
    in_addr server{};  // that of the server's addresses which is used
    std::chrono::seconds since{0};
    std::vector<in_addr> nameServers;  // that the server named, whether or not anybody asks them
    bool encryptedByPPP = false;       // with MPPE

    bool operator==(const Up &other) const;
  };

  StartedProcess helper;
  std::string server;    // a name or an address, as the configuration writes it
  std::string protocol;  // "PPTP", "L2TP"
  std::chrono::seconds begun{0};
  std::optional<Up> up{};

  bool operator==(const LinkNote &) const = default;
};

// The form in the file, and back; none when it makes no sense. What a newer version adds is passed over.
vpnctl::Value noteValue(const LinkNote &note);
std::optional<LinkNote> noteFrom(const vpnctl::Value &value);

// Since the machine's start, its sleep included.
std::chrono::seconds timeSinceBoot();

}  // namespace helper
