#include "recording.h"

#include "softcard/registers/register_map.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sysinfo.h>
#include <system_error>

namespace recorder {

namespace {

static_assert(kCsvHeader.size() == 391);

// What a sanitizer is told in addition to what the caller's environment says. The recorder is not a
// test program and has no suppressions of its own.
std::vector<std::string> sanitizer_environment() {
    std::vector<std::string> environment;
    const std::pair<const char*, const char*> suppressions[] = {
        {"LSAN_OPTIONS", "print_suppressions=0:suppressions=" VORN_LEAK_SUPPRESSIONS},
    };
    for (const auto& [name, value] : suppressions) {
        const char* const present = std::getenv(name);
        environment.push_back(std::string(name) + "=" +
                              (present != nullptr ? std::string(present) + ":" : std::string()) +
                              value);
    }
    return environment;
}

std::string enabled_mask(const Config& config) {
    const int mask = (config.shfe ? 1 : 0) | (config.ine ? 4 : 0);
    return "0x" + std::to_string(mask);
}

std::string hex(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof(text), "%x", value);
    return text;
}

} // namespace

namespace {

// The feed takes numbers up to the count of processors, which may be smaller than the numbers of
// those that a container may use.
int choose_cpu() {
    const int here = sched_getcpu();
    if (here >= 0 && here < get_nprocs()) {
        return here;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof(set), &set);
    for (int cpu = 0; cpu < get_nprocs(); ++cpu) {
        if (CPU_ISSET(cpu, &set)) {
            return cpu;
        }
    }
    return 0;
}

} // namespace

// One for the whole process: its number stands in the log, and two runs of a test are compared.
int usable_cpu() {
    static const int cpu = choose_cpu();
    return cpu;
}

std::string Config::text() const {
    std::string text = "[config]\n";
    if (!device.empty()) {
        text += "device = " + device + "\n";
    }
    if (!insts.empty()) {
        text += "insts = " + insts + "\n";
    }
    if (shfe) {
        text += "shfe2ps = enabled\n";
    }
    if (ine) {
        text += "ine2ps = enabled\n";
    }
    return text + "cpucore = " + std::to_string(cpu) +
           "\nlog_level = " + std::to_string(log_level) + "\n" + more;
}

std::string capture_device(const std::filesystem::path& capture, const std::string& eof) {
    return "pcap:" + capture.string() + "?eof=" + eof;
}

void Workspace::write_config(const Config& config) const {
    // By rename: a feed may be about to read it.
    root_.write("vorn.ini.new", config.text());
    std::filesystem::rename(path("vorn.ini.new"), config_path());
}

Launch Workspace::prepare(const Config& config) {
    write_config(config);
    const auto directory = path("run" + std::to_string(++runs_));
    std::filesystem::create_directory(directory);
    return recorder_launch(directory, {config_path().string()});
}

Recording Workspace::record(const Config& config) {
    const Launch launch = prepare(config);
    Process process(launch);
    return collect(launch, process.finish());
}

Recording Workspace::collect(const Launch& launch, const Ended& end) const {
    return {end, support::read_file(only_file(launch.directory, ".csv")), log_lines(end.out)};
}

Launch recorder_launch(const std::filesystem::path& directory,
                       const std::vector<std::string>& arguments) {
    Launch launch;
    launch.command = {VORN_RECORDER};
    launch.command.insert(launch.command.end(), arguments.begin(), arguments.end());
    launch.directory = directory;
    launch.environment = sanitizer_environment();
    return launch;
}

std::filesystem::path only_file(const std::filesystem::path& directory, const std::string& ending) {
    std::vector<std::filesystem::path> found;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().extension() == ending) {
            found.push_back(entry.path());
        }
    }
    if (found.size() != 1) {
        ADD_FAILURE() << found.size() << " files *" << ending << " in " << directory;
        return {};
    }
    return found.front();
}

std::size_t size_of_csv(const std::filesystem::path& directory) {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().extension() == ".csv") {
            return static_cast<std::size_t>(entry.file_size());
        }
    }
    return 0;
}

Lines bring_up_lines(const Workspace& work, const Config& config, bool first_cycle) {
    Lines lines;
    if (first_cycle) {
        lines.emplace_back(kVersionLine);
    }
    lines.push_back("I ConfigParse _LoadConfig read configure file: " +
                    work.config_path().string());
    lines.push_back("I ExanicDevFunc _BindCpu set CPU[" + std::to_string(config.cpu) +
                    "] affinity successful");
    lines.push_back("I ExanicDevFunc _InitReg FPGA version: " + hex(softcard::kVersionValue) +
                    ", update data: " + hex(softcard::kBuildValue));
    lines.push_back("I ExanicTcpFunc RunTcpDecoder start initialization, enabled mask " +
                    enabled_mask(config));
    return lines;
}

Lines snapshot_lines(const std::vector<std::string>& finished, int cached_frames) {
    Lines lines;
    for (const std::string& feed : finished) {
        lines.push_back("I ExanicTcpFunc _ParseMdqp " + feed);
    }
    lines.push_back("I ExanicTcpFunc RunTcpDecoder initialization completed");
    lines.push_back("I ExanicMdImpl vorn_recv process decode buffer " +
                    std::to_string(cached_frames) + " frames");
    return lines;
}

Lines joined(std::initializer_list<Lines> parts) {
    Lines all;
    for (const Lines& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

std::string csv_of(const std::vector<std::string>& rows) {
    std::string text(kCsvHeader);
    for (const std::string& row : rows) {
        text += row;
    }
    return text;
}

} // namespace recorder
