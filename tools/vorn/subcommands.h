#pragma once

// Every subcommand of the program, in the order in which --help lists them. A subcommand defines
// its options here and sets what runs them (on_run); it is linked in by its add function alone.

#include "tools/vorn/globals.h"

#include <CLI/App.hpp>

namespace vorn_cli {

void add_demo(CLI::App& app, Globals& globals);
void add_sim(CLI::App& app, Globals& globals);
void add_record(CLI::App& app, Globals& globals);
void add_publish(CLI::App& app, Globals& globals);
void add_top(CLI::App& app, Globals& globals);
void add_serve(CLI::App& app, Globals& globals);
void add_fanout(CLI::App& app, Globals& globals);
void add_tap(CLI::App& app, Globals& globals);
void add_replay(CLI::App& app, Globals& globals);
void add_verify(CLI::App& app, Globals& globals);
void add_convert(CLI::App& app, Globals& globals);
void add_info(CLI::App& app, Globals& globals);
void add_client(CLI::App& app, Globals& globals);
void add_check(CLI::App& app, Globals& globals);

} // namespace vorn_cli
