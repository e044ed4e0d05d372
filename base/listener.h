// Local event listeners: JSON events arriving as datagrams on named sockets
// ("unix:<path>" or "udp:<port>") or injected in-process, routed by their
// "event" member to the callbacks registered for it.
#pragma once

#include "table.h"

#include <atomic>
#include <cstddef>
#include <jansson.h>

constexpr char LISTENER_DEFAULT_SOCKET[] = "unix:/tmp/orkad_socket";
constexpr size_t LISTENER_EVENT_SIZE = 128;
constexpr size_t LISTENER_SOCKET_NAME_SIZE = 256;
constexpr size_t LISTENER_UNIX_MESSAGE_SIZE = 1024;
constexpr size_t LISTENER_UDP_MESSAGE_SIZE = 8192;

// params is borrowed for the call (null when the event has none); keep it
// only with a reference of your own.
typedef void (*listener_fn)(const char *event, json_t *params);

struct listener {
    char event[LISTENER_EVENT_SIZE];
    struct listener *next; // next callback for the same event, registration order
    listener_fn fn;
    std::atomic<unsigned int> hits; // counted on the receiver's thread, read by whoever looks
};

typedef struct listener_socket {
    struct listener_socket *next; // newest first
    char name[LISTENER_SOCKET_NAME_SIZE];
    table_t *table; // event name -> first struct listener
} listener_socket_t;

void listener_init(void);
// 0; -1 for an event or socket name too long, -2 when out of memory, -3 when
// the socket's event table cannot be made.
int listener_register(const char *event, listener_fn fn, const char *socket_name);
// 0, or -1 when no socket of that name is registered.
int listener_internal_send(const char *socket_name, const char *buf, int len);
void listener_response(const char *path, const char *buf, int len);

// The first callback for event on socket_name (null: default), or null; for
// dumps and tests.
struct listener *listener_lookup(const char *socket_name, const char *event);
