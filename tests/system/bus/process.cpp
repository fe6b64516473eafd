#include "process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <spawn.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace bus_test {

namespace {

std::string content(int file) {
    std::string text;
    char part[4096];
    ssize_t got = 0;
    while ((got = ::pread(file, part, sizeof(part), static_cast<off_t>(text.size()))) > 0) {
        text.append(part, static_cast<std::size_t>(got));
    }
    return text;
}

} // namespace

Process::Process(const std::vector<std::string>& command) {
    out_ = ::memfd_create("out", MFD_CLOEXEC);
    err_ = ::memfd_create("err", MFD_CLOEXEC);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out_, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err_, STDERR_FILENO);
    std::vector<char*> arguments;
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const int error =
        ::posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        ADD_FAILURE() << "cannot run " << command[0] << ": " << error;
        over_ = true;
    }
}

Process::~Process() {
    if (!over_) {
        send(SIGKILL);
        wait();
    }
    ::close(out_);
    ::close(err_);
}

void Process::send(int signal) const {
    ::kill(pid_, signal);
}

std::string Process::out() const {
    return content(out_);
}

const Ended& Process::wait() {
    int status = 0;
    if (!over_ && ::waitpid(pid_, &status, 0) == pid_) {
        over_ = true;
        ended_ = {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                  WIFSIGNALED(status) ? WTERMSIG(status) : 0, content(out_), content(err_)};
    }
    return ended_;
}

bool becomes_true(const std::function<bool()>& condition) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

uint64_t value_of(const std::string& line, const std::string& name) {
    std::istringstream words(line);
    std::string word;
    uint64_t value = 0;
    while (words >> word >> value) {
        if (word == name) {
            return value;
        }
    }
    ADD_FAILURE() << "no " << name << " in: " << line;
    return 0;
}

} // namespace bus_test
