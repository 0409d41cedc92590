#include "platform/ProcessMemory.h"

#include <malloc.h>

namespace tamsel::platform {

void configureProcessMemory() {
    constexpr int megabyte = 1024 * 1024;
    mallopt(M_ARENA_MAX, 2);
    // Blocks below this come from the heap and are reused; above it they are
    // mapped on their own (a list this large is rare enough).
    mallopt(M_MMAP_THRESHOLD, 64 * megabyte);
    // Freed heap beyond this goes back to the system.
    mallopt(M_TRIM_THRESHOLD, 256 * megabyte);
}

}  // namespace tamsel::platform
