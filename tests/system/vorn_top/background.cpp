#include "background.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace vorn_top {

bool comes_true(const std::function<bool()>& condition, std::chrono::milliseconds pause) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(90);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}

Background::Background(const std::vector<std::string>& command,
                       const std::filesystem::path& directory) {
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
        const auto open = [](const char* name) {
            return ::open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        };
        if (::chdir(directory.c_str()) != 0 ||
            ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO) < 0 ||
            ::dup2(open("out"), STDOUT_FILENO) < 0 || ::dup2(open("err"), STDERR_FILENO) < 0) {
            ::_exit(126);
        }
        ::execvp(arguments[0], arguments.data());
        ::_exit(127);
    }
}

Background::~Background() {
    end_by(SIGKILL);
}

int Background::end_by(int signal) {
    if (pid_ < 0) {
        return -1;
    }
    ::kill(pid_, signal);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace vorn_top
