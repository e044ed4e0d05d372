#include "stream.h"

#include "log.h"
#include "work.h"

void stream_record::turn_on(int seconds)
{
    interval = seconds;
    enabled = true;
}

int stream_record::start(const char *href, bool *running)
{
    std::lock_guard<std::mutex> hold(lock_);
    int now = id;
    *running = now >= 0;
    if (*running)
        return now;
    href_ = href;
    int started = thread_start(thread_name_, run, this, nullptr, nullptr);
    if (started >= 0)
        id = started;
    return started;
}

int stream_record::start_at(int seconds, const char *href, const char *starter, const char *kind)
{
    turn_on(seconds);
    bool running;
    int now = start(href, &running);
    if (running)
        log_fprint(orkad_log, "%s: %s thread %d already running, new interval = %d, enable = %s\n",
                   starter, kind, now, interval.load(), enabled ? "true" : "false");
    return now < 0 ? now : 0;
}

std::string stream_record::href() const
{
    std::lock_guard<std::mutex> hold(lock_);
    return href_;
}

void stream_record::set_href(const char *href)
{
    std::lock_guard<std::mutex> hold(lock_);
    href_ = href;
}

void stream_record::run(void *p, void *, void *)
{
    auto *stream = static_cast<stream_record *>(p);
    // Waits for start() to have stored our number.
    {
        std::lock_guard<std::mutex> hold(stream->lock_);
    }
    stream->body_(*stream);
}
