// Datagrams on the local listener sockets, as the socket threads hand them
// over: decoded, routed by their "event", and given to every callback
// registered for it (here the syslog forwarder's and a plain recorder).
#include "fuzz_env.h"

#include "listener.h"
#include "logging.h"

#include <jansson.h>

namespace
{

void recorder(const char *, json_t *params)
{
    // Callbacks borrow params; anything they keep they must reference.
    json_t *kept = json_incref(params);
    json_decref(kept);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::start_agent(false);
    logging_init();
    listener_register("ping", recorder, nullptr);
    listener_register("syslog", recorder, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 8193)
        return 0;
    const char *buf = reinterpret_cast<const char *>(data + 1);
    int len = static_cast<int>(size - 1);
    // The first byte picks the socket: the default one or the syslog one.
    listener_internal_send((data[0] & 1) ? LOGGING_SOCKET : nullptr, buf, len);
    return 0;
}
