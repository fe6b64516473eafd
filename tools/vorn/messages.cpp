#include "tools/vorn/messages.h"

#include <cerrno>
#include <string>
#include <unistd.h>

namespace vorn_cli {

void write_message(std::string_view line) {
    std::string text(line);
    text += '\n';
    std::string_view left = text;
    while (!left.empty()) {
        const ssize_t written = ::write(STDERR_FILENO, left.data(), left.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return; // nowhere left to say it
        }
        left.remove_prefix(static_cast<std::size_t>(written));
    }
}

} // namespace vorn_cli
