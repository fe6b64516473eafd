#include "tools/vorn/help_formatter.h"

#include <utility>

namespace vorn_cli {

namespace {

constexpr std::size_t kColumnWidth = 28;

std::string squeeze_blank_lines(const std::string& text) {
    std::string squeezed;
    for (const char c : text) {
        if (c != '\n' || !squeezed.ends_with("\n\n")) {
            squeezed += c;
        }
    }
    while (squeezed.ends_with("\n\n")) {
        squeezed.pop_back();
    }
    return squeezed;
}

} // namespace

HelpFormatter::HelpFormatter() {
    column_width(kColumnWidth);
    label("Usage", "usage");
    label("Positionals", "arguments");
}

std::string HelpFormatter::make_group(std::string group, bool is_positional,
                                      std::vector<const CLI::Option*> options) const {
    return CLI::Formatter::make_group(group == "Options" ? "options" : group, is_positional,
                                      std::move(options));
}

std::string HelpFormatter::make_option_name(const CLI::Option* option, bool is_positional) const {
    std::string names = CLI::Formatter::make_option_name(option, is_positional);
    if (is_positional) {
        return names;
    }
    const std::size_t comma = names.find(',');
    return comma == std::string::npos ? "    " + names
                                      : names.substr(0, comma) + ", " + names.substr(comma + 1);
}

// What the option takes, and no more: its description says the rest.
std::string HelpFormatter::make_option_opts(const CLI::Option* option) const {
    return option->get_option_text().empty() ? "" : " " + option->get_option_text();
}

std::string HelpFormatter::make_option_usage(const CLI::Option* option) const {
    const std::string name = option->get_name(true);
    return option->get_required() ? name : "[" + name + "]";
}

std::string HelpFormatter::make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const {
    const std::string text = CLI::Formatter::make_subcommands(app, mode);
    const std::size_t title = text.find("Subcommands:");
    return title == std::string::npos ? text : text.substr(0, title) + "s" + text.substr(title + 1);
}

std::string HelpFormatter::make_usage(const CLI::App* app, std::string name) const {
    return "\n" + CLI::Formatter::make_usage(app, name);
}

std::string HelpFormatter::make_help(const CLI::App* app, std::string name,
                                     CLI::AppFormatMode mode) const {
    if (mode == CLI::AppFormatMode::Sub) {
        return make_expanded(app);
    }
    std::string text = (name.empty() ? app->get_name() : name) + ": " + app->get_description();
    if (const std::string examples = app->get_footer(); !examples.empty()) {
        text += "\n\nexamples:\n" + examples;
    }
    text += make_usage(app, name);
    text += make_positionals(app);
    text += make_groups(app, mode);
    text += make_subcommands(app, mode);
    return squeeze_blank_lines(text);
}

} // namespace vorn_cli
