#pragma once

// SIGINT and SIGTERM as an integer that drops to 0, which is what the feed watches.

namespace vorn_cli {

// One at a time. While it lives, the first SIGINT or SIGTERM sets the flag to 0 and the run ends in
// order; the next one has its default effect, for a run that does not come to its end.
class RunFlag {
public:
    RunFlag();
    ~RunFlag(); // the signals mean again what they meant before
    RunFlag(const RunFlag&) = delete;
    RunFlag& operator=(const RunFlag&) = delete;

    // For vorn_recv, which reads it with relaxed atomic loads.
    int* flag();
    bool running() const;
    void stop();        // as a signal would; any thread
    int signal() const; // the signal that ended the run, 0 if none did
    // Whether that signal came from somebody else: a person, another process. A software card ends
    // a run by a signal of this process.
    bool interrupted() const;
};

// Ends the run that there is, as RunFlag::stop(). For code that the feed calls.
void stop_run();

} // namespace vorn_cli
