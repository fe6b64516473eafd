#include "process.h"

#include "tests/support/temp_dir.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace vorn_fanout {

bool comes_true(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(4);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

Process::Process(const std::vector<std::string>& command, const std::filesystem::path& directory,
                 const std::string& name)
    : out_(directory / (name + ".out")), err_(directory / (name + ".err")) {
    std::vector<char*> arguments;
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (pid_ == 0) {
        const auto open = [](const std::filesystem::path& path) {
            return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        };
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::chdir(directory.c_str()) != 0 ||
            ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO) < 0 ||
            ::dup2(open(out_), STDOUT_FILENO) < 0 || ::dup2(open(err_), STDERR_FILENO) < 0) {
            ::_exit(126);
        }
        ::execvp(arguments[0], arguments.data());
        ::_exit(127);
    }
}

Process::~Process() {
    end_by(SIGKILL);
}

void Process::send(int signal) const {
    if (pid_ > 0) {
        ::kill(pid_, signal);
    }
}

bool Process::runs() {
    int status = 0;
    if (pid_ > 0 && ::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return pid_ > 0;
}

int Process::wait() {
    int status = 0;
    while (pid_ > 0 && ::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    if (pid_ > 0) {
        pid_ = -1;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return status_;
}

int Process::end_by(int signal) {
    send(signal);
    return wait();
}

std::string Process::out() const {
    return support::read_file(out_);
}

std::string Process::err() const {
    return support::read_file(err_);
}

std::size_t Process::lines() const {
    const std::string text = out();
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

bool Process::says(const std::string& text) {
    return comes_true([&] { return err().find(text) != std::string::npos || !runs(); }) &&
           err().find(text) != std::string::npos;
}

} // namespace vorn_fanout
