// What the system refuses: memory and threads. The feed ends with a line that says why, and no
// exception reaches its caller.

#include "feed_fixture.h"
#include "refusals.h"
#include "tcp/ExanicTcpFunc.h"
#include "tcp/FramePool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

TEST(FeedRefusal, WithoutAConfigurationFilesNameFails) {
    FeedFixture feed;
    feed.keep_running = 1;
    const support::LogCapture capture;
    EXPECT_EQ(::vorn_recv(nullptr, &feed.keep_running), -1);
    EXPECT_THAT(capture.summary("E"),
                ElementsAre("E ConfigParse _LoadConfig unable to open config file: ",
                            "E ExanicMdImpl vorn_recv failed to initialize config data"));
    std::free(system_calls::take_block(sizeof(share)));
}

TEST(FeedRefusal, ASilentFeedFailsAsALoudOneDoes) {
    FeedFixture feed;
    feed.config = config_text(feed.cpu(), "log_level = 0\nshfe2ps = off\nine2ps = off\n");
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log_at("EW"), IsEmpty());

    FeedFixture without_card;
    without_card.config = config_text(without_card.cpu(), "log_level = 0\n");
    without_card.card.fail(ScriptedCard::Call::kAcquireHandle, "No such device");
    EXPECT_EQ(without_card.run(), -1);
    EXPECT_THAT(without_card.log_at("EW"), IsEmpty());
}

TEST(FeedRefusal, WithoutASnapshotThreadFails) {
    FeedFixture feed;
    const refusals::NoNewThreads none;
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log_at("E"), ElementsAre(StartsWith("E ExanicMdImpl vorn_recv failed to start "
                                                         "snapshot decoder thread: ")));
    EXPECT_EQ(feed.card.polls(1), 0U);
}

#if FEED_TEST_ALLOCATION_STUB

TEST(FeedRefusal, WithoutMemoryForTheCacheFails) {
    FeedFixture feed;
    const refusals::NoMemoryFor cache(CACHE_BUF_SIZE, CACHE_BUF_SIZE);
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log, ElementsAre("E ExanicMdImpl vorn_recv failed to allocate cache buffer"));
    EXPECT_THAT(feed.card.calls(), IsEmpty());
}

TEST(FeedRefusal, WithoutMemoryForItselfFails) {
    FeedFixture feed;
    const refusals::NoMemoryFor channels(sizeof(CExanicTcpFunc), CACHE_BUF_SIZE - 1);
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log, ElementsAre("E ExanicMdImpl vorn_recv the feed ended: std::bad_alloc"));
    EXPECT_THAT(feed.card.calls(), IsEmpty());
}

TEST(FeedRefusal, WithoutMemoryForAFrameTheSnapshotFails) {
    FeedFixture feed;
    feed.cycles = {{.cached = {}, .snapshot = snapshot_frames(kShfe, {rebar()}), .after = {}}};
    const refusals::NoMemoryFor frames(sizeof(FramePool::Buffer), sizeof(FramePool::Buffer));
    EXPECT_EQ(feed.run(), -1);
    EXPECT_THAT(feed.log, Contains("E ExanicMdImpl vorn_recv snapshot decoder thread ended: "
                                   "std::bad_alloc"));
    EXPECT_THAT(feed.updates, IsEmpty());
}

#endif

} // namespace
