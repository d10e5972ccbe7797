// SPDX-License-Identifier: MIT
//
// Stands in front of the C library's allocator when it is preloaded, and counts.
#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);
}

namespace
{

std::atomic<long long> live{0};
std::atomic<long long> peak{0};

long long sizeOf(void *block)
{
    return block ? static_cast<long long>(malloc_usable_size(block) + sizeof(size_t)) : 0;
}

void add(long long bytes)
{
    const long long now = live += bytes;
    if (now > peak)
        peak = now;
}

void *taken(void *block)
{
    add(sizeOf(block));
    return block;
}

} // namespace

#define EXPORTED __attribute__((visibility("default")))

extern "C" {

EXPORTED long long allocation_count_live()
{
    return live;
}

EXPORTED long long allocation_count_peak()
{
    return peak;
}

EXPORTED void allocation_count_forget_peak()
{
    peak = live.load();
}

EXPORTED void *malloc(size_t size)
{
    return taken(__libc_malloc(size));
}

EXPORTED void *calloc(size_t count, size_t size)
{
    return taken(__libc_calloc(count, size));
}

EXPORTED void *realloc(void *block, size_t size)
{
    const long long before = sizeOf(block);
    void *grown = __libc_realloc(block, size);
    if (grown || size == 0)
        add(sizeOf(grown) - before);
    return grown;
}

EXPORTED void *memalign(size_t alignment, size_t size)
{
    return taken(__libc_memalign(alignment, size));
}

EXPORTED void *aligned_alloc(size_t alignment, size_t size)
{
    return taken(__libc_memalign(alignment, size));
}

EXPORTED int posix_memalign(void **block, size_t alignment, size_t size)
{
    *block = taken(__libc_memalign(alignment, size));
    return *block ? 0 : ENOMEM;
}

EXPORTED void free(void *block)
{
    add(-sizeOf(block));
    __libc_free(block);
}
}
