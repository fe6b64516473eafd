#include "tools/vorn/program.h"

#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/help_formatter.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/subcommands.h"
#include "tools/vorn/suggest.h"
#include "tools/vorn/terminal.h"
#include "tools/vorn/version.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>

#include <algorithm>
#include <csignal>
#include <exception>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr char kExamples[] =
    "  vorn demo            see all of it at work\n"
    "  vorn sim -o s.pcap   simulate a trading session\n"
    "  vorn verify s.pcap   hold the feed against the truth of the session\n"
    "  vorn info s.pcap     what is in a capture\n"
    "  vorn check vorn.ini  what in the configuration will surprise you\n"
    "  vorn help check      all about one subcommand\n";

// A file opened later must not become standard output or error. The missing ones are opened the
// wrong way round, so that using them is still an error.
void occupy_standard_descriptors() {
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) < 0) {
            ::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

std::vector<std::string> subcommand_names(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* sub : app.get_subcommands({})) {
        names.push_back(sub->get_name());
    }
    return names;
}

std::vector<std::string> option_names(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options({})) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

// The program and the subcommand that the command line has chosen, as in "vorn check".
std::string chosen_name(const CLI::App& app, const CLI::App*& chosen) {
    const auto subs = app.get_subcommands();
    chosen = subs.empty() ? &app : subs.back();
    return subs.empty() ? "vorn" : "vorn " + chosen->get_name();
}

int complain(const std::string& name, const std::string& text, int code) {
    const bool colour = use_colour(STDERR_FILENO);
    write_message(paint(name + ":", Colour::kRed, colour) + " " + printable(text));
    return code;
}

// What CLI11 says, in one line that names what would work.
int report_usage(const CLI::App& app, const CLI::ParseError& error) {
    const CLI::App* chosen = nullptr;
    const std::string name = chosen_name(app, chosen);
    std::string text = error.what();
    std::replace(text.begin(), text.end(), '\n', ' ');
    if (const auto extras = app.remaining(true); !extras.empty()) {
        const std::string& extra = extras.front();
        if (extra.starts_with("-")) {
            const std::string option = extra.substr(0, extra.find('='));
            text = fmt::format("unknown option {}{}", option,
                               did_you_mean(option, option_names(*chosen)));
        } else {
            text = fmt::format("'{}' is one argument too many", extra);
        }
    }
    return complain(name, fmt::format("{} ({} --help shows how)", text, name), kUsage);
}

int report_missing_subcommand(const CLI::App& app, std::string_view word) {
    const auto names = subcommand_names(app);
    const std::string what = word.empty() ? std::string("a subcommand is missing")
                                          : fmt::format("there is no subcommand '{}'", word);
    const std::string guess = did_you_mean(word, names);
    return complain("vorn",
                    fmt::format("{}{} (subcommands: {}; vorn --help shows them)", what, guess,
                                fmt::join(names, ", ")),
                    kUsage);
}

int print(const std::string& text) {
    DataOut out(STDOUT_FILENO);
    out.line(text);
    out.close();
    return kFine;
}

std::string without_last_line_end(std::string text) {
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    return text;
}

int parse_and_run(CLI::App& app, Globals& globals, std::vector<std::string> words) {
    // `vorn help NAME` is `vorn NAME --help`.
    if (!words.empty() && words.front() == "help") {
        words.erase(words.begin());
        words.insert(words.size() > 1 ? words.begin() + 1 : words.end(), "--help");
    }
    const auto names = subcommand_names(app);
    if (words.empty() || (!words.front().starts_with("-") &&
                          std::find(names.begin(), names.end(), words.front()) == names.end())) {
        return report_missing_subcommand(app, words.empty() ? "" : words.front());
    }
    try {
        std::reverse(words.begin(), words.end()); // CLI11 takes them last one first
        app.parse(words);
    } catch (const CLI::CallForVersion&) {
        return print(version_text());
    } catch (const CLI::Success&) {
        return print(without_last_line_end(app.help()));
    } catch (const CLI::ParseError& error) {
        return report_usage(app, error);
    }
    if (!globals.action) {
        return report_missing_subcommand(app, "");
    }
    return globals.action();
}

} // namespace

int run(int argc, const char* const* argv) {
    occupy_standard_descriptors();
    ::signal(SIGPIPE, SIG_IGN); // a reader that leaves is met where it is written to

    Globals globals;
    CLI::App app("programs around the level-2 feed of SHFE and INE", "vorn");
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(kExamples);
    app.set_help_flag("-h,--help", "show this help");
    app.set_version_flag("--version", version_text(), "show version, compiler, card and system");
    add_demo(app, globals);
    add_sim(app, globals);
    add_record(app, globals);
    add_publish(app, globals);
    add_top(app, globals);
    add_serve(app, globals);
    add_fanout(app, globals);
    add_tap(app, globals);
    add_replay(app, globals);
    add_verify(app, globals);
    add_convert(app, globals);
    add_info(app, globals);
    add_client(app, globals);
    add_check(app, globals);

    try {
        const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
        return parse_and_run(app, globals, words);
    } catch (const ReaderGone&) {
        return kFine;
    } catch (const Failure& failure) {
        const CLI::App* chosen = nullptr;
        return complain(chosen_name(app, chosen), failure.what(), failure.code());
    } catch (const std::exception& error) {
        const CLI::App* chosen = nullptr;
        return complain(chosen_name(app, chosen), error.what(), kFailed);
    }
}

} // namespace vorn_cli
