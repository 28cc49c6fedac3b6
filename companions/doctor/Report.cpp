#include "companions/doctor/Report.h"

#include <algorithm>
#include <utility>

#include "companions/common/JSONLine.h"
#include "foundation/Text.h"

namespace companions {

using Grade = Finding::Grade;

namespace {

constexpr std::size_t kWidth = 100;
constexpr std::size_t kIndent = 12;

struct Look {
  std::string_view word;
  std::string_view colour;
};

Look lookOf(Grade grade) {
  switch (grade) {
    case Grade::prevents:
      return {"prevents", "\033[1;31m"};
    case Grade::hinders:
      return {"hinders", "\033[33m"};
    case Grade::unseen:
      return {"unseen", "\033[36m"};
    case Grade::fine:
      return {"fine", "\033[32m"};
  }
  return {};
}

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

// What a file is called, or says of itself, must not do anything to a terminal.
std::string harmless(std::string_view text) {
  std::string result;
  for (std::size_t index = 0; index < text.size();) {
    const std::size_t start = index;
    const auto character = vpnctl::nextCharacter(text, &index);
    if (!character) {
      ++index;
      result += '?';
    } else if (*character < ' ' || (*character >= 0x7f && *character < 0xa0)) {
      result += '?';
    } else {
      result += text.substr(start, index - start);
    }
  }
  return result;
}

// TEXT in lines, each but the first behind INDENT blanks. Words that are longer than a line stand over.
std::string wrapped(const std::string &text, std::size_t indent) {
  std::string lines;
  std::size_t column = indent;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find(' ', start), text.size());
    const std::string word = text.substr(start, end - start);
    if (column > indent && column + 1 + vpnctl::utf16Length(word) > kWidth) {
      lines += "\n" + std::string(indent, ' ');
      column = indent;
    } else if (column > indent) {
      lines += ' ';
      ++column;
    }
    lines += word;
    column += vpnctl::utf16Length(word);
    start = end + 1;
  }
  return lines;
}

std::string textOf(const Finding &finding, bool colours) {
  const Look look = lookOf(finding.grade);
  const std::string word = padded(std::string(look.word), kIndent - 2);
  std::string text = "  " + (colours ? std::string(look.colour) + word + "\033[0m" : word) +
                     wrapped(harmless(finding.what), kIndent) + "\n";
  const std::string blanks(kIndent, ' ');
  if (!finding.why.empty()) text += blanks + wrapped(harmless(finding.why), kIndent) + "\n";
  // In one line, to be copied.
  if (!finding.remedy.empty()) text += blanks + "-> " + harmless(finding.remedy) + "\n";
  return text;
}

std::string things(std::size_t count, std::string_view singular, std::string_view plural) {
  return std::to_string(count) + " " + std::string(count == 1 ? singular : plural);
}

}  // namespace

void Report::add(std::string_view title, Findings findings) {
  if (findings.empty()) return;
  std::ranges::stable_sort(findings, {}, &Finding::grade);
  topics_.push_back({title, std::move(findings)});
}

std::size_t Report::count(Grade grade) const {
  std::size_t sum = 0;
  for (const Topic &topic : topics_)
    sum += static_cast<std::size_t>(std::ranges::count(topic.findings, grade, &Finding::grade));
  return sum;
}

std::string Report::verdict() const {
  const std::size_t prevents = count(Grade::prevents);
  const std::size_t hinders = count(Grade::hinders);
  const std::size_t unseen = count(Grade::unseen);
  std::string text =
      prevents == 0 ? "Nothing that was found prevents a connection"
                    : "No connection comes about: " + things(prevents, "thing prevents", "things prevent") + " one";
  if (hinders > 0) text += "; " + things(hinders, "thing may hinder one", "things may hinder one");
  if (unseen > 0) text += "; " + things(unseen, "thing", "things") + " could not be seen";
  return text + ".\n";
}

std::string Report::text(const Form &form) const {
  std::string text;
  for (const Topic &topic : topics_) {
    std::string lines;
    for (const Finding &finding : topic.findings)
      if (form.all || finding.grade != Grade::fine) lines += textOf(finding, form.colours);
    if (lines.empty()) continue;
    const std::string title(topic.title);
    text += (form.colours ? "\033[1m" + title + "\033[0m" : title) + "\n" + lines + "\n";
  }
  if (const std::size_t fine = count(Grade::fine); fine > 0 && !form.all)
    text += things(fine, "check", "checks") + " found nothing.\n";
  return text + verdict();
}

std::string Report::json(const Form &form) const {
  std::string lines;
  for (const Topic &topic : topics_)
    for (const Finding &finding : topic.findings)
      if (form.all || finding.grade != Grade::fine)
        lines += JSONLine()
                     .add("grade", lookOf(finding.grade).word)
                     .add("name", finding.name)
                     .add("what", finding.what)
                     .add("why", finding.why)
                     .add("remedy", finding.remedy)
                     .line();
  return lines;
}

}  // namespace companions
