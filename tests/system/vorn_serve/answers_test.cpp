// What the server answers to well-meant requests, and with a token.

#include "tests/system/vorn_check/run_program.h"
#include "tests/system/vorn_serve/served_feed.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace serve_test;
using testing::HasSubstr;
using testing::Not;

namespace {

nlohmann::json json_of(const std::string& answer) {
    return nlohmann::json::parse(body_of(answer));
}

TEST(Serve, AnswersWithTheFeedAsJson) {
    const ServedFeed feed;
    EXPECT_EQ(json_of(feed.get("/api/status")).at("type"), "status");
    const auto list = json_of(feed.get("/api/instruments?q=CU&limit=5"));
    EXPECT_EQ(list.at("total"), 1);
    EXPECT_EQ(list.at("instruments").at(0).at("inst_id"), "cu2603");
    const auto book = json_of(feed.get("/api/instruments/cu2603"));
    EXPECT_EQ(book.at("bids").at(0).at("price"), 99.0);
    EXPECT_EQ(book.at("asks").at(0).at("price"), 101.0);
    EXPECT_EQ(json_of(feed.get("/api/events?limit=1")).at("events").size(), 1u);
    EXPECT_THAT(feed.get("/metrics"), HasSubstr("vorn_feed_instruments 1\n"));
}

TEST(Serve, ShowsTheBuiltPageAndLetsBrowsersKeepIt) {
    const ServedFeed feed;
    const std::string page = feed.get("/");
    EXPECT_EQ(status_of_answer(page), 200);
    EXPECT_THAT(page, HasSubstr("Content-Type: text/html; charset=utf-8\r\n"));
    EXPECT_THAT(page, HasSubstr("Content-Security-Policy: default-src 'none'; script-src 'self'"));
    EXPECT_THAT(page, HasSubstr("X-Content-Type-Options: nosniff\r\n"));
    EXPECT_THAT(page, Not(HasSubstr("unsafe-inline")));
    const std::size_t at = page.find("ETag: ");
    const std::string etag = page.substr(at + 6, page.find("\r\n", at) - at - 6);
    EXPECT_EQ(feed.status_of("/", "If-None-Match: " + etag + "\r\n"), 304);
    EXPECT_EQ(feed.status_of("/", "If-None-Match: \"other\"\r\n"), 200);
    EXPECT_THAT(feed.get("/app.js"), HasSubstr("Content-Type: text/javascript"));
}

TEST(Serve, SendsBooksAsTheyChange) {
    ServedFeed feed;
    const Client client(feed.port());
    client.send("GET /api/stream?instrument=cu2603&q= HTTP/1.1\r\nHost: localhost\r\n\r\n");
    const std::string first = client.read_until("event: chart");
    EXPECT_THAT(first, HasSubstr("Content-Type: text/event-stream"));
    EXPECT_THAT(first, HasSubstr("event: status\ndata: {"));
    EXPECT_THAT(first, HasSubstr("event: events\ndata: {"));
    EXPECT_THAT(first, HasSubstr("event: instruments\ndata: {"));
    EXPECT_THAT(first, HasSubstr("\"last_px\":100.0"));
    feed.bus().writer().publish(record_of("cu2603", 123, 9), 7);
    const std::string next = client.read_until("event: trades");
    EXPECT_THAT(next, HasSubstr("event: book"));
    EXPECT_THAT(next, HasSubstr("\"last_px\":123.0"));
    EXPECT_THAT(next + client.read_until("\n\n"), HasSubstr("\"volume\":4}"));
}

TEST(Serve, KeepsAConnectionForMoreRequests) {
    const ServedFeed feed;
    const Client client(feed.port());
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(client.send("GET /app.js HTTP/1.1\r\nHost: localhost\r\n\r\n"));
        ASSERT_THAT(client.read_until("export {};"), HasSubstr("200 OK"));
    }
}

TEST(Serve, AnswersHeadWithoutABody) {
    const ServedFeed feed;
    const Client client(feed.port());
    client.send("HEAD /app.js HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    const std::string answer = client.read_all();
    EXPECT_EQ(status_of_answer(answer), 200);
    EXPECT_EQ(body_of(answer), "");
}

TEST(Serve, EndsInOrderWithPagesOpen) {
    ServedFeed feed;
    const Client client(feed.port());
    client.send("GET /api/stream HTTP/1.1\r\nHost: localhost\r\n\r\n");
    client.read_until("event: status");
    EXPECT_EQ(feed.stop(), 0);
}

TEST(Serve, AsksForItsTokenEverywhereButForHealth) {
    const ServedFeed feed({"--token", "correct-horse"});
    for (const char* target : {"/", "/app.js", "/api/status", "/api/instruments",
                               "/api/instruments/cu2603", "/api/events", "/api/stream", "/metrics",
                               "/missing", "/healthz/", "//healthz", "/HEALTHZ"}) {
        EXPECT_EQ(feed.status_of(target), 401) << target;
        EXPECT_EQ(feed.status_of(target, "Authorization: Bearer correct-hors\r\n"), 401) << target;
        EXPECT_EQ(feed.status_of(target, "Authorization: Basic correct-horse\r\n"), 401) << target;
        EXPECT_EQ(feed.status_of(target, "Cookie: vorn_token=wrong-horse1\r\n"), 401) << target;
    }
    EXPECT_NE(feed.status_of("/healthz"), 401);
    EXPECT_EQ(feed.status_of("/?token=wrong-horse"), 401);
    EXPECT_EQ(feed.status_of("/api/status", "Authorization: Bearer correct-horse\r\n"), 200);
    EXPECT_EQ(feed.status_of("/api/status", "Cookie: a=b; vorn_token=correct-horse\r\n"), 200);
    EXPECT_EQ(feed.status_of("/api/status?token=correct-horse"), 200);
}

TEST(Serve, TakesTheTokenOutOfTheAddress) {
    const ServedFeed feed({"--token", "correct-horse"});
    const std::string answer = feed.get("/?token=correct-horse");
    EXPECT_EQ(status_of_answer(answer), 303);
    EXPECT_THAT(answer, HasSubstr("Location: /\r\n"));
    EXPECT_THAT(answer, HasSubstr("Set-Cookie: vorn_token=correct-horse; Path=/; HttpOnly; "
                                  "SameSite=Strict\r\n"));
}

TEST(Serve, RefusesToBeSeenFromOutsideWithoutAToken) {
    const support::TempDir directory;
    const auto run =
        vorn_check::run_program({VORN_PROGRAM, "serve", "--listen", "0.0.0.0:0"}, directory.path());
    EXPECT_EQ(run.exit_status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "vorn serve: 0.0.0.0 can be reached from other machines: give --token or "
                       "--token-file with it, or listen on 127.0.0.1\n");
}

TEST(Serve, SaysInOneLineWhatIsWrongWithItsOptions) {
    const support::TempDir directory;
    const struct {
        std::vector<std::string> words;
        int status;
        const char* text;
    } kCases[] = {
        {{"--listen", "nonsense"}, 2, "--listen 'nonsense': the port is missing"},
        {{"--token", "short"}, 2, "a token has 8 to 256 characters"},
        {{"--token-file", "missing"}, 2, "cannot read a token from missing"},
        {{"--bus", "a b"}, 2, "'a b' is not a name for a bus"},
        {{"--web", "missing"}, 2, "--web missing: No such file or directory"},
        {{"--listen", "192.0.2.1:0", "--token", "longenough"}, 1, "cannot listen on 192.0.2.1:0"},
    };
    for (const auto& test : kCases) {
        std::vector<std::string> words = {VORN_PROGRAM, "serve"};
        words.insert(words.end(), test.words.begin(), test.words.end());
        const auto run = vorn_check::run_program(words, directory.path());
        EXPECT_EQ(run.exit_status, test.status) << test.text;
        EXPECT_THAT(run.err, HasSubstr(test.text));
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
}

TEST(Serve, SaysThatItsPortIsTaken) {
    const ServedFeed feed;
    const support::TempDir directory;
    const auto run = vorn_check::run_program(
        {VORN_PROGRAM, "serve", "--listen", "127.0.0.1:" + std::to_string(feed.port())},
        directory.path());
    EXPECT_EQ(run.exit_status, 1);
    EXPECT_THAT(run.err, HasSubstr("Address already in use"));
}

} // namespace
