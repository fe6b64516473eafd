#include "faulty_session.h"

#include <sstream>

namespace vorn_faults {

void FaultySession::make(const std::vector<std::string>& more) const {
    undisturbed_.reset();
    std::vector<std::string> options = {"--seed",
                                        "7",
                                        "--changes",
                                        "16000",
                                        "--instruments",
                                        "60",
                                        "--rate",
                                        "20000",
                                        "--set",
                                        "first_round_ms=50",
                                        "--set",
                                        "round_interval_ms=150",
                                        "--set",
                                        "round_ms=10",
                                        "-f"};
    options.insert(options.end(), more.begin(), more.end());
    std::vector<std::string> arguments = {"sim", "-q", "-o", "s.pcap"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const auto run = vorn(arguments);
    ASSERT_EQ(run.exit_status, 0) << run.err;
    ASSERT_EQ(run.err, "");
}

void FaultySession::make_large() const {
    const auto run = vorn({"sim",
                           "-q",
                           "-o",
                           "s.pcap",
                           "--seed",
                           "7",
                           "--changes",
                           "10000",
                           "--instruments",
                           "640",
                           "--rate",
                           "20000",
                           "--set",
                           "feeds=shfe",
                           "--set",
                           "first_round_ms=20",
                           "--set",
                           "round_interval_ms=50",
                           "--set",
                           "round_ms=10"});
    ASSERT_EQ(run.exit_status, 0) << run.err;
}

Outcome FaultySession::verify(const std::vector<std::string>& faults, const std::string& config,
                              const std::string& fault_seed) const {
    std::vector<std::string> arguments = {"verify", "s.pcap",       "--allow-restarts",
                                          "--json", "--fault-seed", fault_seed};
    for (const std::string& fault : faults) {
        arguments.insert(arguments.end(), {"--fault", fault});
    }
    if (!config.empty()) {
        directory_.write("vorn.ini", config);
        arguments.insert(arguments.end(), {"--config", "vorn.ini"});
    }
    const auto run = vorn(arguments);
    Outcome outcome;
    outcome.exit_status = run.exit_status;
    outcome.err = run.err;
    std::istringstream objects(run.out);
    for (std::string line; std::getline(objects, line);) {
        outcome.differences.push_back(nlohmann::json::parse(line, nullptr, false));
        EXPECT_TRUE(outcome.differences.back().is_object()) << line;
    }
    EXPECT_FALSE(outcome.differences.empty()) << run.err;
    if (!outcome.differences.empty()) {
        outcome.summary = outcome.differences.back();
        outcome.differences.pop_back();
    }
    return outcome;
}

const Outcome& FaultySession::undisturbed(const std::string& config) const {
    if (!undisturbed_) {
        undisturbed_ = verify({}, config);
    }
    return *undisturbed_;
}

void FaultySession::expect_equal(const Outcome& outcome, std::size_t instruments) {
    EXPECT_EQ(outcome.exit_status, 0) << outcome.err;
    EXPECT_EQ(outcome.count("differences"), 0u);
    EXPECT_EQ(outcome.count("instruments"), instruments);
    EXPECT_EQ(outcome.count("instruments_updated"), instruments);
    EXPECT_EQ(outcome.summary.at("result"), 0);
}

void FaultySession::expect_no_effect(const Outcome& outcome) const {
    expect_equal(outcome);
    expect_equal(undisturbed());
    for (const char* same :
         {"updates", "live_applied", "restarts", "gaps", "restored_books", "other", "overflows"}) {
        EXPECT_EQ(outcome.count(same), undisturbed().count(same)) << same;
    }
    EXPECT_EQ(outcome.count("restarts"), 0u);
}

Messages FaultySession::without_gaps(Messages messages) {
    std::erase_if(messages, [](const auto& each) { return each.first.starts_with(kGapShape); });
    return messages;
}

} // namespace vorn_faults
