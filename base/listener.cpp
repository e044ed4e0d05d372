#include "listener.h"
#include "raii.h"

#include "devroot.h"
#include "log.h"
#include "utils.h"
#include "work.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <new>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

// Entries are only ever pushed at the head and never removed, so readers walk
// the list without the lock.
std::atomic<listener_socket_t *> listener_sockets{nullptr};
std::mutex listener_sockets_lock;
// Guards every socket's event table and callback chains. A socket's thread
// starts with its first registration and may be handling an event while the
// same module registers its next one, so lookups and links are taken under
// it; callbacks run without it.
std::mutex listener_tables_lock;

const char *choose_name(const char *socket_name)
{
    return socket_name == nullptr || socket_name[0] == '\0' ? LISTENER_DEFAULT_SOCKET : socket_name;
}

listener_socket_t *find_socket(const char *name)
{
    for (listener_socket_t *s = listener_sockets.load(std::memory_order_acquire); s != nullptr;
         s = s->next)
        if (strcmp(s->name, name) == 0)
            return s;
    return nullptr;
}

void process_message(listener_socket_t *sock, const char *buf, int len)
{
    json_error_t error;
    json_ptr msg(json_loadb_bounded(buf, len, 0, &error));
    if (msg == nullptr) {
        log_fprint(orkad_log, "listener: error decoding message: %s\n", error.text);
        log_fprint(orkad_log, "len = %d, message = '%.*s'\n", len, len, buf);
        return;
    }
    json_t *event = json_object_get(msg.get(), "event");
    if (!json_is_string(event)) {
        // The key has been "event" for long; the wording stays.
        log_fprint(orkad_log, "listener: missing or non-string 'type' element\n");
        return;
    }
    const char *name = json_string_value(event);
    json_t *params = json_object_get(msg.get(), "params");
    struct listener *l;
    {
        std::lock_guard<std::mutex> guard(listener_tables_lock);
        l = static_cast<struct listener *>(table_lookup(sock->table, name, strlen(name)));
    }
    if (l == nullptr) {
        log_fprint(orkad_log, "listener: no listener registered for event '%s'\n", name);
        return;
    }
    while (l != nullptr) {
        l->fn(name, params);
        l->hits.fetch_add(1, std::memory_order_relaxed);
        std::lock_guard<std::mutex> guard(listener_tables_lock);
        l = l->next;
    }
}

// Processes every datagram of up to Size bytes that arrives on the bound
// socket s, until a receive fails.
template <size_t Size> void receive(listener_socket_t *sock, int s)
{
    char buf[Size];
    for (;;) {
        ssize_t n = recv(s, buf, sizeof(buf), 0);
        if (n < 0) {
            log_fprint(orkad_log, "'%s' listener stopped\n", sock->name);
            return;
        }
        process_message(sock, buf, static_cast<int>(n));
    }
}

void unix_receiver(void *p1, void *, void *)
{
    listener_socket_t *sock = static_cast<listener_socket_t *>(p1);
    if (strstr(sock->name, "unix:") == nullptr) {
        log_fprint(orkad_log, "Unix listener bad parameter %s", sock->name);
        return;
    }
    const char *path = sock->name + 5;
    log_fprint(orkad_log, "'%s' Unix listener started for %s \n", sock->name, path);

    char mapped[1024];
    if (devroot_path(path, mapped, sizeof(mapped)) == nullptr)
        mapped[0] = '\0';
    unlink(mapped);
    fd_guard s(socket(AF_UNIX, SOCK_DGRAM, 0));
    if (!s.ok()) {
        log_fprint(orkad_log, "cannot open socket for '%s'\n", sock->name);
        return;
    }
    // Only root may send events, whatever umask the agent was started with:
    // the mode set here is the one bind gives the socket file.
    fchmod(s.get(), 0600);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-truncation"
    strncpy(addr.sun_path, mapped, sizeof(addr.sun_path));
#pragma GCC diagnostic pop
    if (bind(s.get(), reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) < 0) {
        int err = errno;
        log_fprint(orkad_log, "'%s' failed bind, '%s' (errno = %d)\n", path, strerror(err), err);
        return;
    }
    receive<LISTENER_UNIX_MESSAGE_SIZE>(sock, s.get());
}

void udp_receiver(void *p1, void *, void *)
{
    listener_socket_t *sock = static_cast<listener_socket_t *>(p1);
    int port = 0;
    if (sscanf(sock->name, "udp:%d", &port) != 1) {
        log_fprint(orkad_log, "UDP listener bad parameter %s\n", sock->name);
        return;
    }
    log_fprint(orkad_log, "'%s' UDP listener started on port %d\n", sock->name, port);
    fd_guard s(socket(AF_INET, SOCK_DGRAM, 0));
    if (!s.ok()) {
        log_fprint(orkad_log, "cannot open socket for '%s'\n", sock->name);
        return;
    }
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(s.get(), reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) < 0) {
        int err = errno;
        log_fprint(orkad_log, "'%s' failed bind, '%s' (errno = %d)\n", sock->name, strerror(err),
                   err);
        return;
    }
    receive<LISTENER_UDP_MESSAGE_SIZE>(sock, s.get());
}

} // namespace

void listener_init(void) {}

int listener_register(const char *event, listener_fn fn, const char *socket_name)
{
    if (strlen(event) > LISTENER_EVENT_SIZE - 1) {
        log_fprint(orkad_log, "%s: 'event' string too long\n", __func__);
        return -1;
    }
    const char *name = choose_name(socket_name);
    if (strlen(name) >= LISTENER_SOCKET_NAME_SIZE) {
        log_fprint(orkad_log, "%s: 'socket_name' string too long\n", __func__);
        return -1;
    }

    listener_socket_t *sock = find_socket(name);
    if (sock == nullptr) {
        malloc_ptr<listener_socket_t> made(
            static_cast<listener_socket_t *>(calloc(1, sizeof(listener_socket_t))));
        if (!made) {
            log_fprint(orkad_log, "%s: out of memory registering '%s' on '%s'\n", __func__, event,
                       name);
            return -2;
        }
        made->table = table_create("listener_table", 32);
        if (made->table == nullptr) {
            log_fprint(orkad_log, "%s: cannot create listener table for '%s' on '%s'\n", __func__,
                       event, name);
            return -3;
        }
        strcpy(made->name, name);
        // Published for good: sockets live as long as the process.
        sock = made.release();
        {
            std::lock_guard<std::mutex> guard(listener_sockets_lock);
            sock->next = listener_sockets.load(std::memory_order_relaxed);
            listener_sockets.store(sock, std::memory_order_release);
        }
        if (strstr(name, "udp:") != nullptr)
            thread_start("UDP listener", udp_receiver, sock, nullptr, nullptr);
        else
            thread_start("Unix listener", unix_receiver, sock, nullptr, nullptr);
    }

    std::unique_ptr<struct listener> l(new (std::nothrow) listener{});
    if (!l) {
        log_fprint(orkad_log, "%s: out of memory registering '%s' on '%s'\n", __func__, event,
                   name);
        return -2;
    }
    strncpy(l->event, event, sizeof(l->event) - 1);
    l->fn = fn;

    {
        std::lock_guard<std::mutex> guard(listener_tables_lock);
        int rc = table_append(sock->table, l.get(), event, strlen(event));
        if (rc != 0) {
            log_fprint(orkad_log, "%s: cannot insert '%s' listener on '%s' (%d)\n", __func__, event,
                       name, rc);
            return -2;
        }
        l.release();
    }
    log_fprint(orkad_log, "registered '%s' listener on '%s'\n", event, name);
    return 0;
}

int listener_internal_send(const char *socket_name, const char *buf, int len)
{
    listener_socket_t *sock = find_socket(choose_name(socket_name));
    if (sock == nullptr)
        return -1;
    process_message(sock, buf, len);
    return 0;
}

void listener_response(const char *path, const char *buf, int len)
{
    fd_guard s(socket(AF_UNIX, SOCK_DGRAM, 0));
    if (!s.ok()) {
        log_fprint(orkad_log, "%s: Can't create socket\n", __func__);
        return;
    }
    int fl = fcntl(s.get(), F_GETFL, 0);
    if (fl < 0 || fcntl(s.get(), F_SETFL, fl | O_NONBLOCK) < 0) {
        log_fprint(orkad_log, "Unable to set non-blocking on socket %d", s.get());
        return;
    }
    struct sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    char mapped[1024];
    if (devroot_path(path, mapped, sizeof(mapped)) == nullptr)
        mapped[0] = '\0';
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-truncation"
    strncpy(to.sun_path, mapped, sizeof(to.sun_path));
#pragma GCC diagnostic pop
    // Best effort: a busy receiver gets four immediate tries, then the reply
    // is dropped.
    for (int tries = 1;; tries++) {
        if (sendto(s.get(), buf, len, 0, reinterpret_cast<struct sockaddr *>(&to), sizeof(to)) >= 0)
            return;
        int err = errno;
        if (err != EAGAIN || tries == 4) {
            log_fprint(orkad_log, "%s: sendto fail errno %d: %s\n", __func__, err, strerror(err));
            return;
        }
    }
}

struct listener *listener_lookup(const char *socket_name, const char *event)
{
    listener_socket_t *sock = find_socket(choose_name(socket_name));
    if (sock == nullptr)
        return nullptr;
    std::lock_guard<std::mutex> guard(listener_tables_lock);
    return static_cast<struct listener *>(table_lookup(sock->table, event, strlen(event)));
}
