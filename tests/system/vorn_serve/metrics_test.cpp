// The metrics and the alerts, as Prometheus and its own tool take them.

#include "tests/system/vorn_check/run_program.h"
#include "tests/system/vorn_serve/served_feed.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

using namespace serve_test;
using testing::HasSubstr;

namespace {

TEST(Metrics, HaveNothingThatPromtoolMinds) {
    const ServedFeed feed({"--token", "correct-horse"});
    const std::string metrics =
        body_of(feed.get("/metrics", "Authorization: Bearer correct-horse\r\n"));
    ASSERT_THAT(metrics, HasSubstr("# TYPE vorn_feed_gaps_total counter\n"));
    const std::string file = feed.directory().write("metrics", metrics);
    const auto run = vorn_check::run_program({"/bin/sh", "-c", "promtool check metrics < metrics"},
                                             feed.directory().path());
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.out + run.err, "");
}

TEST(Alerts, AreRaisedWhenTheyShouldAndOnlyThen) {
    const auto run = vorn_check::run_program(
        {"/usr/bin/env", "promtool", "test", "rules", "vorn_rules_test.yml"},
        std::string(VORN_SOURCE_DIR) + "/ops/prometheus");
    EXPECT_EQ(run.exit_status, 0) << run.out << run.err;
}

TEST(Alerts, AreInAConfigurationThatPrometheusTakes) {
    const auto run =
        vorn_check::run_program({"/usr/bin/env", "promtool", "check", "config", "prometheus.yml"},
                                std::string(VORN_SOURCE_DIR) + "/ops/prometheus");
    EXPECT_EQ(run.exit_status, 0) << run.out << run.err;
}

// A port that was free a moment ago.
int free_port() {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(socket);
    return ntohs(address.sin_port);
}

class Prometheus {
public:
    explicit Prometheus(const ServedFeed& feed) : port_(free_port()) {
        const std::filesystem::path folder = feed.directory().path();
        feed.directory().write("token", "correct-horse");
        feed.directory().write("prometheus.yml",
                               "global: {scrape_interval: 1s, evaluation_interval: 1s}\n"
                               "rule_files: [" VORN_SOURCE_DIR "/ops/prometheus/vorn_rules.yml]\n"
                               "scrape_configs:\n"
                               "  - job_name: vorn\n"
                               "    authorization: {credentials_file: token}\n"
                               "    static_configs: [{targets: ['127.0.0.1:" +
                                   std::to_string(feed.port()) + "']}]\n");
        pid_ = ::fork();
        if (pid_ == 0) {
            const std::string listen = "--web.listen-address=127.0.0.1:" + std::to_string(port_);
            const int nowhere = ::open("/dev/null", O_RDWR);
            ::dup2(nowhere, STDOUT_FILENO);
            ::dup2(nowhere, STDERR_FILENO);
            if (::chdir(folder.c_str()) == 0) {
                ::execlp("prometheus", "prometheus", "--config.file=prometheus.yml",
                         "--storage.tsdb.path=data", listen.c_str(), nullptr);
            }
            ::_exit(127);
        }
    }
    ~Prometheus() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Prometheus(const Prometheus&) = delete;
    Prometheus& operator=(const Prometheus&) = delete;

    bool runs() {
        if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) != 0) {
            pid_ = -1;
        }
        return pid_ > 0;
    }
    // Empty when it does not answer yet.
    std::string get(const std::string& target) const {
        try {
            const Client client(port_);
            client.send("GET " + target + " HTTP/1.0\r\n\r\n");
            return body_of(client.read_all());
        } catch (const std::runtime_error&) {
            return {};
        }
    }
    // The value of a query with one result; empty without one.
    std::string value_of(const std::string& query) const {
        const auto answer =
            nlohmann::json::parse(get("/api/v1/query?query=" + query), nullptr, false);
        if (!answer.is_object() || answer.at("data").at("result").empty()) {
            return {};
        }
        return answer.at("data").at("result").at(0).at("value").at(1);
    }

private:
    int port_;
    pid_t pid_;
};

TEST(Prometheus, ScrapesTheFeedWithItsToken) {
    ServedFeed feed({"--token", "correct-horse"});
    // Another program may take the port before it does; then it ends and another one is tried.
    std::unique_ptr<Prometheus> prometheus;
    for (int tries = 0; !prometheus || prometheus->value_of("up") != "1";) {
        if (!prometheus || !prometheus->runs()) {
            ASSERT_LT(++tries, 10) << "it does not start";
            prometheus.reset();
            prometheus = std::make_unique<Prometheus>(feed);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(prometheus->value_of("vorn_feed_instruments"), "1");
    EXPECT_EQ(prometheus->value_of("sum(vorn_feed_state)"), "1");
    EXPECT_EQ(prometheus->value_of("count(vorn_feed_snapshot_frames_total)"), "12");
    EXPECT_THAT(prometheus->get("/api/v1/rules"), HasSubstr("VornRestartStorm"));
}

} // namespace
