#include "library/array_alloc_probe.h"

#include <cstdlib>
#include <new>

namespace {

// In front of every block; 16 bytes keeps the caller's data aligned as
// malloc would.
struct alignas(16) BlockHeader {
  uint64_t magic;
  size_t requested;
};
static_assert(sizeof(BlockHeader) == 16, "header keeps malloc alignment");

constexpr uint64_t kLiveMagic = 0x61727261792d6e77ULL;
constexpr uint64_t kDeadMagic = 0x64656164626c6b21ULL;

thread_local int64_t outstanding = 0;

BlockHeader* HeaderOf(const void* p) {
  return reinterpret_cast<BlockHeader*>(const_cast<unsigned char*>(
                                            static_cast<const unsigned char*>(p)) -
                                        sizeof(BlockHeader));
}

void* Allocate(size_t size) noexcept {
  if (size > SIZE_MAX - sizeof(BlockHeader) - 1) return nullptr;
  auto* raw = static_cast<unsigned char*>(std::malloc(sizeof(BlockHeader) + size + 1));
  if (raw == nullptr) return nullptr;
  auto* header = reinterpret_cast<BlockHeader*>(raw);
  header->magic = kLiveMagic;
  header->requested = size;
  raw[sizeof(BlockHeader) + size] = array_probe::kGuardFill;
  ++outstanding;
  return raw + sizeof(BlockHeader);
}

void Release(void* p) noexcept {
  if (p == nullptr) return;
  BlockHeader* header = HeaderOf(p);
  header->magic = kDeadMagic;
  --outstanding;
  std::free(header);
}

}  // namespace

namespace array_probe {

bool IsArrayBlock(const void* p) {
  return p != nullptr && HeaderOf(p)->magic == kLiveMagic;
}

size_t RequestedSize(const void* p) {
  return HeaderOf(p)->requested;
}

unsigned char GuardByte(const void* p) {
  // Read through the block's own storage, which includes the guard byte.
  const auto* raw = reinterpret_cast<const unsigned char*>(HeaderOf(p));
  return raw[sizeof(BlockHeader) + HeaderOf(p)->requested];
}

int64_t OutstandingOnThisThread() {
  return outstanding;
}

}  // namespace array_probe

// Replacements of every array form, so that each block is released by the
// matching allocator whichever form a library used.
void* operator new[](std::size_t size) {
  if (void* p = Allocate(size)) return p;
  throw std::bad_alloc();
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}

void operator delete[](void* p) noexcept {
  Release(p);
}

void operator delete[](void* p, std::size_t) noexcept {
  Release(p);
}

void operator delete[](void* p, const std::nothrow_t&) noexcept {
  Release(p);
}
