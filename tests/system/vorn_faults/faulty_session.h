#pragma once

// A session with several snapshot rounds, so that the feed can recover, and what `vorn verify` says
// of it with faults.

#include "tests/system/vorn_session/session_program.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vorn_faults {

using Messages = std::map<std::string, uint64_t>; // errors and warnings, numbers as '#'

// How a run of `vorn verify --json` came out.
struct Outcome {
    int exit_status = -1;
    std::vector<nlohmann::json> differences; // the first few
    nlohmann::json summary;
    std::string err;

    uint64_t count(const char* name) const { return summary.at(name).get<uint64_t>(); }
    Messages messages() const { return summary.at("messages").get<Messages>(); }
};

inline constexpr char kGapShape[] = "discontinuous changeNo: #, expected changeNo: #, "
                                    "instrumentID: ";

class FaultySession : public vorn_session::SessionProgram {
protected:
    // 60 instruments of both feeds, 16,000 changes in 0.8 seconds, rounds every 150 ms from 50 ms
    // on, each 10 ms long. The options `more` come on top.
    void make(const std::vector<std::string>& more = {}) const;
    // 640 instruments of SHFE alone and 10 rounds of some 230 segments each, so that a stream with
    // a hole comes to the number of segments that the feed is willing to hold.
    void make_large() const;

    // `vorn verify` with restarts allowed and these faults. A configuration is that of `config`,
    // otherwise every instrument of both feeds, with recovery.
    Outcome verify(const std::vector<std::string>& faults, const std::string& config = {},
                   const std::string& fault_seed = "1") const;

    // The same without faults; run once a session.
    const Outcome& undisturbed(const std::string& config = {}) const;

    // Every update was right and every instrument ended where the exchange left it.
    static void expect_equal(const Outcome& outcome, std::size_t instruments = 60);
    // The feed took no notice at all: it did the same as in the undisturbed session.
    void expect_no_effect(const Outcome& outcome) const;
    // Messages apart from those of gaps, which name the instrument.
    static Messages without_gaps(Messages messages);

private:
    mutable std::optional<Outcome> undisturbed_;
};

// Configurations: the feed as it always was, and SHFE alone with recovery or without.
inline constexpr char kWithoutRecovery[] = "[config]\ninsts = all\nshfe2ps = enabled\n"
                                           "ine2ps = enabled\n";
inline constexpr char kShfe[] = "[config]\ninsts = all\nshfe2ps = enabled\nrecovery = enabled\n";
inline constexpr char kShfeWithoutRecovery[] = "[config]\ninsts = all\nshfe2ps = enabled\n";

} // namespace vorn_faults
