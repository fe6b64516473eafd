#include "tools/vorn/stdout_aside.h"

#include "tools/vorn/exit_code.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace vorn_cli {

StdoutAside::StdoutAside(int log_descriptor) {
    std::fflush(stdout);
    // From 10 up, out of the way of programs that this one may start.
    data_descriptor_ = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10);
    if (data_descriptor_ < 0 || ::dup2(log_descriptor, STDOUT_FILENO) < 0) {
        const int reason = errno;
        if (data_descriptor_ >= 0) {
            ::close(data_descriptor_);
        }
        throw Failure(kFailed,
                      std::string("cannot move standard output aside: ") + std::strerror(reason));
    }
}

StdoutAside::~StdoutAside() {
    std::fflush(stdout); // the feed's last lines belong where its others went
    ::dup2(data_descriptor_, STDOUT_FILENO);
    ::close(data_descriptor_);
}

} // namespace vorn_cli
