// The feed with all of its threads on one core, each of them real-time (SCHED_FIFO, one priority),
// as an operator may well run it: nobody takes the core from a thread that does not give it away.
//
//     one_core [RUNS]
//
// Each run is a process of its own: a snapshot of 20,480 instruments with changes before and behind
// it. The feed must load it, apply every change, and leave each record as the exchange has it. A
// thread that waits without giving the core away never lets the others get there: the run is then
// ended from outside and has failed.
//
// Exit status: 0 fine, 1 a run that did not come to its end or differs, 2 usage, 77 the privilege
// for real-time threads is missing.

#include "ExanicMdImpl.h"
#include "ExanicMdMonitor.h"
#include "exchange_sim/record_bytes.h"
#include "exchange_sim/session.h"
#include "exchange_sim/session_options.h"
#include "feed_card.h"
#include "market_script.h"
#include "process_state.h"
#include "wirekit/ethernet.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using exchange_sim::Exchange;
using exchange_sim::Session;

constexpr uint32_t kInstruments = 20480;
constexpr char kSession[] = "seed=5 instruments=20480 rounds=1 changes=5000 lines=a";
constexpr int kSkipped = 77;
// Not a bound on speed: reached only by a feed that waits for itself.
constexpr auto kFarTooLong = std::chrono::seconds(120);

// The session as one cycle of the card: what comes before the end of the snapshot is cached.
evidence::Cycle cycle_of(Session& session) {
    evidence::Cycle cycle;
    for (exchange_sim::WireFrame frame; session.next(frame);) {
        const auto parsed = wirekit::parse_frame(frame.bytes);
        const auto counters = session.counters();
        if (parsed.kind == wirekit::ParsedFrame::Kind::kTcp) {
            cycle.snapshot.emplace_back(frame.bytes.begin(), frame.bytes.end());
        } else if (parsed.kind == wirekit::ParsedFrame::Kind::kUdp) {
            const bool over = counters.shfe_rounds > 0 && counters.ine_rounds > 0;
            (over ? cycle.after : cycle.cached)
                .emplace_back(parsed.payload.begin(), parsed.payload.end());
        }
    }
    return cycle;
}

struct Expected {
    Session session{exchange_sim::parse_session_options(kSession).options};
    std::vector<evidence::Cycle> cycles{cycle_of(session)};
};

// The records that are not what the exchange has.
std::size_t differing_records(const Session& session, const share& table) {
    std::size_t differing = 0;
    for (std::size_t i = 0; i < session.instruments().size(); ++i) {
        const auto& one = session.instruments()[i];
        const uint32_t slot =
            one.exchange == Exchange::kShfe ? one.number : kInstruments - 1 - one.number;
        const auto truth = exchange_sim::record_bytes(session.truth(i));
        static_assert(sizeof(truth) == sizeof(instrument));
        differing += std::memcmp(&table.instmts[slot], truth.data(), truth.size()) == 0 ? 0 : 1;
    }
    return differing;
}

// In the child: everything from here on has the real-time priority.
[[noreturn]] void run_in_real_time(const Expected& expected) {
    sched_param priority{};
    priority.sched_priority = 1;
    if (::sched_setscheduler(0, SCHED_FIFO, &priority) != 0) {
        ::_exit(kSkipped);
    }
    std::size_t differing = kInstruments;
    evidence::FeedCard& card = evidence::FeedCard::instance();
    int keep_running = 1;
    card.start(expected.cycles, &keep_running);
    card.at_call = [&](evidence::Call call) {
        if (call == evidence::Call::kRelease) { // the table is still there
            differing = differing_records(expected.session, *vorn_md_table());
        }
    };
    static uint64_t updates = 0;
    set_update_md_callback([](instrument*) { ++updates; });
    char path[] = "feed.ini";
    const int result = ::vorn_recv(path, &keep_running);
    vorn_md_counters_t counters{};
    counters.size = sizeof counters;
    ::vorn_md_counters(&counters);
    std::fprintf(stderr,
                 "result %d, %llu snapshot frames, %llu cached, %llu updates, %llu cycles, %zu "
                 "records differ\n",
                 result, static_cast<unsigned long long>(counters.snapshot_frames),
                 static_cast<unsigned long long>(counters.cached),
                 static_cast<unsigned long long>(updates),
                 static_cast<unsigned long long>(counters.cycles), differing);
    const bool whole = result == 0 && differing == 0 && updates != 0 && counters.cycles == 1 &&
                       counters.snapshot_rounds[VORN_MD_FEED_SHFE_2PS] == 1 &&
                       counters.snapshot_rounds[VORN_MD_FEED_INE_2PS] == 1;
    ::_exit(whole ? 0 : 1);
}

// Exit status of the run; -1 when it had to be ended.
int run_once(const Expected& expected) {
    const pid_t child = ::fork();
    if (child == 0) {
        run_in_real_time(expected);
    }
    const auto limit = std::chrono::steady_clock::now() + kFarTooLong;
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > limit) {
            std::fprintf(stderr, "one_core: the feed does not come to its end\n");
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            return -1;
        }
        ::usleep(2000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

int main(int argc, char** argv) {
    const long runs = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 1;
    if (argc > 2 || runs < 1) {
        std::fprintf(stderr, "usage: one_core [RUNS]\n");
        return 2;
    }
    const evidence::ScratchDirectory directory;
    std::ofstream("feed.ini") << evidence::configuration("recovery = enabled\nlog_level = 7\n");
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0 || ::dup2(nowhere, STDOUT_FILENO) < 0) { // where the feed logs
        std::perror("one_core");
        return 1;
    }
    const Expected expected;
    for (long run = 1; run <= runs; ++run) {
        const int status = run_once(expected);
        if (status == kSkipped) {
            std::fprintf(stderr, "SKIPPED: real-time threads need the privilege CAP_SYS_NICE\n");
            return kSkipped;
        }
        if (status != 0) {
            std::fprintf(stderr, "one_core: run %ld of %ld failed\n", run, runs);
            return 1;
        }
    }
    std::fprintf(stderr, "%ld runs\n", runs);
    return 0;
}
