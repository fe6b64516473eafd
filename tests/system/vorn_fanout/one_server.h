#pragma once

// A server, a session and what is run over them, all on this machine.

#include "hosts.h"
#include "nats_servers.h"
#include "process.h"
#include "session.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

namespace vorn_fanout {

// The objects that a program has printed, a line each.
std::vector<nlohmann::json> objects_of(const std::string& text);
// Instrument and change number of those of a type.
std::vector<Change> changes_in(const std::vector<nlohmann::json>& objects,
                               const std::string& type = "update");

// The lines of a text, in an order in which those of two recordings can be compared.
std::vector<std::string> sorted_rows(const std::string& text);

class OneServer : public testing::Test {
protected:
    static const Updates& session(); // made once

    // Runs `vorn` with these arguments and the server's URL.
    std::unique_ptr<Process> start(const std::string& name, std::vector<std::string> arguments);
    struct Run {
        int status;
        std::string out;
        std::string err;
    };
    Run run(std::vector<std::string> arguments);
    // Sends a bus that its writer has closed to the stream, all of it; returns the last report.
    nlohmann::json send(const SessionBus& bus, const std::string& name,
                        const std::vector<std::string>& more = {});
    // What `vorn tap` hears of the stream as it is now.
    std::vector<nlohmann::json> hear(std::vector<std::string> arguments);

    std::string path(const std::string& name) const { return (directory_.path() / name).string(); }

    const support::TempDir directory_;
    const Hosts hosts_{{}};
    NatsServers servers_{hosts_, directory_.path(), 1};

private:
    int runs_ = 0;
};

} // namespace vorn_fanout
