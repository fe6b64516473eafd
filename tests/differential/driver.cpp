// Runs scenarios on the feed's own object files and answers with traces.
//
//     differential_driver DIRECTORY < scenarios > traces
//
// DIRECTORY becomes the working directory; the feed's log file and the scenario's configuration are
// written there. Ends with 0 at the end of its input, with 1 when a scenario cannot be run.

#include "stage.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <malloc.h>
#include <system_error>
#include <unistd.h>

namespace {

using differential::Bytes;

bool read_all(int fd, void* data, std::size_t size) {
    auto* to = static_cast<uint8_t*>(data);
    while (size > 0) {
        const ssize_t got = ::read(fd, to, size);
        if (got == 0) {
            return false;
        }
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::system_error(errno, std::generic_category(), "reading a scenario");
        }
        to += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

void write_all(int fd, const void* data, std::size_t size) {
    const auto* from = static_cast<const uint8_t*>(data);
    while (size > 0) {
        const ssize_t put = ::write(fd, from, size);
        if (put < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::system_error(errno, std::generic_category(), "writing a trace");
        }
        from += put;
        size -= static_cast<std::size_t>(put);
    }
}

// The feed's log file would grow without end.
void empty_log_files() {
    for (const auto& entry : std::filesystem::directory_iterator(".")) {
        if (entry.path().extension() == ".log") {
            std::filesystem::resize_file(entry.path(), 0);
        }
    }
}

differential::Trace run(differential::Stage& stage, const Bytes& body) {
    differential::Reader scenario(body.data(), body.size());
    differential::Trace trace;
    stage.reset();
    const auto kind = scenario.get<char>();
    const auto log_mask = scenario.get<int32_t>();
    switch (kind) {
    case 'I':
        differential::run_incremental(stage, scenario, log_mask, trace);
        break;
    case 'S':
        differential::run_snapshot(stage, scenario, log_mask, trace);
        break;
    case 'C':
        differential::run_config(stage, scenario, log_mask, trace);
        break;
    case 'F':
        differential::run_feed(stage, scenario, trace);
        break;
    default:
        throw std::runtime_error("unknown kind of scenario");
    }
    return trace;
}

void serve(int traces) {
    constexpr unsigned kScenariosPerLog = 64;
    differential::Stage stage;
    Bytes body;
    uint32_t size = 0;
    for (unsigned number = 1; read_all(STDIN_FILENO, &size, sizeof size); ++number) {
        body.resize(size);
        if (!read_all(STDIN_FILENO, body.data(), size)) {
            throw std::runtime_error("the input ends inside a scenario");
        }
        const differential::Trace trace = run(stage, body);
        const auto length = static_cast<uint32_t>(trace.data().size());
        write_all(traces, &length, sizeof length);
        write_all(traces, trace.data().data(), length);
        if (number % kScenariosPerLog == 0) {
            empty_log_files();
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || ::chdir(argv[1]) != 0) {
        std::fprintf(stderr, "usage: differential_driver DIRECTORY < scenarios > traces\n");
        return 2;
    }
    std::signal(SIGPIPE, SIG_DFL);
    // A snapshot channel is 4 MB large and made anew for every scenario: keep its memory.
    ::mallopt(M_MMAP_THRESHOLD, 16 << 20);
    ::mallopt(M_TRIM_THRESHOLD, 64 << 20);
    // The feed logs to standard output: traces go out on a descriptor of their own.
    const int traces = ::dup(STDOUT_FILENO);
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (traces < 0 || nowhere < 0 || ::dup2(nowhere, STDOUT_FILENO) < 0) {
        std::perror("differential_driver");
        return 1;
    }
    try {
        serve(traces);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "differential_driver: %s\n", error.what());
        return 1;
    }
    return 0;
}
