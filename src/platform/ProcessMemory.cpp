#include "platform/ProcessMemory.h"

#include <malloc.h>

namespace tamsel::platform {

void configureProcessMemory() {
    constexpr int megabyte = 1024 * 1024;
    mallopt(M_ARENA_MAX, 2);
    // Blocks below this come from the heap and are reused (a package file
    // and its Safari JSON text, read and written over and over); above it
    // they are mapped on their own and go back to the system when freed (the
    // JSON parsers' buffers, which their pool keeps anyway).
    mallopt(M_MMAP_THRESHOLD, 16 * megabyte);
    // Freed heap beyond this goes back to the system.
    mallopt(M_TRIM_THRESHOLD, 256 * megabyte);
}

}  // namespace tamsel::platform
