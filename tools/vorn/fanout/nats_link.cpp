#include "tools/vorn/fanout/nats_link.h"

#include "tools/vorn/exit_code.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <thread>

namespace vorn_cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int64_t kConnectMs = 2000;
constexpr int64_t kReconnectWaitMs = 100;
// A server that hangs rather than dies is left after three of these.
constexpr int64_t kPingMs = 2000;
constexpr int kPingsOut = 2;
constexpr int64_t kWriteMs = 2000;
constexpr int64_t kEndMs = 5000; // for the library's threads

bool is_server_url(std::string url) {
    if (const std::size_t scheme = url.find("://"); scheme != std::string::npos) {
        const std::string name = url.substr(0, scheme);
        if (name != "nats" && name != "tls") {
            return false;
        }
        url.erase(0, scheme + 3);
    }
    url.erase(0, url.rfind('@') == std::string::npos ? 0 : url.rfind('@') + 1);
    const std::size_t bracket = url.rfind(']'); // of an IPv6 address
    const std::size_t colon = url.find(':', bracket == std::string::npos ? 0 : bracket);
    const std::string host = url.substr(0, colon);
    if (host.empty() || host.find_first_of(" /?#\t") != std::string::npos) {
        return false;
    }
    if (colon == std::string::npos) {
        return true;
    }
    unsigned port = 0;
    const char* const end = url.data() + url.size();
    const auto parsed = std::from_chars(url.data() + colon + 1, end, port);
    return parsed.ec == std::errc() && parsed.ptr == end && port >= 1 && port <= 65535;
}

std::vector<std::string> split_servers(const std::string& text) {
    std::vector<std::string> servers;
    for (std::size_t begin = 0;;) {
        const std::size_t comma = text.find(',', begin);
        std::string url = text.substr(begin, comma - begin);
        if (!is_server_url(url)) {
            throw Failure(kUsage, fmt::format("'{}' is not a NATS server: write nats://HOST:PORT, "
                                              "several with commas between",
                                              url));
        }
        servers.push_back(url.find("://") == std::string::npos ? "nats://" + url : url);
        if (comma == std::string::npos) {
            return servers;
        }
        begin = comma + 1;
    }
}

} // namespace

std::string nats_text(natsStatus status) {
    natsStatus last = NATS_OK;
    const char* const said = nats_GetLastError(&last);
    std::string text = said != nullptr && last == status ? said : "";
    if (text.starts_with("(")) { // the line of the library's source that says it
        const std::size_t end = text.find("): ");
        text.erase(0, end == std::string::npos ? 0 : end + 3);
    }
    return text.empty() ? natsStatus_GetText(status) : text;
}

void add_nats_options(CLI::App& sub, NatsOptions& options) {
    sub.add_option("-s,--server", options.servers,
                   "NATS server, or those of a cluster with commas between "
                   "(nats://127.0.0.1:4222)")
        ->option_text("URL");
    sub.add_option("--credentials", options.credentials, "file with the user's NATS credentials")
        ->option_text("FILE");
    sub.add_option("--wait", options.wait_s, "give up when no server has answered by then (10)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.0, 1e6));
}

NatsLink::NatsLink(const NatsOptions& options, const std::string& name,
                   const std::function<bool()>& running) {
    const std::vector<std::string> servers = split_servers(options.servers);
    std::vector<const char*> urls;
    urls.reserve(servers.size());
    for (const std::string& url : servers) {
        urls.push_back(url.c_str());
    }
    NatsPtr<natsOptions> settings;
    natsStatus status =
        nats_make(settings, [](natsOptions** to) { return natsOptions_Create(to); });
    const auto set = [&](auto call, auto... values) {
        status = status == NATS_OK ? call(settings.get(), values...) : status;
    };
    set(natsOptions_SetServers, urls.data(), static_cast<int>(urls.size()));
    set(natsOptions_SetName, name.c_str());
    set(natsOptions_SetTimeout, kConnectMs);
    set(natsOptions_SetMaxReconnect, -1);
    set(natsOptions_SetReconnectWait, kReconnectWaitMs);
    set(natsOptions_SetReconnectJitter, kReconnectWaitMs, kReconnectWaitMs);
    set(natsOptions_SetPingInterval, kPingMs);
    set(natsOptions_SetMaxPingsOut, kPingsOut);
    set(natsOptions_SetWriteDeadline, kWriteMs);
    set(natsOptions_SetSendAsap, options.send_at_once);
    if (!options.credentials.empty()) {
        set(natsOptions_SetUserCredentialsFromFiles, options.credentials.c_str(),
            static_cast<const char*>(nullptr));
    }
    if (status != NATS_OK) {
        throw Failure(kUsage, fmt::format("{}: {}", options.servers, nats_text(status)));
    }
    const auto deadline =
        Clock::now() + std::chrono::milliseconds(std::llround(options.wait_s * 1000));
    for (;;) {
        status = nats_make(connection_, [&](natsConnection** to) {
            return natsConnection_Connect(to, settings.get());
        });
        if (status == NATS_OK) {
            break;
        }
        const std::string reason = nats_text(status);
        if (status == NATS_CONNECTION_AUTH_FAILED || status == NATS_NOT_PERMITTED) {
            throw Failure(kFailed,
                          fmt::format("{} refuses this user: {}", options.servers, reason));
        }
        if (Clock::now() >= deadline) {
            throw Failure(kTimedOut,
                          fmt::format("no NATS server answers at {}: {} (is nats-server running?)",
                                      options.servers, reason));
        }
        if (!running()) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    status = nats_make(jetstream_, [&](jsCtx** to) {
        return natsConnection_JetStream(to, connection_.get(), nullptr);
    });
    if (status != NATS_OK) {
        throw Failure(kFailed, fmt::format("{}: {}", options.servers, nats_text(status)));
    }
}

NatsLink::Library::Library() {
    ++users_;
}

NatsLink::Library::~Library() {
    if (--users_ == 0) {
        nats_CloseAndWait(kEndMs);
    }
}

NatsLink::~NatsLink() {
    if (connection_) {
        natsConnection_Close(connection_.get());
    }
}

bool NatsLink::connected() const {
    return natsConnection_Status(connection_.get()) == NATS_CONN_STATUS_CONNECTED;
}

std::string NatsLink::server() const {
    char url[256] = "";
    return natsConnection_GetConnectedUrl(connection_.get(), url, sizeof(url)) == NATS_OK ? url
                                                                                          : "";
}

uint64_t NatsLink::reconnects() const {
    NatsPtr<natsStatistics> statistics;
    uint64_t unused = 0;
    uint64_t reconnects = 0;
    if (nats_make(statistics, [](natsStatistics** to) { return natsStatistics_Create(to); }) ==
            NATS_OK &&
        natsConnection_GetStats(connection_.get(), statistics.get()) == NATS_OK) {
        natsStatistics_GetCounts(statistics.get(), &unused, &unused, &unused, &unused, &reconnects);
    }
    return reconnects;
}

} // namespace vorn_cli
