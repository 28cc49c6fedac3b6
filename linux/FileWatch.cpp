#include "linux/FileWatch.h"

#include <system_error>

#include "foundation/FileReplacement.h"

namespace linux {

vpnctl::Result<std::unique_ptr<FileWatch>> FileWatch::watch(sd_event *event, const std::string &path,
                                                            std::function<void()> changed,
                                                            std::chrono::milliseconds quiet) {
  const std::string folder = vpnctl::folderOf(path);
  std::unique_ptr<FileWatch> watch(new FileWatch(event, std::move(changed), quiet));
  try {
    watch->folder_ = EventSource::folder(
        event, folder,
        [self = watch.get(), name = path.substr(path.rfind('/') + 1)](const std::string &stirred) {
          if (stirred.empty() || stirred == name) self->again();
        });
  } catch (const std::system_error &error) {
    return vpnctl::errnoError(error.code().value(), "watch " + folder);
  }
  return watch;
}

void FileWatch::again() {
  timer_ = EventSource::timer(
      event_, quiet_,
      [this] {
        // The handler may destroy this, and with it what it is kept in.
        const std::function<void()> changed = changed_;
        changed();
      });
}

}  // namespace linux
