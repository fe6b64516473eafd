#pragma once

// The terminal as `vorn top` uses it: whole screens out, keys in.

#include "tools/vorn/top/screen.h"
#include "tools/vorn/top/top_state.h"

namespace vorn_cli {

// Takes the terminal over while it lives; one at a time. However the object ends, the terminal is
// as it was before. Ctrl+C stays a signal.
class TopTerminal {
public:
    // Throws Failure when there is no terminal that it could use.
    TopTerminal();
    ~TopTerminal();
    TopTerminal(const TopTerminal&) = delete;
    TopTerminal& operator=(const TopTerminal&) = delete;

    int width() const;
    int height() const;
    bool unicode() const { return unicode_; }
    void show(const Screen& screen);

    enum class Input : uint8_t { kNothing, kKey, kResized, kGone };
    struct Event {
        Input input = Input::kNothing;
        Key key = Key::kNone;
        char character = 0;
    };
    // Waits for a key, a new size or a signal, so long at most. kGone: nobody is there any more.
    Event wait(int milliseconds);

private:
    bool unicode_ = false;
    bool colour_ = false;
    int empty_reads_ = 0;
    void* terminal_ = nullptr; // the library's
};

// Whether the locale of the environment can show more than ASCII. Sets the process's LC_CTYPE.
bool locale_has_unicode();

} // namespace vorn_cli
