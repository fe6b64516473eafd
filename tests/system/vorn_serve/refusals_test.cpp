// What does not deserve an answer gets a clear refusal, and the server goes on.

#include "tests/system/vorn_serve/served_feed.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/resource.h>

using namespace serve_test;
using testing::HasSubstr;

namespace {

struct BadRequest {
    const char* name;
    std::string bytes;
    int status;
    const char* error; // in its body
};

std::string get(const std::string& target) {
    return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
}

const std::vector<BadRequest>& bad_requests() {
    static const std::vector<BadRequest> kRequests = {
        {"UnknownPath", get("/nothing"), 404, "there is nothing here"},
        {"UnknownApi", get("/api/nothing"), 404, "there is nothing here"},
        {"UnknownInstrument", get("/api/instruments/zz9999"), 404, "no instrument of this name"},
        {"LongInstrument", get("/api/instruments/" + std::string(4000, 'a')), 404, "no instrument"},
        {"BytesAsInstrument", get("/api/instruments/%ff%00%0d%0a"), 404, "no instrument"},
        {"UpAndOut", get("/../secret.html"), 404, "there is nothing here"},
        {"UpAndOutEncoded", get("/%2e%2e/secret.html"), 404, "there is nothing here"},
        {"UpAndOutSlashEncoded", get("/..%2fsecret.html"), 404, "there is nothing here"},
        {"UpAndOutTwice", get("/a/../../secret.html"), 404, "there is nothing here"},
        {"AbsolutePath", get("//etc/passwd"), 404, "there is nothing here"},
        {"Link", get("/link.html"), 404, "there is nothing here"},
        {"Folder", get("/."), 404, "there is nothing here"},
        {"ZeroInPath", get("/app.js%00.html"), 404, "there is nothing here"},
        {"LimitOfWords", get("/api/instruments?limit=many"), 400, "limit is a number from 1"},
        {"LimitOfNothing", get("/api/instruments?limit=0"), 400, "limit is a number from 1"},
        {"LimitTooHigh", get("/api/events?limit=1000000"), 400, "limit is a number from 1"},
        {"LongQuery", get("/api/instruments?q=" + std::string(65, 'a')), 400, "q has at most"},
        {"LongQueryOfAStream", get("/api/stream?q=" + std::string(65, 'a')), 400, "q has at most"},
        {"Post", "POST /api/status HTTP/1.1\r\nHost: localhost\r\nContent-Length: 2\r\n\r\n{}", 405,
         "only GET and HEAD"},
        {"PostWithoutEnd",
         "POST / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\nfffffff\r\n", 405,
         "only GET and HEAD"},
        {"Delete", "DELETE / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n", 405,
         "only GET and HEAD"},
        {"UnknownMethod", "BREW / HTTP/1.1\r\nHost: localhost\r\n\r\n", 400, "not an HTTP request"},
        {"NoHttp", "hello\r\n\r\n", 400, "not an HTTP request"},
        {"TlsHello", std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n", 15), 400,
         "not an HTTP request"},
        {"Zeros", std::string(64, '\0') + "\r\n\r\n", 400, "not an HTTP request"},
        {"LongTarget", "GET /" + std::string(9000, 'a') + " HTTP/1.1\r\nHost: localhost\r\n\r\n",
         414, "the address is too long"},
        {"HugeHeader",
         "GET / HTTP/1.1\r\nHost: localhost\r\nX: " + std::string(100'000, 'a') + "\r\n\r\n", 431,
         "at most 16384 bytes"},
        {"HeaderWithoutEnd", "GET / HTTP/1.1\r\nX: " + std::string(17'000, 'a'), 431,
         "at most 16384 bytes"},
        {"LineWithoutEnd", std::string(20'000, 'G'), 431, "at most 16384 bytes"},
        {"OtherHost", "GET /api/status HTTP/1.1\r\nHost: example.org\r\nConnection: close\r\n\r\n",
         421, "answers to 127.0.0.1"},
    };
    return kRequests;
}

// One server for all: that the last row is answered shows that none before it did harm.
TEST(ServeRefuses, EachBadRequestWithAStatusAndALine) {
    ServedFeed feed;
    for (const BadRequest& bad : bad_requests()) {
        SCOPED_TRACE(bad.name);
        const Client client(feed.port());
        client.send(bad.bytes);
        client.shut_writing();
        const std::string answer = client.read_all();
        EXPECT_EQ(status_of_answer(answer), bad.status);
        const auto body = nlohmann::json::parse(body_of(answer), nullptr, false);
        ASSERT_TRUE(body.is_object()) << answer;
        EXPECT_THAT(body.at("error").get<std::string>(), HasSubstr(bad.error));
        EXPECT_EQ(answer.find("secret"), std::string::npos);
    }
    EXPECT_EQ(feed.status_of("/api/status"), 200);
    EXPECT_EQ(feed.stop(), 0);
}

TEST(ServeRefuses, ManyHeadersAsOneHugeOne) {
    const ServedFeed feed;
    const Client client(feed.port());
    std::string headers;
    for (int i = 0; i < 3000; ++i) {
        headers += "X-" + std::to_string(i) + ": 1\r\n";
    }
    client.send("GET / HTTP/1.1\r\n" + headers + "\r\n");
    EXPECT_EQ(status_of_answer(client.read_all()), 431);
}

TEST(ServeRefuses, ARequestThatDoesNotComeToItsEnd) {
    const ServedFeed feed;
    const Client half(feed.port());
    half.send("GET /api/status HTTP/1.1\r\nHost: loc");
    const Client silent(feed.port());
    EXPECT_EQ(feed.status_of("/api/status"), 200); // meanwhile
    const std::string answer = half.read_all();
    EXPECT_EQ(status_of_answer(answer), 408);
    EXPECT_THAT(answer, HasSubstr("did not come to its end in time"));
    EXPECT_EQ(silent.read_all(), ""); // said nothing, is told nothing
}

TEST(ServeRefuses, MoreConnectionsThanItsBound) {
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = std::min<rlim_t>(files.rlim_max, 4096);
    ::setrlimit(RLIMIT_NOFILE, &files);
    ServedFeed feed;
    std::vector<Client> clients;
    for (int i = 0; i < 1000; ++i) {
        clients.emplace_back(feed.port());
    }
    // Those beyond the bound are told so without having asked. The others wait for a request, and
    // end without a word when none comes.
    std::size_t refused = 0;
    std::size_t silent = 0;
    for (std::size_t i = 320; i < clients.size(); ++i) {
        const std::string answer = clients[i].read_all();
        if (answer.empty()) {
            ++silent; // the machine was so busy that an early one had ended by then
        } else if (answer.starts_with("HTTP/1.1 503 ") &&
                   answer.find("too many connections are open") != std::string::npos) {
            ++refused;
        }
    }
    EXPECT_EQ(refused + silent, 680u);
    EXPECT_GT(refused, 0u);
    EXPECT_THAT(feed.get("/healthz"), testing::AnyOf(HasSubstr("503"), HasSubstr("200 OK")));
    clients.clear();
    int status = 503;
    while (status == 503) { // until it has seen that they are gone
        status = feed.status_of("/api/status");
    }
    EXPECT_EQ(status, 200);
    EXPECT_EQ(feed.stop(), 0);
}

TEST(ServeRefuses, MoreStreamsThanItsBoundAndNoOtherRequests) {
    const ServedFeed feed;
    std::vector<Client> pages;
    const std::string request = "GET /api/stream HTTP/1.1\r\nHost: localhost\r\n\r\n";
    for (int i = 0; i < 240; ++i) {
        pages.emplace_back(feed.port());
        ASSERT_TRUE(pages.back().send(request));
        ASSERT_THAT(pages.back().read_until("event: status"), HasSubstr("200 OK")) << i;
    }
    EXPECT_EQ(feed.status_of("/api/stream"), 503);
    EXPECT_EQ(feed.status_of("/api/status"), 200);
    EXPECT_THAT(feed.get("/metrics"), HasSubstr("vorn_serve_streams 240\n"));
    pages.clear();
    while (feed.get("/metrics").find("vorn_serve_streams 0\n") == std::string::npos) {
    }
}

} // namespace
