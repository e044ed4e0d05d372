#include "command.h"

#include "http.h"
#include "log.h"
#include "queue.h"
#include "table.h"
#include "utils.h"
#include "watchdog.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

table_t *cmd_processor_table;
queue_t *cmd_work_queue;

const char *json_string_member(json_t *obj, const char *key)
{
    json_t *v = json_object_get(obj, key);
    return json_is_string(v) ? json_string_value(v) : nullptr;
}

// The body of a command's work record: p1 is the command name, p2 the copy
// of the command and p3 the response link, all three handed on to the
// handler registered under that name.
void run_command(void *name, void *command, void *response_link)
{
    char *text = static_cast<char *>(name);
    auto *cp =
        static_cast<struct cmd_processor *>(table_lookup(cmd_processor_table, text, strlen(text)));
    cp->fn(text, static_cast<json_t *>(command), static_cast<char *>(response_link));
}

} // namespace

void command_init(void)
{
    cmd_processor_table = table_create("cmd_processor_table", 32);
    if (cmd_processor_table == nullptr)
        log_fprint(orkad_log, "%s: cannot create command table\n", __func__);
    cmd_work_queue = queue_create("cmd_work_queue");
    if (cmd_work_queue == nullptr)
        log_fprint(orkad_log, "%s: cannot create command queue\n", __func__);
    thread_start("command_runner", command_runner, nullptr, nullptr, nullptr);
}

int command_register(const char *name, cmd_fn fn)
{
    size_t len = strlen(name);
    if (table_lookup(cmd_processor_table, name, len) != nullptr)
        return -1;
    malloc_ptr<struct cmd_processor> cp(
        static_cast<struct cmd_processor *>(calloc(1, sizeof(struct cmd_processor))));
    if (!cp) {
        log_fprint(orkad_log, "%s: out of memory\n", __func__);
        return -1;
    }
    // Bounded copy: every command name in use is far shorter than 40.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-truncation"
    strncpy(cp->name, name, sizeof(cp->name));
#pragma GCC diagnostic pop
    cp->fn = fn;
    cp->hits = 0;
    if (table_insert(cmd_processor_table, cp.get(), name, len) != 0)
        return -1;
    // The table keeps it for the life of the process.
    cp.release();
    log_fprint(orkad_log, "registered '%s' command handler\n", name);
    return 0;
}

void process_bundle(json_t *list, int count, const char *response_link)
{
    for (int i = 0; i < count; i++) {
        json_t *command = json_array_get(list, i);
        if (command == nullptr || !json_is_object(command)) {
            log_fprint(orkad_log, "Missing or invalid 'command' in bundle\n");
            continue;
        }
        int flags;
        work_t *w = process_command(command, &flags, response_link);
        if (w != nullptr)
            queue_add_tail(cmd_work_queue, &w->link);
    }
}

work_t *process_command(json_t *command, int *flags, const char *response_link)
{
    const char *action = json_string_member(command, "action");
    if (action == nullptr) {
        log_fprint(orkad_log, "Missing or invalid 'action' element.\n");
        return nullptr;
    }
    const char *context = json_string_member(command, "context");
    if (context == nullptr) {
        log_fprint(orkad_log, "Missing or invalid 'context' element.\n");
        return nullptr;
    }
    const char *flag_text = json_string_member(command, "flags");
    if (flag_text == nullptr) {
        log_fprint(orkad_log, "Missing or invalid 'flags' element.\n");
        return nullptr;
    }
    // Parsed for the record only: every command is queued and run on its
    // own, in list order, whatever its flags say.
    *flags = 0;
    if (strstr(flag_text, "chain") != nullptr)
        *flags |= CMD_FLAG_CHAIN;
    if (strstr(flag_text, "last") != nullptr)
        *flags |= CMD_FLAG_LAST;

    size_t size = strlen(action) + strlen(context) + 2;
    malloc_ptr<char> name(static_cast<char *>(malloc(size)));
    if (!name) {
        log_fprint(orkad_log, "could not allocate 'command' buffer\n");
        return nullptr;
    }
    snprintf(name.get(), size, "%s.%s", action, context);

    if (table_lookup(cmd_processor_table, name.get(), size - 1) == nullptr) {
        // The controller gets no answer for a command we do not know.
        log_fprint(orkad_log, "Unknown command '%s'\n", name.get());
        return nullptr;
    }

    json_ptr copy(json_deep_copy(command));
    if (!copy) {
        log_fprint(orkad_log, "out of memory on 'command_copy'\n");
        return nullptr;
    }

    // The heartbeat thread must never wait here: with the pool empty the
    // command is dropped.
    work_t *w = work_try_alloc();
    if (w == nullptr) {
        log_fprint(orkad_log, "Cannot process command; out of free work items\n");
        return nullptr;
    }
    // From here on the handler owns them.
    w->fn = run_command;
    w->p1 = name.release();
    w->p2 = copy.release();
    w->p3 = strdup_with_error(response_link, "process_command: %s\n", nullptr);
    return w;
}

void command_runner(void *, void *, void *)
{
    for (;;) {
        link_t *l = queue_get(cmd_work_queue);
        if (l == nullptr)
            continue;
        work_t *w = reinterpret_cast<work_t *>(l);
        // A command may run long, but not for ever: the supervisor watches.
        watchdog_command_started();
        for (work_t *p = w; p != nullptr; p = p->next)
            p->fn(p->p1, p->p2, p->p3);
        watchdog_command_finished();
        work_free(w);
    }
}

bool cmd_envelope::open(bool need_params)
{
    json_t *jid = json_object_get(command_.get(), "id");
    if (!json_is_string(jid)) {
        refuse("missing or invalid 'id' element in command");
        return false;
    }
    snprintf(id, sizeof(id), "%s", json_string_value(jid));
    if (!need_params)
        return true;
    params = json_object_get(command_.get(), "params");
    if (!json_is_object(params)) {
        params = nullptr;
        refuse("missing or invalid 'params' element");
        return false;
    }
    return true;
}

bool cmd_envelope::interval(long long min, long long max, const char *out_of_range, int *seconds)
{
    json_t *v = json_object_get(params, "interval");
    if (!json_is_integer(v)) {
        refuse("missing or invalid 'interval' element in params");
        return false;
    }
    long long s = json_integer_value(v) / 1000;
    if (s < min || s > max) {
        refuse("%s", out_of_range);
        return false;
    }
    *seconds = (int)s;
    return true;
}

const char *cmd_envelope::service_link()
{
    json_t *link = json_object_get(params, "serviceLink");
    if (!json_is_object(link)) {
        refuse("missing or invalid 'serviceLink' element in params");
        return nullptr;
    }
    json_t *href = json_object_get(link, "href");
    if (!json_is_string(href)) {
        refuse("missing or invalid 'href' element in params");
        return nullptr;
    }
    return json_string_value(href);
}

bool cmd_envelope::open_service(long long min, long long max, const char *out_of_range)
{
    if (!open() || !interval(min, max, out_of_range, &seconds))
        return false;
    service_href = service_link();
    return service_href != nullptr;
}

bool cmd_envelope::open_optional_text(const char *key, const char *refusal, const char **value)
{
    if (!open())
        return false;
    json_t *v = json_object_get(params, key);
    if (v != nullptr && !json_is_string(v)) {
        refuse("%s", refusal);
        return false;
    }
    *value = json_string_value(v);
    return true;
}

void cmd_envelope::vfail(const char *fmt, va_list ap)
{
    vsnprintf(message, sizeof(message), fmt, ap);
    log_fprint(orkad_log, "%s: %s\n", who_, message);
}

int cmd_envelope::fail(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfail(fmt, ap);
    va_end(ap);
    return -1;
}

void cmd_envelope::refuse(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfail(fmt, ap);
    va_end(ap);
    answer(-1);
}

int cmd_envelope::answer(int code, json_t *data)
{
    return send_command_status(resp_href_.get(), id, code, message, data);
}
