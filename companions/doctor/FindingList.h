// What one topic comes to, in the making.
//
// Usual sequence: prevents(), hinders(), unseen() for what is found; then fine() for each name, which counts only where
// nothing else of that name was found; take(). Thread rule: as a plain value.

#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "companions/doctor/Finding.h"

namespace companions {

class FindingList {
 public:
  using Grade = Finding::Grade;

  // The texts are Finding's.
  void prevents(std::string_view name, std::string what, std::string why, std::string remedy) {
    add(Grade::prevents, name, std::move(what), std::move(why), std::move(remedy));
  }
  void hinders(std::string_view name, std::string what, std::string why, std::string remedy) {
    add(Grade::hinders, name, std::move(what), std::move(why), std::move(remedy));
  }
  void unseen(std::string_view name, std::string what, std::string why, std::string remedy) {
    add(Grade::unseen, name, std::move(what), std::move(why), std::move(remedy));
  }
  void add(Grade grade, std::string_view name, std::string what, std::string why, std::string remedy) {
    findings_.push_back({grade, name, std::move(what), std::move(why), std::move(remedy)});
  }
  void fine(std::string_view name, std::string what) {
    if (!has(name)) findings_.push_back({Grade::fine, name, std::move(what), {}, {}});
  }
  bool has(std::string_view name) const {
    return std::ranges::any_of(
        findings_, [&](const Finding &finding) { return finding.name == name; });
  }
  Findings take() { return std::move(findings_); }

 private:
  Findings findings_;
};

}  // namespace companions
