#pragma once

// The options that subcommands share, and the parts that a subcommand is made of:
//
//   void add_info(CLI::App& app, Globals& globals) {
//       CLI::App& sub = add_subcommand(app, "info", "what a recording holds",
//                                      {{"vorn info day.csv", "counts and times"}});
//       auto options = std::make_shared<InfoOptions>();
//       sub.add_option("FILE", options->file, "recording")->required();
//       add_json_flag(sub, globals);
//       add_message_flags(sub, globals);
//       on_run(sub, globals, [options](const Globals& g) { return run_info(*options, g); });
//   }

#include <CLI/App.hpp>

#include <functional>
#include <string>
#include <vector>

namespace vorn_cli {

struct Globals {
    bool json = false;
    bool quiet = false;
    int verbose = 0;    // number of -v
    std::string output; // empty: standard output
    bool force = false;
    // What the chosen subcommand does; returns an ExitCode or throws Failure.
    std::function<int()> action;
};

struct Example {
    std::string command;
    std::string meaning;
};

// A subcommand whose --help begins with the examples.
CLI::App& add_subcommand(CLI::App& app, const std::string& name, const std::string& description,
                         const std::vector<Example>& examples);

// A subcommand that this build does not have because a library was missing. It takes any arguments
// and says what to install.
void add_unavailable(CLI::App& app, Globals& globals, const std::string& name,
                     const std::string& description, const std::string& package);

void add_json_flag(CLI::App& sub, Globals& globals);     // --json
void add_message_flags(CLI::App& sub, Globals& globals); // -q, -v
// -o and -f. `formats` says which suffixes there are, as in ".csv, .parquet".
void add_output_options(CLI::App& sub, Globals& globals, const std::string& formats);

// Sets what runs when the command line names this subcommand.
void on_run(CLI::App& sub, Globals& globals, std::function<int(const Globals&)> run);

// The one of `suffixes` (as in ".csv") that `path` ends with; throws Failure naming them when there
// is none. Upper and lower case are the same.
std::string suffix_of(const std::string& path, const std::vector<std::string>& suffixes);

} // namespace vorn_cli
