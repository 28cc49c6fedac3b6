#include "linux/SystemJournal.h"

#include <sys/uio.h>
#include <syslog.h>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <vector>

namespace linux {

void tellJournal(const std::string &sentence, const JournalFields &fields) {
  std::vector<std::string> texts{"MESSAGE=" + sentence, "PRIORITY=" + std::to_string(LOG_NOTICE),
                                 "SYSLOG_FACILITY=" + std::to_string(LOG_FAC(LOG_AUTHPRIV)),
                                 "SYSLOG_IDENTIFIER=vpnctl-helper"};
  for (const auto &[name, value] : fields) texts.push_back(name + "=" + value);
  std::vector<iovec> parts;
  for (std::string &text : texts) parts.push_back({text.data(), text.size()});
  static_cast<void>(sd_journal_sendv(parts.data(), static_cast<int>(parts.size())));
}

}  // namespace linux
