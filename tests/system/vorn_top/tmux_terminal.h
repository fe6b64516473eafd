#pragma once

// A real terminal for a program: a tmux server of the test's own.

#include "tests/support/temp_dir.h"

#include <functional>
#include <string>
#include <vector>

namespace vorn_top {

class TmuxTerminal {
public:
    // Runs a shell script in a terminal of that size. What the script leaves is read by file().
    TmuxTerminal(int width, int height, const std::string& script);
    ~TmuxTerminal(); // ends the server and what runs in it
    TmuxTerminal(const TmuxTerminal&) = delete;
    TmuxTerminal& operator=(const TmuxTerminal&) = delete;

    void resize(int width, int height);
    void press(const std::vector<std::string>& keys); // by their names for tmux: "q", "Down", ...
    // The rows, without blanks at their ends.
    std::vector<std::string> rows() const;
    std::string text() const;
    std::string styled_text() const; // with the escape sequences of colours and the like
    // Waits for a screen like this. Says what was there instead.
    void expect(const std::function<bool(const std::vector<std::string>&)>& condition,
                const std::string& what);
    void expect_text(const std::string& part);
    // "1" or "0", as tmux knows it: cursor_flag, alternate_on.
    std::string flag(const std::string& name) const;
    std::string file(const std::string& name) const;

private:
    std::string tmux(std::vector<std::string> arguments) const;

    support::TempDir directory_;
};

// How many columns a row takes, every character one.
std::size_t columns(const std::string& row);

} // namespace vorn_top
