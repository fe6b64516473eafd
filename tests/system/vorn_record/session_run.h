#pragma once

// Runs of the feed that keep every callback, each in a process of its own.

#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace vorn_record {

// What `device` takes, and the callbacks that came of it: whole records, one behind the other.
struct SessionRun {
    std::string callbacks;
    uint64_t updates = 0;
    uint64_t cycles = 0;
    uint64_t gaps = 0;
    uint64_t lost = 0;      // by the recorder
    uint64_t overflows = 0; // by the card
};

class RecordedSession : public testing::Test {
protected:
    // A session as NAME, quietly.
    void sim(const std::string& name, const std::vector<std::string>& more) const;
    // The feed over `device`, recorded into `recording` unless that is empty.
    SessionRun run(const std::string& device, const std::string& recording,
                   const std::string& feeds = "both") const;
    SessionRun replay(const std::string& capture, const std::string& feeds = "both") const {
        return run("pcap:" + path(capture) + "?eof=stop", "", feeds);
    }
    support::ChildRun vorn(std::vector<std::string> arguments) const;
    // A configuration for every instrument of both exchanges, or of one ("shfe", "ine").
    void config(const std::string& name, const std::string& device,
                const std::string& feeds = "both") const;

    std::string path(const std::string& file) const { return (directory_.path() / file).string(); }
    std::string content(const std::string& file) const { return support::read_file(path(file)); }

    support::TempDir directory_;
};

// Where the first difference of two strings of records is, for messages; empty if there is none.
std::string first_difference(const SessionRun& a, const SessionRun& b);

bool contains(const std::string& text, const std::string& part);
std::size_t lines(const std::string& text);

} // namespace vorn_record
