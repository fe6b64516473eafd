// Nobody reads standard output any more, where the log goes: the pipe is full, and a thread that
// has something to say waits in the logger for ever. A live feed with nothing to say must not wait.

#include "feed_fixture.h"

#include "CommonLog.h"
#include "wirekit/mirp.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

#define LOG_FILE_TAG "BlockedLog"

namespace {

constexpr uint32_t kSnapshotChange = 7; // of rebar()
constexpr uint32_t kChanges = 300;
// Far more than the test takes: reached only by a feed that waits.
constexpr unsigned kFarTooLongSeconds = 120;

// Standard output as a full pipe, from block() to unblock(); with a thread that waits in the
// logger.
class BlockedOutput {
public:
    BlockedOutput() {
        if (::pipe2(pipe_, O_CLOEXEC) != 0) {
            std::abort();
        }
        ::fcntl(pipe_[1], F_SETFL, O_NONBLOCK);
        const char filler[4096] = {};
        while (::write(pipe_[1], filler, sizeof filler) > 0) {
        }
        while (::write(pipe_[1], filler, 1) > 0) {
        }
        ::fcntl(pipe_[1], F_SETFL, 0);
    }
    void block() {
        std::fflush(stdout);
        output_ = ::dup(STDOUT_FILENO);
        ::dup2(pipe_[1], STDOUT_FILENO);
        std::atomic<pid_t> id{0};
        waiting_ = std::thread([&id] {
            id = ::gettid();
            MD_LOG(LOG_ERROR, "somebody else's line");
        });
        while (id == 0 || !is_asleep(id)) {
            std::this_thread::yield();
        }
    }
    void unblock() {
        ::dup2(output_, STDOUT_FILENO);
        ::fcntl(pipe_[0], F_SETFL, O_NONBLOCK);
        char taken[4096];
        while (::read(pipe_[0], taken, sizeof taken) > 0) {
        }
        waiting_.join();
        ::close(output_);
        ::close(pipe_[0]);
        ::close(pipe_[1]);
    }

private:
    // Its state in the kernel's list; the name in brackets before it has no bracket in it.
    static bool is_asleep(pid_t thread) {
        const std::string stat =
            support::read_file("/proc/self/task/" + std::to_string(thread) + "/stat");
        const std::size_t at = stat.rfind(") ");
        return at != std::string::npos && stat[at + 2] == 'S';
    }

    int pipe_[2];
    int output_ = -1;
    std::thread waiting_;
};

TEST(FeedBlockedLog, DoesNotHoldUpALiveFeedThatHasNothingToSay) {
    ::alarm(kFarTooLongSeconds);
    FeedFixture feed;
    feed.config = shfe_config(feed.cpu(), "log_level = 7\n");
    Cycle cycle;
    cycle.snapshot = snapshot_frames(kShfe, {rebar()});
    for (uint32_t i = 1; i <= kChanges; ++i) {
        cycle.after.push_back(shfe_stamp(kSnapshotChange + i));
        // What the feed ignores it would speak of at the levels that are off.
        cycle.after.push_back(shfe_stamp(kSnapshotChange));
        cycle.after.push_back(
            wirekit::decode_buffer().topic(1000).instrument(9).change_no(i).bytes());
        cycle.after.push_back(Bytes(7)); // too short
    }
    feed.cycles = {cycle};
    BlockedOutput output;
    feed.at_poll = [&](std::size_t, bool loading, uint64_t poll) {
        if (!loading && poll == 2) {
            output.block();
        }
    };
    std::size_t updates_while_blocked = 0;
    feed.at_update = [&](instrument*) {
        if (++updates_while_blocked == kChanges) {
            output.unblock();
        }
    };
    EXPECT_EQ(feed.run(), 0);
    EXPECT_EQ(updates_while_blocked, kChanges);
    ::alarm(0);
}

} // namespace
