// What the running kernel has, and what it could load, from what it shows of itself and from its modules' folder.
// Nothing is loaded.
//
// Thread rule: as a plain value. Blocks on the disk.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "companions/doctor/Machine.h"

namespace companions {

class KernelModules {
 public:
  // A line of a file below /proc that is there only with the module: its word number COLUMN, from 0, is WORD.
  struct Trace {
    std::string_view file = {};
    std::size_t column = 0;
    std::string_view word = {};
  };
  struct Module {
    std::string_view name;
    Trace trace = {};  // of modules that have one
  };
  enum class State {
    present,  // loaded, or a part of the kernel
    loadable,
    forbidden,  // by a file of modprobe's
    missing,
    unknown,  // a kernel without a list of its parts may have it
  };
  struct Answer {
    State state = State::unknown;
    std::string detail;  // forbidden: the file; missing: the file that is gone, if there was to be one
  };

  explicit KernelModules(const Machine &machine);

  Answer find(const Module &module) const;
  // Whether an algorithm of the kernel's cryptography is there or can be loaded; unknown as above.
  State findAlgorithm(std::string_view name) const;

  // Whether the kernel has modules at all.
  bool takesModules() const { return takesModules_; }
  // Whether it has been told to load no more.
  bool isLocked() const;
  // The folder of the kernel that runs.
  bool hasFolder() const { return hasFolder_; }
  // Whether there is one for any other kernel.
  bool hasOtherFolders() const;

 private:
  bool isPresent(const Module &module) const;
  std::string fileThatIsGone(std::string_view files) const;

  const Machine &machine_;
  std::string folder_;
  bool takesModules_;
  bool hasFolder_;
};

}  // namespace companions
