// Local event listeners: JSON events arriving as datagrams on named sockets
// ("unix:<path>" or "udp:<port>") or injected in-process, routed by their
// "event" member to the callbacks registered for it.
#pragma once

#include "table.h"

#include <jansson.h>

#define LISTENER_DEFAULT_SOCKET "unix:/tmp/orkad_socket"
#define LISTENER_EVENT_SIZE 128
#define LISTENER_SOCKET_NAME_SIZE 256
#define LISTENER_UNIX_MESSAGE_SIZE 1024
#define LISTENER_UDP_MESSAGE_SIZE 8192

// params is borrowed for the call (null when the event has none); keep it
// only with a reference of your own.
typedef void (*listener_fn)(const char *event, json_t *params);

struct listener {
    char event[LISTENER_EVENT_SIZE];
    struct listener *next; // next callback for the same event, registration order
    listener_fn fn;
    unsigned int hits;
};

typedef struct listener_socket {
    struct listener_socket *next; // newest first
    char name[LISTENER_SOCKET_NAME_SIZE];
    table_t *table; // event name -> first struct listener
} listener_socket_t;

void listener_init(void);
int listener_register(const char *event, listener_fn fn, const char *socket_name);
int listener_internal_send(const char *socket_name, const char *buf, int len);
void listener_response(const char *path, const char *buf, int len);

// The first callback for event on socket_name (null: default), or null; for
// dumps and tests.
struct listener *listener_lookup(const char *socket_name, const char *event);
