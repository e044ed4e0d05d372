// Helpers shared by the unit tests.
#pragma once

#include <string>
#include <vector>

namespace testkit
{

// A fresh device root in a temporary folder, with ORKAD_ROOT pointing at it
// for as long as the object lives.
class DeviceRoot
{
  public:
    DeviceRoot();
    ~DeviceRoot();
    const std::string &path() const { return root_; }
    std::string at(const std::string &device_path) const { return root_ + device_path; }

  private:
    std::string root_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);
bool file_exists(const std::string &path);
long file_size(const std::string &path);
std::vector<std::string> lines_of(const std::string &text);
// Lines of a log file with their "index date time " prefix taken off.
std::vector<std::string> log_messages(const std::string &path);

// Listens on $ORKAD_ROOT/dev/log the way the system logger would.
class SyslogSink
{
  public:
    explicit SyslogSink(const DeviceRoot &root);
    ~SyslogSink();
    // The next datagram, or "" when none comes within the timeout.
    std::string next(int timeout_ms = 2000);
    // Waits for a datagram containing text; returns it or "".
    std::string wait_for(const std::string &text, int timeout_ms = 5000);

  private:
    int fd_ = -1;
};

} // namespace testkit
