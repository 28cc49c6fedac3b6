#include "qolmhelper/TNFileTailer.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <system_error>
#include <utility>

#include "foundation/ConsoleLog.h"
#include "foundation/Text.h"
#include "foundation/Value.h"
#include "platform/GrowthWatch.h"

namespace TN {
namespace {

constexpr std::chrono::seconds kIdle{1};
constexpr std::size_t kBlockSize = 4096;

// One for the process: a partial line survives a tailer's stop and restart.
char lineBuffer[1024];
std::int32_t lineLength = 0;

}  // namespace

std::shared_ptr<TNFileTailer> TNFileTailer::initWithPath(const std::string &path) {
  std::FILE *const stream = std::fopen(path.c_str(), "r");
  if (stream == nullptr) {
    const vpnctl::Value name(path);
    vpnctl::NSLog("Could not open file %@", &name);
    return nullptr;
  }
  return initWithStream(stream);
}

std::shared_ptr<TNFileTailer> TNFileTailer::initWithStream(std::FILE *stream) {
  std::shared_ptr<TNFileTailer> tailer(new TNFileTailer(stream));
  // The result itself is the code that is told, not errno: it is -1 whatever the reason.
  if (const int result = std::fseek(stream, 0, SEEK_END); result != 0) {
    const std::string text = std::generic_category().message(result);
    vpnctl::NSLog("Could not seek to the end of the file! err_code: %d, err: %s", result, text.c_str());
    return nullptr;
  }
  tailer->pos_ = std::ftell(stream);
  tailer->queue_ = platform::dispatch_queue_create("TNFileTailer");
  return tailer;
}

TNFileTailer::~TNFileTailer() {
  if (fp_ != nullptr) std::fclose(fp_);
}

void TNFileTailer::tail(Callback callback) {
  if (running_.load(std::memory_order_relaxed)) {
    vpnctl::NSLog("Already running!");
    return;
  }
  running_.store(true, std::memory_order_relaxed);
  platform::dispatch_async(queue_,
                           [self = shared_from_this(), callback = std::move(callback)] { self->readLoop(callback); });
}

void TNFileTailer::stop() { running_.store(false, std::memory_order_relaxed); }

// Reads ahead by blocks, but pos_ and the look at running_ go character by character, and after each callback what was
// read ahead is dropped and read anew: only the number of reads differs from reading one character at a time.
void TNFileTailer::readLoop(const Callback &callback) {
  const auto wanted = [this] { return running_.load(std::memory_order_relaxed); };
  platform::GrowthWatch growth(fp_);
  std::array<char, kBlockSize> block;
  while (fp_ != nullptr && wanted()) {
    // Also clears an end of file met before, so that what was appended since is seen.
    std::fseek(fp_, pos_, SEEK_SET);
    const std::size_t size = std::fread(block.data(), 1, block.size(), fp_);
    if (size == 0) {  // the end, or a read error, which may pass
      growth.sleep(kIdle);
      continue;
    }
    for (std::size_t i = 0; i < size && wanted(); ++i) {
      ++pos_;
      lineBuffer[lineLength++] = block[i];
      if (lineLength > 1022 || block[i] == '\n') {
        lineBuffer[lineLength] = '\0';
        lineLength = 0;
        callback(vpnctl::stringWithUTF8String(lineBuffer));
        break;
      }
    }
  }
  stop();
}

}  // namespace TN
