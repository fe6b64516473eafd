#pragma once

#include <CLI/App.hpp>
#include <CLI/Formatter.hpp>

#include <string>
#include <vector>

namespace vorn_cli {

// --help with the examples first, because they are what most people came for.
class HelpFormatter : public CLI::Formatter {
public:
    HelpFormatter();
    std::string make_help(const CLI::App* app, std::string name,
                          CLI::AppFormatMode mode) const override;
    std::string make_usage(const CLI::App* app, std::string name) const override;
    std::string make_group(std::string group, bool is_positional,
                           std::vector<const CLI::Option*> options) const override;
    std::string make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const override;
    std::string make_option_name(const CLI::Option* option, bool is_positional) const override;
    std::string make_option_opts(const CLI::Option* option) const override;
    std::string make_option_usage(const CLI::Option* option) const override;
};

} // namespace vorn_cli
