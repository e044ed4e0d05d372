#include "testkit.h"

#include "devroot.h"
#include "log.h"
#include "signals.h"
#include "work.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <chrono>
#include <csignal>
#include <curl/curl.h>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <malloc.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer runtimes' own count (g++ ships no header for it).
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

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

bool DeviceRoot::build(const std::vector<std::string> &args) const
{
    std::string cmd = "python3 " ORKAD_SOURCE_DIR "/lab/devroot.py '" + root_ + "'";
    for (const std::string &a : args)
        cmd += " '" + a + "'";
    cmd += " > /dev/null";
    return system(cmd.c_str()) == 0;
}

size_t heap_in_use()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
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
    // A device root links some tools to the host's own (openvpn, gzip):
    // a test that writes its stand-in there replaces the link, never the
    // host's program behind it.
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode))
        unlink(path.c_str());
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

time_t fake_now;

time_t fake_time(time_t *now)
{
    if (now != nullptr)
        *now = fake_now;
    return fake_now;
}

bool wait_for(const std::function<bool()> &fn, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!fn()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool thread_asleep(pid_t tid)
{
    // The state is the first field after the command name's closing bracket.
    std::string stat = read_file("/proc/self/task/" + std::to_string(tid) + "/stat");
    size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'S';
}

void thread_init_once()
{
    static bool started = false;
    if (!started) {
        started = true;
        thread_init();
        return;
    }
    signals_register(SIGUSR1, worker_debug, "worker_debug");
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

std::vector<std::string> journal_lines(const DeviceRoot &root)
{
    return lines_of(read_file(root.at("/var/switch/journal")));
}

std::vector<std::string> journal_calls(const DeviceRoot &root)
{
    std::vector<std::string> calls;
    for (const std::string &line : journal_lines(root)) {
        json_ptr j(json_loads(line.c_str(), 0, nullptr));
        const char *call = json_string_value(json_object_get(j.get(), "call"));
        calls.push_back(j && call != nullptr ? call : "<bad line>");
    }
    return calls;
}

std::vector<std::string> journal_lines_of(const DeviceRoot &root, const std::string &call)
{
    std::vector<std::string> out;
    std::vector<std::string> lines = journal_lines(root);
    std::vector<std::string> calls = journal_calls(root);
    for (size_t i = 0; i < lines.size() && i < calls.size(); i++)
        if (calls[i] == call)
            out.push_back(lines[i]);
    return out;
}

std::string journal_value(const DeviceRoot &root, size_t i, const char *member)
{
    std::vector<std::string> lines = journal_lines(root);
    if (i >= lines.size())
        return "<no line>";
    json_ptr j(json_loads(lines[i].c_str(), 0, nullptr));
    json_t *v = json_object_get(j.get(), member);
    return json_is_string(v)    ? json_string_value(v)
           : json_is_integer(v) ? std::to_string(json_integer_value(v))
                                : "<absent>";
}

bool logged(const DeviceRoot &root, const std::string &line)
{
    std::vector<std::string> m = log_messages(root.at("/rw/orkad.log"));
    return std::find(m.begin(), m.end(), line) != m.end();
}

NotifySocket::NotifySocket(const std::string &address)
{
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un sa = {};
    sa.sun_family = AF_UNIX;
    if (address.empty() || address.size() >= sizeof(sa.sun_path))
        return;
    memcpy(sa.sun_path, address.data(), address.size());
    socklen_t len = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + address.size());
    if (address[0] == '@')
        sa.sun_path[0] = '\0';
    else
        unlink(address.c_str());
    bound_ = bind(fd_, (struct sockaddr *)&sa, len) == 0;
}

NotifySocket::~NotifySocket()
{
    if (fd_ >= 0)
        close(fd_);
}

std::string NotifySocket::next(int timeout_ms)
{
    struct pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1)
        return "";
    char buf[256];
    ssize_t n = recv(fd_, buf, sizeof(buf), 0);
    return n > 0 ? std::string(buf, (size_t)n) : "";
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

// ---- the lab controller -------------------------------------------------

namespace testkit
{

Json json_parse(const std::string &text)
{
    json_error_t err;
    json_t *j = json_loadb(text.data(), text.size(), JSON_DECODE_ANY, &err);
    if (j == nullptr)
        throw std::runtime_error("not JSON (" + std::string(err.text) + "): " + text);
    return Json(j);
}

std::string json_text(const json_t *value)
{
    if (value == nullptr)
        return "";
    char *s = json_dumps(value, JSON_COMPACT | JSON_ENCODE_ANY);
    std::string out = s != nullptr ? s : "";
    free(s);
    return out;
}

std::string json_str(const json_t *object, const char *key)
{
    const char *s = json_string_value(json_object_get(object, key));
    return s != nullptr ? s : "";
}

namespace
{

size_t append_to_string(void *ptr, size_t size, size_t nmemb, void *userp)
{
    static_cast<std::string *>(userp)->append(static_cast<char *>(ptr), size * nmemb);
    return size * nmemb;
}

} // namespace

Lab::Lab(const DeviceRoot &root, const std::vector<std::string> &extra_args, int ready_timeout_ms)
{
    char tmpl[] = "/tmp/orkad-unit-lab-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    state_dir = tmpl;
    std::string ready = state_dir + "/controller.json";
    // The lab is a package: it runs as a module from the top of the tree.
    std::vector<std::string> args = {
        "python3",   "-m",          "lab.controller", "--listen",         "127.0.0.1",  "--root",
        root.path(), "--state-dir", state_dir,        "--control-listen", "127.0.0.1:0"};
    args.insert(args.end(), extra_args.begin(), extra_args.end());
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    std::string out = state_dir + "/controller.out";
    int out_fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (out_fd < 0 || null_fd < 0)
        throw std::runtime_error("cannot open the lab controller's output file");
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        // The agent blocks the signals it waits for; the controller must
        // still hear SIGTERM, whatever the test had set up before. And it
        // goes when the test process goes, even by a crash.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int sig = 1; sig < NSIG; sig++)
            if (sig != SIGKILL && sig != SIGSTOP)
                signal(sig, SIG_DFL);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
        dup2(null_fd, 0);
        dup2(out_fd, 1);
        dup2(out_fd, 2);
        if (chdir(ORKAD_SOURCE_DIR) != 0)
            _exit(127);
        execvp("python3", argv.data());
        _exit(127);
    }
    int fork_errno = errno;
    close(out_fd);
    close(null_fd);
    if (pid_ < 0)
        throw std::runtime_error("cannot start the lab controller: " +
                                 std::string(strerror(fork_errno)));

    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ready_timeout_ms);
    for (;;) {
        if (file_exists(ready)) {
            try {
                Json info = json_parse(read_file(ready));
                base_url = json_str(info.get(), "base_url");
                control_url = json_str(info.get(), "control_url");
                if (!base_url.empty() && !control_url.empty())
                    break;
            } catch (const std::runtime_error &) {
                // Renamed into place, so this is not expected; try again.
            }
        }
        int status;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("the lab controller ended at start-up: " + output());
        }
        if (std::chrono::steady_clock::now() > deadline) {
            stop();
            throw std::runtime_error("the lab controller did not get ready: " + output());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

Lab::~Lab()
{
    stop();
    if (getenv("ORKAD_KEEP_ROOT") == nullptr && !state_dir.empty()) {
        std::string cmd = "rm -rf '" + state_dir + "'";
        if (system(cmd.c_str()) != 0) {
        }
    }
}

void Lab::stop()
{
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    int status;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    pid_ = -1;
}

std::string Lab::output() const
{
    return read_file(state_dir + "/controller.out");
}

Json Lab::call(const std::string &method, const std::string &path, const std::string &body,
               const Query &query, long timeout_s)
{
    CURL *c = curl_easy_init();
    if (c == nullptr)
        throw std::runtime_error("curl_easy_init failed");
    std::string url = control_url + path;
    char sep = '?';
    for (const auto &[name, value] : query) {
        char *v = curl_easy_escape(c, value.c_str(), (int)value.size());
        url += sep + name + "=" + v;
        curl_free(v);
        sep = '&';
    }
    std::string answer;
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(c, CURLOPT_TIMEOUT, timeout_s);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, append_to_string);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &answer);
    curl_slist *headers = nullptr;
    if (!body.empty()) {
        headers = curl_slist_append(headers, "Content-Type: application/json");
        curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, (long)body.size());
    }
    CURLcode rc = curl_easy_perform(c);
    long code = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &code);
    curl_slist_free_all(headers);
    curl_easy_cleanup(c);
    if (rc != CURLE_OK)
        throw std::runtime_error("control call " + method + " " + url +
                                 " failed: " + curl_easy_strerror(rc));
    if (code < 200 || code > 299)
        throw std::runtime_error("control call " + method + " " + url + " answered " +
                                 std::to_string(code) + ": " + answer);
    return json_parse(answer);
}

std::string Lab::queue_command(const std::string &command)
{
    Json r = call("POST", "/commands", "{\"command\":" + command + "}");
    return json_string_value(json_array_get(json_object_get(r.get(), "ids"), 0)) ?: "";
}

void Lab::script(const std::string &script_json)
{
    call("POST", "/scripts", script_json);
}

void Lab::set_token(const std::string &settings)
{
    call("POST", "/token", settings);
}

void Lab::config(const std::string &settings)
{
    call("POST", "/config", settings);
}

void Lab::add_link(const std::string &path, const std::string &kind)
{
    call("POST", "/links", "{\"path\":\"" + path + "\",\"kind\":\"" + kind + "\"}");
}

void Lab::set_firmware(const std::string &settings)
{
    call("POST", "/firmware", settings);
}

namespace
{

Json member(Json doc, const char *key)
{
    json_t *v = json_object_get(doc.get(), key);
    return Json(json_incref(v));
}

} // namespace

Json Lab::requests(const Query &filters)
{
    return member(call("GET", "/requests", "", filters), "requests");
}

Json Lab::wait_requests(const Query &filters, int count, double timeout_s)
{
    Query q = filters;
    q.emplace_back("wait", std::to_string(timeout_s));
    q.emplace_back("count", std::to_string(count));
    q.emplace_back("answered", "1");
    return member(call("GET", "/requests", "", q, (long)timeout_s + 10), "requests");
}

Json Lab::results(const Query &filters)
{
    return member(call("GET", "/results", "", filters), "results");
}

Json Lab::wait_results(const Query &filters, int count, double timeout_s)
{
    Query q = filters;
    q.emplace_back("wait", std::to_string(timeout_s));
    q.emplace_back("count", std::to_string(count));
    return member(call("GET", "/results", "", q, (long)timeout_s + 10), "results");
}

Json Lab::tokens()
{
    return member(call("GET", "/token"), "tokens");
}

} // namespace testkit

// ---- the in-process controller ------------------------------------------

namespace testkit
{

namespace
{

// The controller answering now, if any; serving_lock keeps it from going
// while it answers.
std::mutex serving_lock;
CannedController *serving;

} // namespace

CannedController::CannedController()
{
    std::lock_guard<std::mutex> hold(serving_lock);
    serving = this;
    // Set once and left set: the agent's threads read the seam without a
    // lock and may still be posting when the test that made the controller
    // ends. Once it is gone they get failed transfers.
    if (http_exchange != exchange)
        http_exchange = exchange;
}

CannedController::~CannedController()
{
    std::lock_guard<std::mutex> hold(serving_lock);
    serving = nullptr;
}

int CannedController::exchange(const char *url, const char *data, int length, reply *r)
{
    std::lock_guard<std::mutex> hold(serving_lock);
    if (serving == nullptr)
        return 2; // what a transfer that failed gives
    return serving->serve(url, data, length, r);
}

int CannedController::serve(const char *url, const char *data, int length, reply *r)
{
    std::string u = url;
    std::string api = std::string(base_url) + "/api";
    std::string path = u.compare(0, api.size(), api) == 0 ? u.substr(api.size()) : u;
    path = path.substr(0, path.find('?'));
    long status = 200;
    std::string body = "{}";
    {
        std::lock_guard<std::mutex> hold(lock_);
        struct timespec now {
        };
        clock_gettime(CLOCK_REALTIME, &now);
        auto it = std::find_if(queue_.begin(), queue_.end(),
                               [&](const Canned &c) { return c.path == path; });
        if (it != queue_.end()) {
            status = it->status;
            body = it->body;
            queue_.erase(it);
        } else if (path == "/oauth/token") {
            body = R"({"access_token":"canned-token-)" + std::to_string(requests_.size() + 1) +
                   R"(","token_type":"bearer","expires_in":3600})";
        }
        requests_.push_back({u, path, data != nullptr ? std::string(data, (size_t)length) : "",
                             (double)now.tv_sec + (double)now.tv_nsec / 1e9, status});
    }
    if (status == 0)
        return 2;
    ReceiveFn(body.data(), 1, body.size(), r);
    return status >= 200 && status <= 299 ? 0 : (int)status;
}

void CannedController::answer(const std::string &path, long status, const std::string &body,
                              int times)
{
    std::lock_guard<std::mutex> hold(lock_);
    for (int i = 0; i < times; i++)
        queue_.push_back({path, status, body});
}

std::vector<CannedController::Request> CannedController::requests(const std::string &prefix) const
{
    std::lock_guard<std::mutex> hold(lock_);
    std::vector<Request> out;
    for (const Request &q : requests_)
        if (q.path.compare(0, prefix.size(), prefix) == 0)
            out.push_back(q);
    return out;
}

std::vector<CannedController::Request>
CannedController::wait_requests(const std::string &prefix, size_t count, int timeout_ms) const
{
    std::vector<Request> out;
    testkit::wait_for(
        [&] {
            out = requests(prefix);
            return out.size() >= count;
        },
        timeout_ms);
    return out;
}

std::vector<CannedController::Answer> CannedController::answers() const
{
    return answers(nullptr);
}

std::vector<CannedController::Answer> CannedController::answers(const std::string &id) const
{
    return answers(&id);
}

std::vector<CannedController::Answer> CannedController::wait_answers(size_t count,
                                                                     int timeout_ms) const
{
    return wait_answers(nullptr, count, timeout_ms);
}

std::vector<CannedController::Answer>
CannedController::wait_answers(const std::string &id, size_t count, int timeout_ms) const
{
    return wait_answers(&id, count, timeout_ms);
}

std::vector<CannedController::Answer> CannedController::answers(const std::string *id) const
{
    std::vector<Answer> out;
    for (const Request &q : requests()) {
        if (q.status < 200 || q.status > 299)
            continue;
        json_ptr doc(json_loadb(q.body.data(), q.body.size(), 0, nullptr));
        json_t *list = json_object_get(doc.get(), "response");
        for (size_t i = 0; i < json_array_size(list); i++) {
            json_t *item = json_array_get(list, i);
            Answer a;
            a.path = q.path;
            a.id = json_str(item, "commandId");
            a.code = (int)json_integer_value(json_object_get(item, "code"));
            a.message = json_str(item, "message");
            a.data = json_text(json_object_get(item, "data"));
            a.time = q.time;
            if (id == nullptr || a.id == *id)
                out.push_back(a);
        }
    }
    return out;
}

std::vector<CannedController::Answer>
CannedController::wait_answers(const std::string *id, size_t count, int timeout_ms) const
{
    std::vector<Answer> out;
    testkit::wait_for(
        [&] {
            out = answers(id);
            return out.size() >= count;
        },
        timeout_ms);
    return out;
}

void LoggedTest::SetUp()
{
    log_init();
}

std::string LoggedTest::log_text() const
{
    return read_file(root.at("/rw/orkad.log"));
}

std::vector<std::string> LoggedTest::messages() const
{
    return log_messages(root.at("/rw/orkad.log"));
}

int LoggedTest::count(const std::string &line) const
{
    int n = 0;
    for (const std::string &m : messages())
        n += m == line;
    return n;
}

bool LoggedTest::wait_logged(const std::string &line) const
{
    return wait_for([&] { return logged(line); });
}

void DeviceTest::SetUp()
{
    ASSERT_TRUE(root.build());
    LoggedTest::SetUp();
}

void SignalTest::SetUp()
{
    LoggedTest::SetUp();
    signals_init();
}

} // namespace testkit
