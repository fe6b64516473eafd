#pragma once

// One line on the terminal that says how far a long run is. Nothing at all when standard error is
// no terminal, or with -q.

#include "tools/vorn/globals.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace vorn_cli {

// Where progress is shown and what time it is; the default is standard error and the steady clock.
struct ProgressDisplay {
    bool on = false;
    std::function<void(std::string_view)> write;
    std::function<std::chrono::nanoseconds()> now;
};
ProgressDisplay terminal_display(const Globals& globals);

class Progress {
public:
    // `what` is counted, in the plural ("changes"); `total` 0 if it is not known.
    Progress(std::string what, uint64_t total, ProgressDisplay display);
    Progress(const Globals& globals, std::string what, uint64_t total)
        : Progress(std::move(what), total, terminal_display(globals)) {}
    // Takes the line off the terminal again.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Cheap enough to be called for every item: draws ten times a second, and looks at the clock
    // only for every 256th call. One thread.
    void update(uint64_t done) {
        if (display_.on && (++calls_ & 0xFF) == 1) {
            draw_if_due(done);
        }
    }
    void finish();

    // "1,234,567 changes  45 %  1.2 M/s  0:12 left"
    static std::string text(std::string_view what, uint64_t done, uint64_t total,
                            std::chrono::nanoseconds elapsed);

private:
    void draw_if_due(uint64_t done);

    std::string what_;
    uint64_t total_;
    ProgressDisplay display_;
    uint64_t calls_ = 0;
    std::chrono::nanoseconds start_{};
    std::chrono::nanoseconds next_{};
    bool drawn_ = false;
};

} // namespace vorn_cli
