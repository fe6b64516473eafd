#include "tools/vorn/globals.h"

#include "tools/vorn/exit_code.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace vorn_cli {

namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string examples_text(const std::vector<Example>& examples) {
    std::size_t width = 0;
    for (const Example& example : examples) {
        width = std::max(width, example.command.size());
    }
    std::string text;
    for (const Example& example : examples) {
        text += fmt::format("  {:<{}}  {}\n", example.command, width, example.meaning);
    }
    return text;
}

} // namespace

CLI::App& add_subcommand(CLI::App& app, const std::string& name, const std::string& description,
                         const std::vector<Example>& examples) {
    CLI::App* const sub = app.add_subcommand(name, description);
    // The help formatter prints the footer first, as the examples.
    sub->footer(examples_text(examples));
    return *sub;
}

void add_unavailable(CLI::App& app, Globals& globals, const std::string& name,
                     const std::string& description, const std::string& package) {
    CLI::App& sub =
        add_subcommand(app, name, fmt::format("{} (not built: needs {})", description, package),
                       {{"apt-get install " + package, "then configure and build again"}});
    sub.allow_extras();
    on_run(sub, globals, [package](const Globals&) -> int {
        throw Failure(kUsage, fmt::format("this build does not have it because a library was "
                                          "missing; install {0} (apt-get install {0}), then "
                                          "configure and build again",
                                          package));
    });
}

void add_json_flag(CLI::App& sub, Globals& globals) {
    sub.add_flag("--json", globals.json, "report one JSON object a line")->disable_flag_override();
}

void add_message_flags(CLI::App& sub, Globals& globals) {
    CLI::Option* const quiet = sub.add_flag("-q,--quiet", globals.quiet, "say errors only");
    quiet->disable_flag_override();
    sub.add_flag("-v,--verbose", globals.verbose, "say more; twice for still more")
        ->excludes(quiet)
        ->disable_flag_override();
}

void add_output_options(CLI::App& sub, Globals& globals, const std::string& formats) {
    sub.add_option("-o,--output", globals.output,
                   "write this file instead of standard output; format by suffix: " + formats)
        ->option_text("FILE");
    sub.add_flag("-f,--force", globals.force, "replace an existing file")->disable_flag_override();
}

void on_run(CLI::App& sub, Globals& globals, std::function<int(const Globals&)> run) {
    sub.callback([&globals, run = std::move(run)] {
        globals.action = [&globals, run] { return run(globals); };
    });
}

std::string suffix_of(const std::string& path, const std::vector<std::string>& suffixes) {
    const std::string name = lower(path);
    for (const std::string& suffix : suffixes) {
        if (name.size() > suffix.size() && name.ends_with(suffix)) {
            return suffix;
        }
    }
    throw Failure(kUsage, fmt::format("{}: the suffix does not say which format; it must be {}",
                                      path, fmt::join(suffixes, ", ")));
}

} // namespace vorn_cli
