// The heap of a program that holds secrets: whatever is freed is overwritten first. Libraries copy what they are given
// (the bus its messages, the C library its streams, a parser its tokens), and their copies go back to the heap as they
// are; the C library's own M_PERTURB leaves out blocks up to a kilobyte, which it keeps for the next one who asks. A
// program has this by linking it; libraries that others link never do.
//
// Thread rule: as malloc and free.

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

extern "C" {

void __libc_free(void *memory);

void free(void *memory) {
  if (memory == nullptr) return;
  explicit_bzero(memory, malloc_usable_size(memory));
  __libc_free(memory);
}

void *realloc(void *memory, std::size_t size) {
  if (memory == nullptr) return std::malloc(size);
  if (size == 0) {
    free(memory);
    return nullptr;
  }
  const std::size_t usable = malloc_usable_size(memory);
  // What stays where it is will be overwritten when it is freed, its unused end too.
  if (size <= usable && size >= usable / 2) return memory;
  // Parsers grow a text by a few bytes at a time, and it cannot be copied each time.
  void *const moved = std::malloc(size > usable ? std::max(size, usable + usable / 8) : size);
  if (moved == nullptr) return nullptr;
  std::memcpy(moved, memory, std::min(size, usable));
  free(memory);
  return moved;
}

}  // extern "C"
