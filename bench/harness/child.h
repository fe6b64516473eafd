#pragma once

// A child process beside what is measured: off its processor where there is another, and killed at
// the end of the scope.

#include <csignal>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

class Child {
public:
    // `work` runs in the child, on `cpus`; it is not to return.
    template <typename Work>
    Child(const cpu_set_t& cpus, const Work& work) : pid_(::fork()) {
        if (pid_ == 0) {
            ::sched_setaffinity(0, sizeof(cpus), &cpus);
            work();
            ::_exit(1);
        }
    }
    ~Child() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Halts it, until it has halted.
    void stop() const {
        ::kill(pid_, SIGSTOP);
        int status = 0;
        ::waitpid(pid_, &status, WUNTRACED);
    }

private:
    pid_t pid_;
};

// The processors that this process may use, without the one that it measures on if there is
// another.
inline cpu_set_t processors_beside(const cpu_set_t& allowed, int measured) {
    cpu_set_t others = allowed;
    if (CPU_COUNT(&others) > 1) {
        CPU_CLR(static_cast<unsigned>(measured), &others);
    }
    return others;
}

inline cpu_set_t allowed_processors() {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    ::sched_getaffinity(0, sizeof(cpus), &cpus);
    return cpus;
}

} // namespace bench
