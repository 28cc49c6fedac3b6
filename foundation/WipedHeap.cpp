// The heap of a program that holds secrets: whatever is freed is overwritten first. Libraries copy what they are given
// (the bus its messages, the C library its streams, a parser its tokens), and their copies go back to the heap as they
// are; the C library's own M_PERTURB leaves out blocks up to a kilobyte, which it keeps for the next one who asks. A
// program has this by linking it; libraries that others link never do.
//
// Thread rule: as malloc and free.

#include <malloc.h>

#include <cstdlib>
#include <cstring>

// Overwrites memory in a way the compiler may not remove.
static void wipe(void *bytes, std::size_t size) { explicit_bzero(bytes, size); }

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): glibc's names for its own
void __libc_free(void *memory);
void *__libc_realloc(void *memory, std::size_t size);
// NOLINTEND(bugprone-reserved-identifier)

void free(void *memory) {
  if (memory == nullptr) return;
  wipe(memory, malloc_usable_size(memory));
  __libc_free(memory);
}

// A block that grows moves, so that what it leaves can be overwritten.
void *realloc(void *memory, std::size_t size) {
  if (memory == nullptr) return std::malloc(size);
  if (size == 0) {
    free(memory);
    return nullptr;
  }
  const std::size_t old = malloc_usable_size(memory);
  if (size <= old) {
    wipe(static_cast<char *>(memory) + size, old - size);
    return __libc_realloc(memory, size);
  }
  void *const grown = std::malloc(size);
  if (grown == nullptr) return nullptr;
  std::memcpy(grown, memory, old);
  free(memory);
  return grown;
}

}  // extern "C"
