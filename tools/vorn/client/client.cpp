// vorn client: the trading front end that stands at the other end of the snapshot connections. It
// reads and throws away; what matters is that its traffic can be mirrored.

#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/run_flag.h"
#include "tools/vorn/subcommands.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace vorn_cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTickMs = 100;

struct ClientOptions {
    std::string host;
    uint16_t port = 33022;
    std::vector<uint16_t> from = {50001, 50002};
    double wait_s = 30;
};

struct Connection {
    explicit Connection(uint16_t local) : from(local) {}
    ~Connection() { close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    void close() {
        if (socket >= 0) {
            ::close(socket);
            socket = -1;
        }
    }

    uint16_t from;
    int socket = -1;
    uint64_t bytes = 0;
    bool connected_once = false;
    bool over = false;
};

sockaddr_in endpoint(const in_addr& address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr = address;
    result.sin_port = htons(port);
    return result;
}

class Client {
public:
    explicit Client(const ClientOptions& options) : options_(options) {
        if (inet_pton(AF_INET, options.host.c_str(), &host_) != 1) {
            throw Failure(kUsage, fmt::format("HOST is an IPv4 address, not '{}'", options.host));
        }
        for (const uint16_t port : options.from) {
            connections_.push_back(std::make_unique<Connection>(port));
        }
    }

    // Until the exchange has closed every connection, or the run is ended.
    void run(const RunFlag& run) {
        const auto deadline =
            Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(options_.wait_s * 1000));
        while (run.running() && !all_over()) {
            for (const auto& connection : connections_) {
                if (connection->socket < 0 && !connection->over) {
                    connect(*connection, deadline);
                }
            }
            read_all();
        }
    }

    uint64_t bytes() const {
        uint64_t sum = 0;
        for (const auto& connection : connections_) {
            sum += connection->bytes;
        }
        return sum;
    }

private:
    bool all_over() const {
        return std::all_of(connections_.begin(), connections_.end(),
                           [](const auto& each) { return each->over; });
    }

    // The exchange may not be there yet, so a refusal is met with another attempt.
    void connect(Connection& connection, Clock::time_point deadline) {
        const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        const sockaddr_in here = endpoint({htonl(INADDR_ANY)}, connection.from);
        const sockaddr_in there = endpoint(host_, options_.port);
        if (::bind(socket, reinterpret_cast<const sockaddr*>(&here), sizeof(here)) == 0 &&
            ::connect(socket, reinterpret_cast<const sockaddr*>(&there), sizeof(there)) == 0) {
            connection.socket = socket;
            connection.connected_once = true;
            return;
        }
        const int error = errno;
        ::close(socket);
        if (error == EINTR) {
            return;
        }
        if (error == ECONNREFUSED && connection.connected_once) {
            connection.over = true; // the exchange has gone, without a round on this connection
            return;
        }
        if (Clock::now() > deadline) {
            throw Failure(kTimedOut,
                          fmt::format("cannot connect to {}:{} from port {}: {}", options_.host,
                                      options_.port, connection.from, std::strerror(error)));
        }
        pause();
    }

    static void pause() {
        const timespec tick{0, kTickMs * 1'000'000L};
        ::nanosleep(&tick, nullptr);
    }

    void read_all() {
        std::vector<pollfd> waiting;
        std::vector<Connection*> readers;
        for (const auto& connection : connections_) {
            if (connection->socket >= 0) {
                waiting.push_back({connection->socket, POLLIN, 0});
                readers.push_back(connection.get());
            }
        }
        if (::poll(waiting.data(), waiting.size(), kTickMs) <= 0) {
            return;
        }
        for (std::size_t i = 0; i < waiting.size(); ++i) {
            if (waiting[i].revents != 0) {
                read(*readers[i]);
            }
        }
    }

    // A connection that the exchange gave up before it sent anything was refused, and is tried
    // again; with the first byte it is the one.
    void read(Connection& connection) {
        const ssize_t received = ::recv(connection.socket, buffer_.data(), buffer_.size(), 0);
        if (received > 0) {
            connection.bytes += static_cast<uint64_t>(received);
            return;
        }
        if (received < 0 && errno == EINTR) {
            return;
        }
        if (received < 0 && connection.bytes > 0) {
            throw Failure(kFailed, fmt::format("the connection from port {} broke: {}",
                                               connection.from, std::strerror(errno)));
        }
        connection.over = connection.bytes > 0;
        connection.close();
        if (!connection.over) {
            pause();
        }
    }

    const ClientOptions& options_;
    in_addr host_{};
    std::vector<std::unique_ptr<Connection>> connections_;
    std::array<char, 65536> buffer_{};
};

int run_client(const ClientOptions& options, const Globals& globals) {
    RunFlag run;
    Client client(options);
    client.run(run);
    if (globals.json) {
        DataOut out(STDOUT_FILENO);
        out.json({{"bytes", client.bytes()}});
        out.close();
    } else {
        say(globals, "{} bytes of snapshots read", client.bytes());
    }
    return kFine;
}

} // namespace

void add_client(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "client", "read the snapshot streams of a live exchange and throw them away",
        {{"vorn client 172.20.11.11", "stands for the trading front end whose traffic is mirrored"},
         {"vorn client 172.20.11.11 --from 50001", "SHFE's connection only"}});
    auto options = std::make_shared<ClientOptions>();
    sub.add_option("HOST", options->host, "address of vorn sim --live")->required();
    sub.add_option("--port", options->port, "its snapshot port (33022)")->option_text("PORT");
    sub.add_option("--from", options->from,
                   "ports of this end, which tell the feeds apart (50001,50002: SHFE and INE)")
        ->option_text("PORT,...")
        ->delimiter(',')
        ->allow_extra_args(false);
    sub.add_option("--wait", options->wait_s, "seconds to wait for the exchange (30)")
        ->option_text("S");
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_client(*options, g); });
}

} // namespace vorn_cli
