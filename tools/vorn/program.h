#pragma once

// The program `vorn`: one subcommand each for what one does around the feed.
//
// What every subcommand keeps to:
//
//   - Exit status: see exit_code.h.
//   - Data goes to standard output, everything else to standard error. The feed's logger writes to
//     standard output, so a subcommand that runs the feed moves the descriptor away first
//     (stdout_aside.h) and keeps the old one for its data (data_out.h).
//   - --json turns what is reported into one JSON object a line.
//   - -o/--output names a file; its suffix chooses the format. Files are written beside their name
//     and renamed when they are whole (part_file.h); -f/--force replaces an existing one.
//   - -q and -v say less and more on standard error. Colour and progress only on a terminal.
//   - SIGINT and SIGTERM end a run in order, with status 0 (run_flag.h).
//
// A subcommand is one file pair with one function add_NAME(), declared in subcommands.h.

namespace vorn_cli {

// Parses the command line, runs what it asks for and returns the exit status. Errors have been
// reported in one line on standard error.
int run(int argc, const char* const* argv);

} // namespace vorn_cli
