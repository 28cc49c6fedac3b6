#include "companions/run/Progress.h"

#include <sys/ioctl.h>

namespace companions {

namespace {

constexpr std::string_view kErase = "\r\033[K";

std::size_t widthOf(int terminal) {
  winsize size{};
  return ::ioctl(terminal, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col : 80;
}

}  // namespace

void Progress::show(const std::string &text) {
  if (form_ == Form::none || text == text_) return;
  text_ = text;
  if (form_ == Form::lines) return output_.write("vpnctl-run: " + text + "\n");
  clear();
  draw();
}

void Progress::clear() {
  if (!drawn_) return;
  drawn_ = false;
  output_.decorate(kErase);
}

void Progress::again() {
  if (form_ == Form::line && !drawn_) draw();
}

void Progress::end() {
  clear();
  form_ = Form::none;
}

// A line that is wider than the terminal could not be taken off again, and behind somebody's half line there is no
// room.
void Progress::draw() {
  if (text_.empty() || !output_.isAtLineStart()) return;
  std::string line = text_.substr(0, widthOf(output_.descriptor()) - 1);
  for (char &c : line)
    if (c < ' ' || c > '~') c = '?';
  output_.decorate(line);
  drawn_ = true;
}

}  // namespace companions
