#include "tmux_terminal.h"

#include "background.h"
#include "tests/system/vorn_check/run_program.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace vorn_top {

TmuxTerminal::TmuxTerminal(int width, int height, const std::string& script) {
    directory_.write("script", script);
    directory_.write("tmux.conf", "set -g remain-on-exit on\nset -g default-terminal screen\n");
    tmux({"new-session", "-d", "-x", std::to_string(width), "-y", std::to_string(height),
          "sh ./script"});
}

TmuxTerminal::~TmuxTerminal() {
    tmux({"kill-server"});
}

std::string TmuxTerminal::tmux(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {VORN_TMUX, "-S", "./socket", "-f", "./tmux.conf"});
    const auto run = vorn_check::run_program(arguments, directory_.path(), [] {
        ::setenv("LC_ALL", "C.UTF-8", 1);
        for (const char* name : {"TMUX", "NO_COLOR", "LINES", "COLUMNS"}) {
            ::unsetenv(name);
        }
    });
    EXPECT_EQ(run.exit_status, 0) << arguments[5] << ": " << run.err;
    return run.out;
}

void TmuxTerminal::resize(int width, int height) {
    tmux({"resize-window", "-x", std::to_string(width), "-y", std::to_string(height)});
}

void TmuxTerminal::press(const std::vector<std::string>& keys) {
    std::vector<std::string> arguments = {"send-keys"};
    arguments.insert(arguments.end(), keys.begin(), keys.end());
    tmux(arguments);
}

std::string TmuxTerminal::text() const {
    return tmux({"capture-pane", "-p"});
}

std::string TmuxTerminal::styled_text() const {
    return tmux({"capture-pane", "-e", "-p"});
}

std::vector<std::string> TmuxTerminal::rows() const {
    std::vector<std::string> rows;
    std::istringstream lines(text());
    for (std::string row; std::getline(lines, row);) {
        rows.push_back(row);
    }
    return rows;
}

void TmuxTerminal::expect(const std::function<bool(const std::vector<std::string>&)>& condition,
                          const std::string& what) {
    EXPECT_TRUE(comes_true([&] { return condition(rows()); })) << what << "; there is:\n" << text();
}

void TmuxTerminal::expect_text(const std::string& part) {
    EXPECT_TRUE(comes_true([&] { return text().find(part) != std::string::npos; }))
        << part << "; there is:\n"
        << text();
}

std::string TmuxTerminal::flag(const std::string& name) const {
    std::string value = tmux({"display-message", "-p", "#{" + name + "}"});
    return value.substr(0, value.find('\n'));
}

std::string TmuxTerminal::file(const std::string& name) const {
    return support::read_file(directory_.path() / name);
}

std::size_t columns(const std::string& row) {
    return static_cast<std::size_t>(std::count_if(row.begin(), row.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
    }));
}

} // namespace vorn_top
