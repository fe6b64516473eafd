// G9: an enabled log line, flushed to standard output and to the file, against the same line
// written as plainly as its description reads. Also what a disabled one costs.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"

#include "CommonLog.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <pthread.h>
#include <string>
#include <unistd.h>

namespace {

using namespace bench;

constexpr char LOG_FILE_TAG[] = "Bench";
constexpr uint32_t kLines = 20'000;
constexpr int kLine = 105; // source line that both name
constexpr char kFormat[] = "receive abnormal decode length: %u";

// The lines of a log file without their stamps, which follow the clock.
std::string without_stamps(const std::string& path) {
    std::ifstream file(path);
    std::string all;
    for (std::string line; std::getline(file, line);) {
        const std::size_t begin = line.find("] [");
        const std::size_t end = line.find("][", line.find("][", begin + 3) + 2);
        all += line.erase(begin, end - begin) + '\n';
    }
    return all;
}

// The same two streams, the same bytes.
class LiteralLog {
public:
    explicit LiteralLog(const std::string& path) : file_(std::fopen(path.c_str(), "w")) {}
    ~LiteralLog() { std::fclose(file_); }

    void write(const char* function, int line, const char* format, ...)
        __attribute__((format(printf, 4, 5))) {
        char embedded[2048];
        std::snprintf(embedded, sizeof(embedded), "[%s:%d][%s]%s", LOG_FILE_TAG, line, function,
                      format);
        char message[4096];
        va_list arguments;
        va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        std::vsnprintf(message, sizeof(message), embedded, arguments);
#pragma GCC diagnostic pop
        va_end(arguments);
        const std::lock_guard lock(mutex_);
        const time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        for (std::FILE* stream : {stdout, file_}) {
            std::fprintf(stream, "%s [%04d%02d%02d][%02d:%02d:%02d][%lu] %s%s", "\033[33;1m [W]",
                         local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                         local.tm_min, local.tm_sec, static_cast<unsigned long>(pthread_self()),
                         message, "\033[0m \n");
            std::fflush(stream);
        }
    }

private:
    std::FILE* file_;
    std::mutex mutex_;
};

} // namespace

int main() {
    report_run("log_line", pin_to_one_processor());
    std::string directory = std::filesystem::temp_directory_path() / "vorn_bench_XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        std::perror("bench: mkdtemp");
        return 1;
    }
    std::string log_directory = directory;
    CCommonLog::GetInstance()->SetLogPath(log_directory);
    CCommonLog::GetInstance()->SetLogLevel(static_cast<ELOGLEVEL>(7));
    LiteralLog literal(directory + "/literal.log");

    // Standard output leads to a file of its own while lines are written, as under a supervisor.
    std::fflush(stdout);
    const int results = dup(STDOUT_FILENO);
    const int lines = open((directory + "/stdout").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
    const auto aside = [&] { dup2(lines, STDOUT_FILENO); };
    const int bare = open((directory + "/bare").c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600);
    char line_bytes[110]; // the length of a line
    std::memset(line_bytes, ' ', sizeof(line_bytes));
    Contest contest;
    contest.operations = kLines;
    aside();
    const Times times = run_contest(
        contest, {{"vorn",
                   {},
                   [] {
                       for (uint32_t i = 0; i < kLines; ++i) {
                           if (CCommonLog::IsEnabled(LOG_WARNING)) { // what MD_LOG is
                               MdWriteLine(LOG_WARNING, LOG_FILE_TAG, kLine, "main", kFormat, i);
                           }
                       }
                   },
                   {}},
                  {"literal",
                   {},
                   [&] {
                       for (uint32_t i = 0; i < kLines; ++i) {
                           literal.write("main", kLine, kFormat, i);
                       }
                   },
                   {}},
                  // What no line can do without: its two calls of the system.
                  {"two writes",
                   {},
                   [&] {
                       for (uint32_t i = 0; i < kLines; ++i) {
                           keep(write(STDOUT_FILENO, line_bytes, sizeof(line_bytes)));
                           keep(write(bare, line_bytes, sizeof(line_bytes)));
                       }
                   },
                   {}}});
    Contest often = contest;
    often.operations = uint64_t{kLines} * 1000;
    const Times silent = run_contest(often, {{"disabled",
                                              {},
                                              [] {
                                                  for (uint32_t i = 0; i < kLines * 1000; ++i) {
                                                      MD_LOG_AS("main", LOG_DEBUG_EX, "%u", i);
                                                      keep(i);
                                                  }
                                              },
                                              {}}});
    dup2(results, STDOUT_FILENO);
    std::string vorn_lines;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().filename().string().starts_with("Vorn_Exanic_")) {
            vorn_lines = without_stamps(entry.path());
        }
    }
    if (vorn_lines.empty() || vorn_lines != without_stamps(directory + "/literal.log")) {
        std::fprintf(stderr, "bench: the two logs differ\n");
        return 1;
    }
    report_figure("G9", "vorn", "enabled line", times.ns("vorn"), "ns");
    report_figure("G9", "literal", "enabled line", times.ns("literal"), "ns");
    report_figure("G9", "two writes", "enabled line", times.ns("two writes"), "ns");
    report_figure("G9", "disabled", "disabled line", silent.ns("disabled"), "ns");
    report_goal({"G9", "enabled line", times.ratio("literal", "vorn"), Better::kLarger, 1.3, 1.7});
    std::filesystem::remove_all(directory);
    return 0;
}
