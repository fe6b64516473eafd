#include "info_program.h"

#include "tests/system/vorn_check/run_program.h"

#include <sstream>

namespace vorn_info {

support::ChildRun InfoProgram::vorn(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), VORN_PROGRAM);
    return vorn_check::run_program(arguments, directory_.path());
}

vorn_session::SessionCapture InfoProgram::session(const std::vector<std::string>& more) const {
    std::vector<std::string> arguments = {
        "sim",          "-q",        "-f",   "--no-truth",    "-o",
        "session.pcap", "--changes", "2000", "--instruments", "30"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const auto run = vorn(arguments);
    EXPECT_EQ(run.exit_status, 0) << run.err;
    return vorn_session::SessionCapture(support::read_file(directory_.path() / "session.pcap"));
}

std::vector<nlohmann::json> InfoProgram::info(std::vector<std::string> more,
                                              const std::string& capture) const {
    more.insert(more.begin(), {"info", capture, "--json"});
    const auto run = vorn(more);
    EXPECT_EQ(run.exit_status, 0) << run.err;
    std::vector<nlohmann::json> objects;
    std::istringstream out(run.out);
    for (std::string line; std::getline(out, line);) {
        objects.push_back(nlohmann::json::parse(line, nullptr, false));
        EXPECT_TRUE(objects.back().is_object()) << line;
    }
    EXPECT_FALSE(objects.empty());
    return objects;
}

} // namespace vorn_info
