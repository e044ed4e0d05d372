#include "testkit.h"

#include "devroot.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace testkit
{

DeviceRoot::DeviceRoot()
{
    char tmpl[] = "/tmp/orkad-unit-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    root_ = tmpl;
    for (const char *d :
         {"/rw", "/tmp", "/etc", "/etc/config", "/dev", "/bin", "/sbin", "/usr", "/usr/sbin"})
        mkdir((root_ + d).c_str(), 0755);
    setenv("ORKAD_ROOT", root_.c_str(), 1);
    devroot_init();
}

DeviceRoot::~DeviceRoot()
{
    if (getenv("ORKAD_KEEP_ROOT") == nullptr) {
        std::string cmd = "rm -rf '" + root_ + "'";
        if (system(cmd.c_str()) != 0) {
        }
    }
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

bool file_exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

long file_size(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (long)st.st_size : -1;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> out;
    std::stringstream ss(text);
    std::string line;
    while (std::getline(ss, line))
        out.push_back(line);
    return out;
}

std::vector<std::string> log_messages(const std::string &path)
{
    std::vector<std::string> out;
    for (const std::string &line : lines_of(read_file(path))) {
        // "<index> YYYY.MM.DD HH:MM:SS <message>"
        size_t a = line.find(' ');
        size_t b = a == std::string::npos ? a : line.find(' ', a + 1);
        size_t c = b == std::string::npos ? b : line.find(' ', b + 1);
        out.push_back(c == std::string::npos ? line : line.substr(c + 1));
    }
    return out;
}

SyslogSink::SyslogSink(const DeviceRoot &root)
{
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::string path = root.at("/dev/log");
    unlink(path.c_str());
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    if (bind(fd_, (struct sockaddr *)&addr, sizeof(addr)) != 0)
        throw std::runtime_error("cannot bind the syslog socket");
}

SyslogSink::~SyslogSink()
{
    if (fd_ >= 0)
        close(fd_);
}

std::string SyslogSink::next(int timeout_ms)
{
    struct pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0)
        return "";
    char buf[4096];
    ssize_t n = recv(fd_, buf, sizeof(buf), 0);
    return n <= 0 ? "" : std::string(buf, n);
}

std::string SyslogSink::wait_for(const std::string &text, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0)
            return "";
        std::string d = next((int)left);
        if (d.find(text) != std::string::npos)
            return d;
    }
}

} // namespace testkit
