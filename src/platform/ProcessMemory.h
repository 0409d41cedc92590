#pragma once

// How the process's memory allocator is set up.
namespace tamsel::platform {

// The compiler decodes and re-encodes package lists of tens of megabytes on
// several threads at once. With the allocator's defaults each thread gets an
// arena of its own that keeps its freed pages, and every large list is mapped
// and unmapped afresh on every rebuild; both cost more than the JSON work.
// This keeps the arenas to two and blocks of a package file's size in the
// heap, where a rebuild reuses the pages of the one before. Call once, early
// in main().
void configureProcessMemory();

}  // namespace tamsel::platform
