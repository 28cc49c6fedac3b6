#include "companions/doctor/Machine.h"

#include <sys/utsname.h>

namespace companions {

Machine Machine::here() {
  Machine machine;
  utsname names{};
  if (::uname(&names) == 0) {
    machine.release = names.release;
    machine.architecture = names.machine;
  }
  return machine;
}

}  // namespace companions
