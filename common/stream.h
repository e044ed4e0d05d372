// A telemetry stream the controller turns on with a "set.*" command (status,
// statistics, syslog): its switch, its pace, the link it posts to, and the
// one thread that posts it.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

class stream_record
{
  public:
    // The thread's body: it runs while enabled is set, reads the pace from
    // interval on every pass, and posts to href().
    using body_fn = void (*)(stream_record &stream);

    // thread_name is kept, not copied: callers pass literals.
    stream_record(const char *thread_name, body_fn body) : thread_name_(thread_name), body_(body) {}
    stream_record(const stream_record &) = delete;
    stream_record &operator=(const stream_record &) = delete;

    // Written by the command runner, read by the stream's threads (and the
    // tick handler) on every pass.
    std::atomic<bool> enabled{false};
    std::atomic<int> interval{0}; // seconds
    // The thread's number, -1 while none runs. The body sets it back to -1
    // as its last act, so a later command starts the stream again.
    std::atomic<int> id{-1};

    // Turns the stream on at this pace; the running thread takes it up at
    // its next pass.
    void turn_on(int seconds);
    // Starts the thread unless it runs already; the thread posts to href from
    // then on, and a later start leaves it on the link it has. Returns the
    // thread's number, or the negative result of a start that failed;
    // *running tells whether the thread was running before.
    int start(const char *href, bool *running);
    // turn_on and start, saying so when the thread was running already
    // ("<starter>: <kind> thread N already running, new interval = S,
    // enable = true"). Returns 0, or the negative result of a start that
    // failed.
    int start_at(int seconds, const char *href, const char *starter, const char *kind);
    // The link the thread posts to.
    std::string href() const;
    // Sets the link without starting a thread, for a body run by hand.
    void set_href(const char *href);

  private:
    static void run(void *stream, void *, void *);

    const char *thread_name_;
    body_fn body_;
    // Guards href_, and holds a new thread back until start() has stored its
    // number, so a body that ends at once cannot have its -1 overwritten.
    mutable std::mutex lock_;
    std::string href_;
};
