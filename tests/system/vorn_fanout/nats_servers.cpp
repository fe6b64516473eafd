#include "nats_servers.h"

#include "tests/support/child_process.h"
#include "tools/vorn/fanout/market_stream.h"

#include <cstdio>
#include <gtest/gtest.h>

namespace vorn_fanout {

namespace {
constexpr int kClientPort = 4230;
constexpr int kClusterPort = 6230;
} // namespace

NatsServers::NatsServers(const Hosts& hosts, const std::filesystem::path& directory, int count)
    : hosts_(hosts), directory_(directory), servers_(static_cast<std::size_t>(count)) {
    for (int server = 0; server < count; ++server) {
        start(server);
    }
}

void NatsServers::start(int server) {
    const std::string name = "n" + std::to_string(server);
    const std::string& address = hosts_.server_address();
    std::vector<std::string> command = {VORN_NATS_SERVER,
                                        "-js",
                                        "-n",
                                        name,
                                        "-a",
                                        address,
                                        "-p",
                                        port(kClientPort, server),
                                        "-sd",
                                        (directory_ / name).string()};
    if (count() > 1) {
        std::string routes;
        for (int other = 0; other < count(); ++other) {
            routes += (routes.empty() ? "nats://" : ",nats://") + address + ":" +
                      port(kClusterPort, other);
        }
        command.insert(command.end(),
                       {"-cluster_name", "vorn", "-cluster",
                        "nats://" + address + ":" + port(kClusterPort, server), "-routes", routes});
    }
    servers_[index(server)] =
        std::make_unique<Process>(hosts_.on("", command), directory_, name + ".server");
}

std::string NatsServers::urls() const {
    std::string urls;
    for (int server = 0; server < count(); ++server) {
        urls += (urls.empty() ? "nats://" : ",nats://") + hosts_.server_address() + ":" +
                port(kClientPort, server);
    }
    return urls;
}

int NatsServers::leader() const {
    const auto child = support::run_child(directory_, [&] {
        hosts_.enter();
        vorn_cli::NatsOptions options;
        options.servers = urls();
        options.wait_s = 60;
        const vorn_cli::NatsLink link(options, "test", [] { return true; });
        vorn_cli::StreamFacts facts;
        std::string trouble;
        ASSERT_TRUE(comes_true([&] {
            return vorn_cli::stream_facts(link.jetstream(), "VORN", facts, trouble) &&
                   !facts.leader.empty();
        })) << trouble;
        std::printf("%s", facts.leader.c_str());
        std::fflush(stdout);
    });
    EXPECT_EQ(child.exit_status, 0) << child.out << child.err;
    return child.out.size() == 2 ? child.out[1] - '0' : 0;
}

} // namespace vorn_fanout
