#include "child_process.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <sys/mman.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

// Of the coverage runtime, where a build has it: a child that ends without its exit handlers would
// leave its counts behind.
extern "C" int __llvm_profile_write_file(void) __attribute__((weak));

namespace support {
namespace {

constexpr int kCannotStart = 99;

int open_sink(const char* name) {
    const int fd = ::memfd_create(name, MFD_CLOEXEC);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "memfd_create");
    }
    return fd;
}

std::string drain(int fd) {
    std::string all;
    char block[65536];
    ssize_t got = 0;
    while ((got = ::pread(fd, block, sizeof block, static_cast<off_t>(all.size()))) > 0) {
        all.append(block, static_cast<std::size_t>(got));
    }
    ::close(fd);
    return all;
}

} // namespace

ChildRun run_child(const std::filesystem::path& directory, const std::function<void()>& body) {
    std::fflush(nullptr);
    const int out = open_sink("child-out");
    const int err = open_sink("child-err");
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        if (::chdir(directory.c_str()) != 0 || ::dup2(out, STDOUT_FILENO) < 0 ||
            ::dup2(err, STDERR_FILENO) < 0) {
            ::_exit(kCannotStart);
        }
        body();
        if (__llvm_profile_write_file != nullptr) {
            __llvm_profile_write_file();
        }
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ChildRun run;
    if (WIFEXITED(status)) {
        run.exit_status = WEXITSTATUS(status);
    } else {
        run.signal = WTERMSIG(status);
    }
    run.out = drain(out);
    run.err = drain(err);
    return run;
}

} // namespace support
