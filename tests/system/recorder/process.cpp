#include "process.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace recorder {

namespace {

using Clock = std::chrono::steady_clock;

// Not a bound on speed: reached only by a program that hangs.
constexpr auto kFarTooLong = std::chrono::seconds(240);
constexpr int kLookAgainMs = 2;
constexpr std::size_t kPage = 4096; // the smallest pipe
static_assert(kFillerSize == kPage);

struct Pipe {
    int read = -1;
    int write = -1;
};

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

Pipe make_pipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        fail("pipe");
    }
    return {fds[0], fds[1]};
}

[[noreturn]] void become(const Launch& launch, const Pipe& out, const Pipe& err) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out.write, STDOUT_FILENO);
    dup2(err.write, STDERR_FILENO);
    for (const std::string& variable : launch.environment) {
        const auto equals = variable.find('=');
        setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
    }
    if (chdir(launch.directory.c_str()) == 0) {
        if (launch.before_exec) {
            launch.before_exec();
        }
        std::vector<char*> arguments;
        for (const std::string& argument : launch.command) {
            arguments.push_back(const_cast<char*>(argument.c_str()));
        }
        arguments.push_back(nullptr);
        execv(arguments[0], arguments.data());
    }
    _exit(127);
}

// The value behind "key:" in a /proc status file.
std::string proc_status(pid_t pid, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ":")) {
            return line.substr(line.find_first_not_of(" \t", key.size() + 1));
        }
    }
    return {};
}

} // namespace

Process::Process(const Launch& launch) {
    const Pipe out = make_pipe();
    const Pipe err = make_pipe();
    if (launch.small_pipe && fcntl(out.write, F_SETPIPE_SZ, kPage) < 0) {
        fail("F_SETPIPE_SZ");
    }
    pid_ = fork();
    if (pid_ < 0) {
        fail("fork");
    }
    if (pid_ == 0) {
        become(launch, out, err);
    }
    close(out.write);
    close(err.write);
    out_fd_ = out.read;
    err_fd_ = err.read;
    fcntl(out_fd_, F_SETFL, O_NONBLOCK);
    fcntl(err_fd_, F_SETFL, O_NONBLOCK);
}

Process::~Process() {
    if (!ended_) {
        kill(pid_, SIGKILL);
        reap(true);
    }
    close(out_fd_);
    close(err_fd_);
}

void Process::signal(int number) const {
    if (!ended_) {
        kill(pid_, number);
    }
}

bool Process::reap(bool wait) {
    while (!ended_) {
        const pid_t got = waitpid(pid_, &status_, wait ? 0 : WNOHANG);
        ended_ = got == pid_ || (got < 0 && errno != EINTR);
        if (got == 0) {
            break;
        }
    }
    return ended_;
}

// Appends what can be read within the time; false once both pipes are at their end.
bool Process::take_output(int wait_ms, std::size_t at_most) {
    std::array<pollfd, 2> fds{pollfd{out_fd_, POLLIN, 0}, pollfd{err_fd_, POLLIN, 0}};
    const nfds_t count = read_errors_ ? 2 : 1;
    poll(fds.data(), count, wait_ms);
    bool open = false;
    std::array<char, kPage> buffer;
    for (std::size_t i = 0; i < count; ++i) {
        const ssize_t got = ::read(fds[i].fd, buffer.data(), std::min(at_most, buffer.size()));
        if (got > 0) {
            (i == 0 ? out_ : err_).append(buffer.data(), static_cast<std::size_t>(got));
        }
        open = open || got != 0;
    }
    return open;
}

bool Process::await(const std::function<bool()>& condition, bool read) {
    const auto limit = Clock::now() + kFarTooLong;
    for (;;) {
        // Asked before the condition: what it did before its end counts.
        const bool ended = reap(false);
        if (condition()) {
            return true;
        }
        bool more = !ended;
        if (read) {
            more = take_output(kLookAgainMs, kPage) && more;
        } else {
            poll(nullptr, 0, kLookAgainMs);
        }
        if (!more || Clock::now() > limit) {
            ADD_FAILURE() << (ended ? "ended too early" : "hangs") << "; standard output: " << out_
                          << "\nstandard error: " << err_;
            return false;
        }
    }
}

bool Process::read_until(const std::string& text) {
    const auto limit = Clock::now() + kFarTooLong;
    std::size_t from = 0;
    for (;;) {
        const auto at = out_.find(text, from);
        if (at != std::string::npos) {
            return true;
        }
        from = out_.size() < text.size() ? 0 : out_.size() - text.size();
        if (!take_output(kLookAgainMs, 256) || Clock::now() > limit) {
            ADD_FAILURE() << "no \"" << text << "\" in standard output: " << out_
                          << "\nstandard error: " << err_;
            return false;
        }
    }
}

bool Process::read_until(const std::function<bool()>& condition) {
    return await(condition, true);
}

bool Process::wait_until(const std::function<bool()>& condition) {
    return await(condition, false);
}

Ended Process::finish() {
    const auto limit = Clock::now() + kFarTooLong;
    while (take_output(kLookAgainMs, kPage)) {
        if (Clock::now() > limit) {
            ADD_FAILURE() << "does not end; standard output: " << out_
                          << "\nstandard error: " << err_;
            kill(pid_, SIGKILL);
            break;
        }
    }
    reap(true);
    Ended end{.out = out_, .err = err_};
    if (WIFEXITED(status_)) {
        end.exit_status = WEXITSTATUS(status_);
    } else {
        end.signal = WTERMSIG(status_);
    }
    return end;
}

bool Process::is_pending(int number) const {
    const uint64_t bit = uint64_t{1} << (number - 1);
    const auto has = [&](const char* key) {
        return (std::strtoull(proc_status(pid_, key).c_str(), nullptr, 16) & bit) != 0;
    };
    return has("SigPnd") || has("ShdPnd");
}

bool Process::is_asleep() const {
    return proc_status(pid_, "State").starts_with("S");
}

void Process::limit_file_size(std::size_t bytes) const {
    rlimit limit{};
    prlimit(pid_, RLIMIT_FSIZE, nullptr, &limit);
    limit.rlim_cur = bytes;
    if (prlimit(pid_, RLIMIT_FSIZE, &limit, nullptr) != 0) {
        fail("prlimit");
    }
}

void Process::lift_file_size_limit() const {
    rlimit limit{};
    prlimit(pid_, RLIMIT_FSIZE, nullptr, &limit);
    limit_file_size(limit.rlim_max);
}

void fill_pipe(int fd) {
    std::array<char, kFillerSize> filler;
    filler.fill('.');
    fcntl(fd, F_SETPIPE_SZ, filler.size());
    if (write(fd, filler.data(), filler.size()) != static_cast<ssize_t>(filler.size())) {
        _exit(126);
    }
}

Load::Load(int processes, int cpu) {
    for (int i = 0; i < processes; ++i) {
        const pid_t pid = fork();
        if (pid < 0) {
            fail("fork");
        }
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (cpu >= 0) {
                cpu_set_t set;
                CPU_ZERO(&set);
                CPU_SET(cpu, &set);
                sched_setaffinity(0, sizeof(set), &set);
            }
            for (;;) {
                asm volatile("");
            }
        }
        pids_.push_back(pid);
    }
}

Load::~Load() {
    for (const pid_t pid : pids_) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

} // namespace recorder
