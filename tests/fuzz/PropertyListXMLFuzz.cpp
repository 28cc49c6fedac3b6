#include "tests/fuzz/PropertyListCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char *>(data), size);
  if (!bytes.starts_with("bplist00")) checkPropertyList(bytes);
  return 0;
}
