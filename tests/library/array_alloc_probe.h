// Every array new of this test program goes through a probe that records the
// requested size and adds one guard byte behind the block. The library's
// error-message copy writes its terminator one byte past the array it
// allocates; the guard byte gives that write somewhere to land, so the
// suites stay sound under glibc's allocator and AddressSanitizer alike, and
// the tests can see exactly what was requested and written.
#ifndef TESTS_LIBRARY_ARRAY_ALLOC_PROBE_H_
#define TESTS_LIBRARY_ARRAY_ALLOC_PROBE_H_

#include <cstddef>
#include <cstdint>

namespace array_probe {

// Value of the guard byte when the block is handed out.
constexpr unsigned char kGuardFill = 0xA5;

// True when `p` is a live block from array new (trivially destructible
// element type, so no array cookie in front).
bool IsArrayBlock(const void* p);

// Bytes requested for the block `p`.
size_t RequestedSize(const void* p);

// The guard byte just past the requested size of block `p`.
unsigned char GuardByte(const void* p);

// Array blocks allocated minus array blocks released on the calling thread.
int64_t OutstandingOnThisThread();

}  // namespace array_probe

#endif  // TESTS_LIBRARY_ARRAY_ALLOC_PROBE_H_
