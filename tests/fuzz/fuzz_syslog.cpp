// Syslog datagrams from the switch: the receiver's parse (priority and
// timestamp) and escape into the "syslog" event, then the event through the
// listener to the forwarder's batch, as the receiver thread hands it on.
#include "fuzz_env.h"

#include "listener.h"
#include "logging.h"
#include "platform_utils.h"

#include <cstring>
#include <ctime>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::start_agent(false);
    logging_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The receiver reads into a buffer of this size; longer datagrams are
    // cut by recv before the parser sees them.
    char dgram[PLATFORM_SYSLOG_DATAGRAM];
    int n = static_cast<int>(size < sizeof(dgram) ? size : sizeof(dgram));
    memcpy(dgram, data, n);
    static unsigned long long sequence;
    char event[PLATFORM_SYSLOG_EVENT];
    // A fixed arrival time keeps runs reproducible.
    int len = platform_syslog_event(dgram, n, 1700000000, ++sequence, event, sizeof(event));
    if (len < 0 || len >= (int)sizeof(event))
        __builtin_trap();
    // Whatever the switch sent, the event and the line it carries are JSON.
    json_t *ev = json_loadb(event, len, 0, nullptr);
    json_t *line = json_loads(json_string_value(json_object_get(ev, "params")), 0, nullptr);
    if (line == nullptr)
        __builtin_trap();
    json_decref(line);
    json_decref(ev);
    listener_internal_send(LOGGING_SOCKET, event, len);
    return 0;
}
