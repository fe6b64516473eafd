#include "tools/vorn/publish/memory_lock.h"

#include "tools/vorn/exit_code.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/mman.h>

namespace vorn_cli {

void lock_memory() {
    if (::mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
        throw Failure(kFailed,
                      fmt::format("the memory cannot be locked: {} (raise the limit, as in "
                                  "ulimit -l unlimited, or leave --lock-memory out)",
                                  std::strerror(errno)));
    }
}

} // namespace vorn_cli
