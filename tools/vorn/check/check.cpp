#include "tools/vorn/check/check.h"

#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/progress.h"
#include "tools/vorn/subcommands.h"
#include "tools/vorn/terminal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace vorn_cli {

namespace {

// No configuration is that large; a device such as /dev/zero has no end.
constexpr std::size_t kLargestFile = std::size_t{1} << 20;
// A file of another kind would have a finding for every line.
constexpr std::size_t kShownFindings = 200;

struct CheckOptions {
    std::string file;
    std::string capture;
    int cpus = 0; // 0: this machine's
};

// The file's content, or the finding that says why there is none.
std::optional<std::string> read_content(const std::string& path, Findings& findings) {
    const auto report = [&](const char* rule, std::string what, std::string effect) {
        findings.push_back({1, Severity::kError, rule, "", std::move(what), std::move(effect), ""});
    };
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        report("unreadable", fmt::format("the file cannot be opened: {}", std::strerror(errno)),
               "the feed logs \"unable to open config file\" and does not start");
        return std::nullopt;
    }
    std::string content;
    char block[65536];
    ssize_t got = 0;
    while (content.size() <= kLargestFile) {
        got = ::read(descriptor, block, sizeof(block));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        content.append(block, static_cast<std::size_t>(got));
    }
    const int reason = errno;
    ::close(descriptor);
    if (got < 0) {
        report("unreadable", fmt::format("the file cannot be read: {}", std::strerror(reason)),
               "the feed reads nothing, finds no device and does not start");
        return std::nullopt;
    }
    if (content.size() > kLargestFile) {
        report("not-text", fmt::format("the file is larger than {} MiB", kLargestFile >> 20),
               "the feed would read all of it; it was not looked at further");
        return std::nullopt;
    }
    return content;
}

std::size_t count(const Findings& findings, Severity severity) {
    return static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(),
                      [&](const Finding& finding) { return finding.severity == severity; }));
}

std::string plural(std::size_t number, const char* word) {
    return fmt::format("{} {}{}", number, word, number == 1 ? "" : "s");
}

void write_text(DataOut& out, const std::string& file, const Findings& findings) {
    const bool colour = use_colour(STDOUT_FILENO);
    for (const Finding& finding : findings) {
        const bool is_error = finding.severity == Severity::kError;
        out.line(fmt::format(
            "{}: {} {} [{}]",
            paint(fmt::format("{}:{}", printable(file), finding.line), Colour::kBold, colour),
            paint(fmt::format("{}:", severity_name(finding.severity)),
                  is_error ? Colour::kRed : Colour::kYellow, colour),
            printable(finding.text()), paint(finding.rule, Colour::kDim, colour)));
    }
}

void write_json(DataOut& out, const std::string& file, const Findings& findings,
                const std::optional<EffectiveConfig>& effective) {
    for (const Finding& finding : findings) {
        nlohmann::json object = {
            {"type", "finding"},       {"file", file},
            {"line", finding.line},    {"severity", severity_name(finding.severity)},
            {"rule", finding.rule},    {"what", finding.what},
            {"effect", finding.effect}};
        if (!finding.key.empty()) {
            object["key"] = finding.key;
        }
        if (!finding.instead.empty()) {
            object["instead"] = finding.instead;
        }
        out.json(object);
    }
    nlohmann::json summary = {{"type", "summary"},
                              {"file", file},
                              {"errors", count(findings, Severity::kError)},
                              {"warnings", count(findings, Severity::kWarning)}};
    if (effective) {
        summary["effective"] = to_json(*effective);
    }
    out.json(summary);
}

// Errors first when not all can be shown.
void limit_findings(const Globals& globals, Findings& findings) {
    if (findings.size() <= kShownFindings) {
        return;
    }
    const std::size_t hidden = findings.size() - kShownFindings;
    std::stable_partition(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.severity == Severity::kError;
    });
    findings.resize(kShownFindings);
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    say(globals, "{} more findings are not shown", hidden);
}

int run_check(const CheckOptions& options, const Globals& globals) {
    std::optional<CaptureSurvey> capture;
    if (!options.capture.empty()) {
        Progress progress(globals, "frames", 0);
        capture =
            survey_capture(options.capture, [&](uint64_t frames) { progress.update(frames); });
        progress.finish();
        detail(globals, 1, "{}: {} frames, {} instruments", options.capture, capture->frames,
               capture->instruments.size());
    }
    Findings findings;
    std::optional<EffectiveConfig> effective;
    if (const auto content = read_content(options.file, findings)) {
        Machine machine = this_machine();
        if (options.cpus > 0) {
            machine.processors = options.cpus;
            machine.can_bind = [](int) { return true; };
        }
        CheckResult result = check_configuration(*content, machine, capture ? &*capture : nullptr);
        findings = std::move(result.findings);
        effective = std::move(result.effective);
    }
    const std::size_t errors = count(findings, Severity::kError);
    const std::size_t warnings = count(findings, Severity::kWarning);
    DataOut out(STDOUT_FILENO);
    if (globals.json) {
        write_json(out, options.file, findings, effective);
    } else {
        limit_findings(globals, findings);
        write_text(out, options.file, findings);
    }
    out.close();
    if (effective) {
        const nlohmann::json parameters = to_json(*effective);
        for (const auto& [key, value] : parameters.items()) {
            detail(globals, 1, "{} = {}", key, json_line(value));
        }
    }
    if (errors + warnings == 0) {
        return kFine;
    }
    say(globals, "{}, {}", plural(errors, "error"), plural(warnings, "warning"));
    return kUsage;
}

} // namespace

CheckResult check_configuration(std::string_view content, const Machine& machine,
                                const CaptureSurvey* capture) {
    const IniFile file = read_ini(content);
    CheckResult result;
    result.effective = effective_config(file);
    CheckContext context{file, result.effective, machine, capture, {}, {}};
    if (check_encoding(context) && check_structure(context)) {
        check_values(context);
        check_addresses(context);
        check_feeds(context);
        check_instruments(context);
        check_device(context);
        check_against_capture(context);
    }
    result.findings = std::move(context.findings);
    std::stable_sort(result.findings.begin(), result.findings.end(),
                     [](const Finding& a, const Finding& b) { return a.line < b.line; });
    return result;
}

void add_check(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "check", "what in a configuration file will surprise you",
        {{"vorn check vorn.ini", "silent, with status 0, when nothing will"},
         {"vorn check vorn.ini --capture day.pcap", "also whether the capture has what it names"},
         {"vorn check vorn.ini --cpus 64", "for a machine with 64 processors"},
         {"vorn check vorn.ini --json | jq .effect", "one object a finding, then a summary"}});
    auto options = std::make_shared<CheckOptions>();
    sub.add_option("FILE", options->file, "configuration file of the feed")->required();
    sub.add_option("--capture", options->capture,
                   "capture of the exchange's traffic (pcap) to hold it against")
        ->option_text("FILE");
    sub.add_option("--cpus", options->cpus, "processors of the machine it is for")
        ->option_text("N")
        ->check(CLI::Range(1, 1024));
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_check(*options, g); });
}

} // namespace vorn_cli
