// The entry points of the targets whose input is a choice and its bytes:
// the agent starts once, before the first input, and every input that has
// a first byte is handed over as that byte and the rest.
#include "fuzz_env.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::start_agent(fuzz::pick_needs_commands);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    fuzz::pick_input(data[0], data + 1, size - 1);
    return 0;
}
