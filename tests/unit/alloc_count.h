// Counts the heap allocations a stretch of code makes on the calling thread.
// It replaces malloc, calloc and realloc for the whole program, so a program
// includes it in one file only. A sanitizer build keeps the sanitizer's own
// allocator: nothing is replaced or counted there, ALLOC_COUNTING is 0 and
// stop() says 0.
#pragma once

#include <cstddef>
#include <cstdlib>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define ALLOC_COUNTING 1

extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

namespace alloc_count
{
inline thread_local bool counting = false;
inline thread_local long allocations = 0;

// Counts from zero from now on.
inline void start()
{
    allocations = 0;
    counting = true;
}
// Stops counting; how many there were since start().
inline long stop()
{
    counting = false;
    return allocations;
}
} // namespace alloc_count

extern "C" void *malloc(size_t n)
{
    if (alloc_count::counting)
        alloc_count::allocations++;
    return __libc_malloc(n);
}
extern "C" void *calloc(size_t a, size_t b)
{
    if (alloc_count::counting)
        alloc_count::allocations++;
    return __libc_calloc(a, b);
}
extern "C" void *realloc(void *p, size_t n)
{
    if (alloc_count::counting)
        alloc_count::allocations++;
    return __libc_realloc(p, n);
}

#else
#define ALLOC_COUNTING 0

namespace alloc_count
{
inline void start() {}
inline long stop()
{
    return 0;
}
} // namespace alloc_count
#endif
