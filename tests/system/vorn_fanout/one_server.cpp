#include "one_server.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace vorn_fanout {

std::vector<nlohmann::json> objects_of(const std::string& text) {
    std::vector<nlohmann::json> objects;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        auto object = nlohmann::json::parse(line, nullptr, false);
        if (object.is_object()) { // the last line may be on its way
            objects.push_back(std::move(object));
        }
    }
    return objects;
}

std::vector<Change> changes_in(const std::vector<nlohmann::json>& objects,
                               const std::string& type) {
    std::vector<Change> changes;
    for (const auto& object : objects) {
        if (object["type"] == type) {
            changes.emplace_back(object["inst_id"], object["change_no"]);
        }
    }
    return changes;
}

std::vector<std::string> sorted_rows(const std::string& text) {
    std::vector<std::string> rows;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        rows.push_back(line);
    }
    std::sort(rows.begin(), rows.end());
    return rows;
}

const Updates& OneServer::session() {
    static const Updates updates = replay_session(3000, 40, "both");
    return updates;
}

std::unique_ptr<Process> OneServer::start(const std::string& name,
                                          std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), VORN_PROGRAM);
    if (arguments[1] == "fanout" || arguments[1] == "tap") {
        arguments.insert(arguments.end(), {"-s", servers_.urls(), "--wait", "200"});
    }
    return std::make_unique<Process>(hosts_.on("", arguments), directory_.path(), name);
}

OneServer::Run OneServer::run(std::vector<std::string> arguments) {
    const auto process = start("run" + std::to_string(++runs_), std::move(arguments));
    const int status = process->wait();
    return {status, process->out(), process->err()};
}

nlohmann::json OneServer::send(const SessionBus& bus, const std::string& name,
                               const std::vector<std::string>& more) {
    std::vector<std::string> arguments = {"fanout",   "--name",         name,    "--bus",
                                          bus.path(), "--until-closed", "--json"};
    if (std::find(more.begin(), more.end(), "--label") == more.end()) {
        arguments.insert(arguments.end(), {"--label", "day1"});
    }
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Run done = run(arguments);
    EXPECT_EQ(done.status, 0) << done.err;
    const auto reports = objects_of(done.out);
    EXPECT_FALSE(reports.empty());
    return reports.empty() ? nlohmann::json() : reports.back();
}

std::vector<nlohmann::json> OneServer::hear(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "tap");
    arguments.insert(arguments.end(), {"--json", "--once"});
    const Run done = run(arguments);
    EXPECT_EQ(done.status, 0) << done.err;
    return objects_of(done.out);
}

} // namespace vorn_fanout
