// What was found, for people or for programs, and what it comes to.
//
// Usual sequence: add() for each topic; text() or json(); status(). Thread rule: as a plain value.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "companions/doctor/Finding.h"

namespace companions {

class Report {
 public:
  struct Form {
    bool all = false;  // what is fine, too
    bool colours = false;
  };

  // TITLE lives as long as the report. A topic without findings is left out.
  void add(std::string_view title, Findings findings);

  // By topic, the worst first within each; a sentence at the end says what it comes to.
  std::string text(const Form &form) const;
  // A line for each finding.
  std::string json(const Form &form) const;
  // What the program ends with: 1 where something prevents a connection, otherwise 0.
  int status() const { return count(Finding::Grade::prevents) > 0 ? 1 : 0; }

 private:
  struct Topic {
    std::string_view title;
    Findings findings;
  };
  std::size_t count(Finding::Grade grade) const;
  std::string verdict() const;

  std::vector<Topic> topics_;
};

}  // namespace companions
