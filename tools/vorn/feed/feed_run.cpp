#include "tools/vorn/feed/feed_run.h"

#include "ExanicMdImpl.h"
#include "log/CommonLog.h"
#include "tools/vorn/check/effective_config.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/run_flag.h"
#include "tools/vorn/stdout_aside.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sched.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr std::size_t kKeptErrors = 8;

// A directory for the run's configuration and the log file that the feed insists on.
class RunDirectory {
public:
    RunDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "vorn_XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw Failure(kFailed, fmt::format("cannot make a temporary directory {}: {}", name,
                                               std::strerror(errno)));
        }
        path_ = name;
    }
    ~RunDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    RunDirectory(const RunDirectory&) = delete;
    RunDirectory& operator=(const RunDirectory&) = delete;
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// The keys that the feed would see, with the device replaced. The file is written afresh: appending
// a key to one that has other sections would not do.
IniFile effective_file(const FeedRunOptions& options, const RunDirectory& directory) {
    IniFile file = read_ini(options.config.empty()
                                ? "[config]\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n"
                                  "recovery = enabled\n"
                                : read_config(options.config));
    auto& keys = file.sections[std::string(kConfigSection)];
    if (!options.capture.empty()) {
        // By a link, because a configuration's value cannot hold every character of a path.
        const std::filesystem::path link = directory.path() / "capture";
        std::error_code error;
        std::filesystem::create_symlink(std::filesystem::absolute(options.capture), link, error);
        if (error) {
            throw Failure(kFailed,
                          fmt::format("cannot link {}: {}", link.string(), error.message()));
        }
        std::string device = fmt::format("pcap:{}?eof=stop", link.string());
        if (options.speed > 0) {
            device += fmt::format("&speed={}", options.speed);
        }
        keys["device"] = {device + options.faults, 0};
    }
    if (!options.device.empty()) {
        keys["device"] = {options.device, 0};
    }
    if (options.config.empty()) {
        // The last CPU that the process may use: the first is where a machine does its chores.
        cpu_set_t set;
        CPU_ZERO(&set);
        if (sched_getaffinity(0, sizeof(set), &set) == 0) {
            for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
                if (CPU_ISSET(cpu, &set)) {
                    keys["cpucore"] = {std::to_string(cpu), 0};
                    break;
                }
            }
        }
    }
    return file;
}

std::string write_config(const IniFile& file, const RunDirectory& directory) {
    std::string path = (directory.path() / "vorn.ini").string();
    std::ofstream out(path);
    out << "[config]\n";
    const auto section = file.sections.find(std::string(kConfigSection));
    if (section != file.sections.end()) {
        for (const auto& [key, entry] : section->second) {
            out << key << " = " << entry.value << '\n';
        }
    }
    out.close();
    if (!out) {
        throw Failure(kFailed, fmt::format("cannot write {}: {}", path, std::strerror(errno)));
    }
    return path;
}

// "...[E] [date][time][thread] [file:line][function]message<reset> "
void note_line(const std::string& line, FeedLog& log) {
    const std::size_t level = line.find(" [");
    if (level == std::string::npos || level + 4 > line.size() || line[level + 3] != ']') {
        return;
    }
    const char kind = line[level + 2];
    if (kind != 'E' && kind != 'W') {
        return;
    }
    ++(kind == 'E' ? log.errors : log.warnings);
    // Three stamps, then source and function.
    std::size_t at = level + 4;
    for (int brackets = 0; brackets < 5; ++brackets) {
        at = line.find(']', at);
        if (at == std::string::npos) {
            return;
        }
        ++at;
    }
    std::string text = line.substr(at, line.rfind("\x1b[0m") - at);
    if (kind == 'E') {
        log.last_errors.push_back(text);
        if (log.last_errors.size() > kKeptErrors) {
            log.last_errors.erase(log.last_errors.begin());
        }
    }
    std::string shape;
    for (const char c : text) {
        const bool digit = c >= '0' && c <= '9';
        if (!digit) {
            shape += c;
        } else if (shape.empty() || shape.back() != '#') {
            shape += '#';
        }
    }
    ++log.messages[shape];
}

FeedLog read_log(const std::filesystem::path& directory) {
    FeedLog log;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().extension() == ".log") {
            std::ifstream file(entry.path());
            for (std::string line; std::getline(file, line);) {
                note_line(line, log);
            }
        }
    }
    return log;
}

} // namespace

std::string read_config(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    if (!file || (file.peek() != std::ifstream::traits_type::eof() && !(content << file.rdbuf()))) {
        throw Failure(kUsage, fmt::format("cannot read the configuration {}: {}", path,
                                          std::strerror(errno)));
    }
    return content.str();
}

FeedReport run_feed(const FeedRunOptions& options, FeedWatcher& watcher) {
    if (!options.capture.empty() && ::access(options.capture.c_str(), R_OK) != 0) {
        throw Failure(kFailed,
                      fmt::format("cannot read {}: {}", options.capture, std::strerror(errno)));
    }
    const RunDirectory directory;
    const IniFile file = effective_file(options, directory);
    const EffectiveConfig config = effective_config(file);
    std::string path = write_config(file, directory);

    // The logger keeps its file for the life of the process: one run a process.
    std::string log_directory = directory.path().string();
    CCommonLog::GetInstance()->SetLogPath(log_directory);

    const TapTopics topics{{config.shfe2ps.topic_id, config.shfe4ps.topic_id},
                           {config.ine2ps.topic_id, config.ine4ps.topic_id},
                           config.options,
                           config.recovery};
    FeedReport report;
    {
        std::unique_ptr<std::FILE, int (*)(std::FILE*)> nowhere(std::fopen("/dev/null", "w"),
                                                                &std::fclose);
        if (!nowhere) {
            throw Failure(kFailed, fmt::format("cannot open /dev/null: {}", std::strerror(errno)));
        }
        const StdoutAside aside(fileno(nowhere.get()));
        RunFlag run;
        CardTap tap(topics, watcher);
        const auto begin = std::chrono::steady_clock::now();
        report.result = vorn_recv(path.data(), run.flag());
        report.elapsed = std::chrono::steady_clock::now() - begin;
        tap.finish();
        report.counters = tap.counters();
        report.signal = run.signal();
        report.interrupted = run.interrupted();
    }
    report.log = read_log(directory.path());
    for (std::string& text : report.log.last_errors) {
        // What the user calls it, not how it was handed to the card.
        const std::string link = (directory.path() / "capture").string();
        for (std::size_t at = 0; (at = text.find(link, at)) != std::string::npos;) {
            text.replace(at, link.size(), options.capture);
            at += options.capture.size();
        }
    }
    return report;
}

std::string reason_of(const FeedLog& log) {
    if (log.last_errors.empty()) {
        return "the feed gave no reason";
    }
    std::string text = log.last_errors.front();
    for (std::size_t i = 1; i < log.last_errors.size(); ++i) {
        text += "; " + log.last_errors[i];
    }
    return text;
}

nlohmann::json to_json(const FeedReport& report) {
    const TapCounters& c = report.counters;
    nlohmann::json phases;
    for (std::size_t i = 0; i + 1 < kFeedPhases; ++i) {
        phases[phase_name(static_cast<FeedPhase>(i))] =
            std::chrono::duration<double>(c.time_in[i]).count();
    }
    return {
        {"result", report.result},
        {"seconds", std::chrono::duration<double>(report.elapsed).count()},
        {"phase_seconds", phases},
        {"cycles", c.cycles},
        {"restarts", c.cycles > 0 ? c.cycles - 1 : 0},
        {"raw_frames", c.raw_frames},
        {"decode_buffers", c.decode_buffers},
        {"cached", c.cached},
        {"replayed", c.replayed},
        {"live_applied", c.applied},
        {"stale", c.stale},
        {"unsubscribed", c.unsubscribed},
        {"options_skipped", c.options_skipped},
        {"restored_books", c.restored},
        {"gaps", c.gaps},
        {"other", c.other},
        {"overflows", c.overflows},
        {"damaged", c.damaged},
        {"abnormal", c.abnormal},
        {"log_errors", report.log.errors},
        {"log_warnings", report.log.warnings},
        {"messages", report.log.messages},
    };
}

} // namespace vorn_cli
