// Command dispatch: controller commands from a heartbeat reply are matched to
// the handlers that modules registered and run one at a time, in arrival
// order, on the "command_runner" thread.
#pragma once

#include "raii.h"
#include "work.h"

#include <cstdarg>
#include <jansson.h>

// The handler owns all three arguments: it frees name and response_link and
// drops its reference to command before it returns, and answers the
// controller itself.
typedef void (*cmd_fn)(char *name, json_t *command, char *response_link);

constexpr int CMD_NAME_SIZE = 40;
// A command's "id" is kept to 41 characters; its answer's message to 511.
constexpr int CMD_ID_SIZE = 42;
constexpr int CMD_MESSAGE_SIZE = 512;

struct cmd_processor {
    char name[CMD_NAME_SIZE];
    cmd_fn fn;
    unsigned int hits;
};

// Bits computed from a command's "flags" text; they do not change how
// commands run.
constexpr int CMD_FLAG_CHAIN = 1;
constexpr int CMD_FLAG_LAST = 2;

void command_init(void);
int command_register(const char *name, cmd_fn fn);
void process_bundle(json_t *list, int count, const char *response_link);
work_t *process_command(json_t *command, int *flags, const char *response_link);
void command_runner(void *p1, void *p2, void *p3);

// What every handler does around its own work: it owns the three arguments
// and releases them when it goes out of scope, reads the command's "id" and
// "params", keeps the message of the answer and sends the answer. `who`
// prefixes the handler's log lines ("who: message").
//
// The reading steps answer a failure themselves: when one returns false (or
// null), the message says what was wrong, it is logged, the controller has
// had its -1, and the handler has nothing left to do but return.
class cmd_envelope
{
  public:
    cmd_envelope(const char *who, char *name, json_t *command, char *resp_href)
        : who_(who), name_(name), command_(command), resp_href_(resp_href)
    {
    }
    cmd_envelope(const cmd_envelope &) = delete;
    cmd_envelope &operator=(const cmd_envelope &) = delete;

    // Reads "id" (kept to 41 characters) and, when need_params, the "params"
    // object.
    bool open(bool need_params = true);
    // Reads params "interval", milliseconds, as whole seconds (truncated)
    // that must lie in [min, max]; otherwise fails with the missing-interval
    // message or with out_of_range.
    bool interval(long long min, long long max, const char *out_of_range, int *seconds);
    // Reads the "href" text of params "serviceLink"; null after failing with
    // the message for whichever of the two is missing.
    const char *service_link();
    // The opening of a command that sets a service's pace and link: open,
    // interval and service_link in that order, into seconds and
    // service_href.
    bool open_service(long long min, long long max, const char *out_of_range);
    // Sets the message, logs it and returns -1, the failure code; the answer
    // is left to the caller.
    int fail(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
    // The opening of a command with one optional text: open, then params
    // `key`, which may be left out (*value is then null); any value but a
    // text fails with refusal.
    bool open_optional_text(const char *key, const char *refusal, const char **value);
    // fail, then answer -1 at once.
    void refuse(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
    // Answers the controller with the code, the message and optional JSON
    // for "data"; returns what send_command_status returned.
    int answer(int code, json_t *data = nullptr);

    json_t *command() const { return command_.get(); }
    const char *response_link() const { return resp_href_.get(); }

    char id[CMD_ID_SIZE] = "";
    json_t *params = nullptr;
    char message[CMD_MESSAGE_SIZE] = "";
    // What open_service read; service_href lives as long as the envelope.
    int seconds = 0;
    const char *service_href = nullptr;

  private:
    void vfail(const char *fmt, va_list ap) __attribute__((format(printf, 2, 0)));

    const char *who_;
    malloc_ptr<char> name_;
    json_ptr command_;
    malloc_ptr<char> resp_href_;
};
