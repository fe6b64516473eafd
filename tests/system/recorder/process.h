#pragma once

// A program run as a process of its own, with its standard output and error on pipes. Output is
// read only inside the calls that say so: a test that wants the program blocked on a full pipe
// simply does not read.

#include <filesystem>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace recorder {

struct Launch {
    std::vector<std::string> command; // program and arguments
    std::filesystem::path directory;
    std::vector<std::string> environment; // NAME=value, in addition
    // Smallest pipe there is (a page) for standard output: the program cannot be further ahead of
    // what was read of it than that.
    bool small_pipe = false;
    // In the child, just before the program takes over, in its directory.
    std::function<void()> before_exec;
};

struct Ended {
    int exit_status = -1; // -1: killed by a signal
    int signal = 0;
    std::string out;
    std::string err;
};

class Process {
public:
    explicit Process(const Launch& launch);
    ~Process(); // kills what still runs
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const;

    // Reads output until standard output holds `text`, and little more. False, and the test has
    // failed, when the program ended without it or far too much time has passed.
    bool read_until(const std::string& text);
    // Reads output until the condition, looked at again and again, holds. False as above.
    bool read_until(const std::function<bool()>& condition);
    // The same without reading.
    bool wait_until(const std::function<bool()>& condition);
    // Reads the rest and waits for the end. A program that does not end is killed.
    Ended finish();

    // Delivered signals are no longer pending.
    bool is_pending(int number) const;
    // The main thread sleeps (in a blocking call).
    bool is_asleep() const;

    // Standard error is left unread, or read again.
    void read_errors(bool on) { read_errors_ = on; }

    // No file may grow beyond this; what would is refused like on a full disk. The program must
    // ignore SIGXFSZ.
    void limit_file_size(std::size_t bytes) const;
    void lift_file_size_limit() const;

    const std::string& out() const { return out_; }
    const std::string& err() const { return err_; }

private:
    bool take_output(int wait_ms, std::size_t at_most);
    bool reap(bool wait);
    bool await(const std::function<bool()>& condition, bool read);

    pid_t pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
    bool ended_ = false;
    bool read_errors_ = true;
    int status_ = 0;
    std::string out_;
    std::string err_;
};

// For before_exec: fills a pipe, so that the program blocks at its first write to it. The filler is
// read before the program's own output.
inline constexpr std::size_t kFillerSize = 4096;
void fill_pipe(int fd);

// Keeps every processor busy (or one of them) as long as it lives.
class Load {
public:
    explicit Load(int processes, int cpu = -1);
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

private:
    std::vector<pid_t> pids_;
};

} // namespace recorder
