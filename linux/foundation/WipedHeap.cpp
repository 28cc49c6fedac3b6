// The heap of a program that holds secrets: whatever is freed is overwritten first. Libraries copy what they are given
// (the bus its messages, the C library its streams, a parser its tokens), and their copies go back to the heap as they
// are; the C library's own M_PERTURB leaves out blocks up to a kilobyte, which it keeps for the next one who asks. A
// program has this by linking it; libraries that others link never do.
//
// Thread rule: as malloc and free.

#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// Overwrites memory in a way the compiler may not remove.
void wipe(void *bytes, std::size_t size) { explicit_bzero(bytes, size); }

// A block that grows moves, so that what it leaves can be overwritten. One that has become large gets room to grow in
// place, since parsers grow a text by a few bytes at a time; how much of it was asked for stands in its last bytes.
struct Trailer {
  std::uintptr_t mark;  // tells a block with a trailer, at this very place, from one without
  std::size_t size;     // what was asked for
};
constexpr std::size_t kRoomFrom = 4096;
constexpr std::uintptr_t kMark = 0x9e3779b97f4a7c15;

char *trailerPlace(void *memory) { return static_cast<char *>(memory) + malloc_usable_size(memory) - sizeof(Trailer); }

void writeTrailer(void *memory, std::size_t size) {
  const Trailer trailer{kMark ^ reinterpret_cast<std::uintptr_t>(memory), size};
  std::memcpy(trailerPlace(memory), &trailer, sizeof trailer);
}

// What was asked for, and how much there is.
struct Extent {
  std::size_t size;
  std::size_t capacity;
  bool hasTrailer;
};

Extent extentOf(void *memory) {
  const std::size_t usable = malloc_usable_size(memory);
  if (usable >= kRoomFrom) {
    Trailer trailer{};
    std::memcpy(&trailer, trailerPlace(memory), sizeof trailer);
    const std::size_t capacity = usable - sizeof trailer;
    if (trailer.mark == (kMark ^ reinterpret_cast<std::uintptr_t>(memory)) && trailer.size <= capacity)
      return {trailer.size, capacity, true};
  }
  return {usable, usable, false};
}

// A block for SIZE bytes with room for half as many more; without, where there is not that much memory.
void *blockWithRoom(std::size_t size) {
  if (size >= kRoomFrom && size <= SIZE_MAX / 2) {
    if (void *const memory = std::malloc(size + size / 2 + sizeof(Trailer)); memory != nullptr) {
      writeTrailer(memory, size);
      return memory;
    }
  }
  return std::malloc(size);
}

}  // namespace

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

void *realloc(void *memory, std::size_t size) {
  if (memory == nullptr) return std::malloc(size);
  if (size == 0) {
    free(memory);
    return nullptr;
  }
  const Extent old = extentOf(memory);
  if (size <= old.size) {
    wipe(static_cast<char *>(memory) + size, old.size - size);
    if (old.hasTrailer) wipe(trailerPlace(memory), sizeof(Trailer));
    return __libc_realloc(memory, size);
  }
  if (size <= old.capacity) {
    writeTrailer(memory, size);
    return memory;
  }
  void *const grown = blockWithRoom(size);
  if (grown == nullptr) return nullptr;
  std::memcpy(grown, memory, old.size);
  free(memory);
  return grown;
}

}  // extern "C"
