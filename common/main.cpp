#include "allocator.h"
#include "orkad.h"

#include <malloc.h>

int main(int argc, char **argv)
{
    allocator_tune(argv);
    // One malloc arena for all threads: each of the daemon's threads would
    // otherwise get an arena of its own and keep its freed pages, which
    // nearly doubles the child's private memory. The threads mostly sleep,
    // so they hardly ever contend for the one lock.
    mallopt(M_ARENA_MAX, 1);
    return orkad_main(argc, argv);
}
