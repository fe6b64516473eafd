#pragma once

// What is answered to which path, and to whom.

#include "tools/vorn/serve/http_server.h"
#include "tools/vorn/serve/market_watch.h"
#include "tools/vorn/serve/metrics_text.h"
#include "tools/vorn/serve/static_files.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace vorn_cli {

struct SiteOptions {
    std::string token;               // empty: none is asked for
    std::string web;                 // folder of the built page; empty: there is none
    bool only_loopback_names = true; // refuse requests for a host that is not this machine
    std::size_t streams = 240;
};

// Handlers run on many threads at a time. Bounded: a stream beyond the bound gets 503.
class Site {
public:
    Site(const SiteOptions& options, const MarketWatch& watch);

    void handle(const httplib::Request& request, httplib::Response& response);

    // What the server says of itself in /metrics; set before the first request.
    void set_load(std::function<ServerLoad()> load) { load_ = std::move(load); }
    std::size_t streams() const { return streams_; }
    // Ends every stream within a moment.
    void stop() { stopping_ = true; }

private:
    bool may_enter(const httplib::Request& request, httplib::Response& response) const;
    void route(const httplib::Request& request, httplib::Response& response);
    void answer_health(httplib::Response& response) const;
    void answer_status(httplib::Response& response) const;
    void answer_instruments(const httplib::Request& request, httplib::Response& response) const;
    void answer_instrument(const std::string& inst_id, httplib::Response& response) const;
    void answer_events(const httplib::Request& request, httplib::Response& response) const;
    void answer_metrics(httplib::Response& response) const;
    void answer_stream(const httplib::Request& request, httplib::Response& response);
    void answer_file(const httplib::Request& request, httplib::Response& response) const;

    const SiteOptions options_;
    const MarketWatch& watch_;
    std::unique_ptr<StaticFiles> files_;
    std::function<ServerLoad()> load_;
    std::atomic<std::size_t> streams_{0};
    std::atomic<bool> stopping_{false};
};

} // namespace vorn_cli
