#include <string>

#include "tests/fuzz/PropertyListCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  // The magic is not worth guessing: it is put in front of whatever comes without.
  const std::string_view bytes(reinterpret_cast<const char *>(data), size);
  checkPropertyList(bytes.starts_with("bplist00") ? std::string(bytes) : "bplist00" + std::string(bytes));
  return 0;
}
