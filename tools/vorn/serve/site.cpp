#include "tools/vorn/serve/site.h"

#include "tools/vorn/serve/access.h"
#include "tools/vorn/serve/api_json.h"
#include "tools/vorn/serve/event_stream.h"
#include "tools/vorn/serve/listen_address.h"

#include <charconv>
#include <chrono>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <thread>

namespace vorn_cli {

namespace {

constexpr char kJson[] = "application/json";
constexpr char kText[] = "text/plain; charset=utf-8";
constexpr std::size_t kLongestQuery = 64;
constexpr std::chrono::milliseconds kStreamStep{50};

void refuse(httplib::Response& response, int status, const std::string& text) {
    response.status = status;
    response.set_header("Cache-Control", "no-store");
    response.set_content(error_json(text), kJson);
}

void answer_json(httplib::Response& response, const nlohmann::json& object) {
    response.set_header("Cache-Control", "no-store");
    response.set_content(object.dump() + "\n", kJson);
}

void add_security_headers(httplib::Response& response) {
    // Nothing comes from elsewhere, nothing is inline, nobody frames the page.
    response.set_header("Content-Security-Policy",
                        "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
                        "connect-src 'self'; font-src 'self'; manifest-src 'self'; "
                        "base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("X-Frame-Options", "DENY");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("Cross-Origin-Resource-Policy", "same-origin");
    response.set_header("Cross-Origin-Opener-Policy", "same-origin");
}

// limit=N with a bound. False and an answer when it is something else.
bool read_limit(const httplib::Request& request, httplib::Response& response, std::size_t most,
                std::size_t& limit) {
    if (!request.has_param("limit")) {
        return true;
    }
    const std::string text = request.get_param_value("limit");
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, limit);
    if (error != std::errc() || stop != end || limit < 1 || limit > most) {
        refuse(response, 400, fmt::format("limit is a number from 1 to {}", most));
        return false;
    }
    return true;
}

bool read_query(const httplib::Request& request, httplib::Response& response, std::string& query) {
    query = request.get_param_value("q");
    if (query.size() > kLongestQuery) {
        refuse(response, 400, fmt::format("q has at most {} characters", kLongestQuery));
        return false;
    }
    return true;
}

} // namespace

Site::Site(const SiteOptions& options, const MarketWatch& watch)
    : options_(options), watch_(watch),
      files_(options.web.empty() ? nullptr : std::make_unique<StaticFiles>(options.web)) {}

void Site::handle(const httplib::Request& request, httplib::Response& response) {
    add_security_headers(response);
    if (options_.only_loopback_names && request.has_header("Host") &&
        !is_loopback(host_of_header(request.get_header_value("Host")))) {
        // A page elsewhere whose name was made to lead here would read all of it.
        refuse(response, 421, "this server answers to 127.0.0.1, [::1] and localhost only");
        return;
    }
    if (request.path == "/healthz") {
        answer_health(response);
    } else if (may_enter(request, response)) {
        route(request, response);
    }
}

bool Site::may_enter(const httplib::Request& request, httplib::Response& response) const {
    if (options_.token.empty()) {
        return true;
    }
    if (same_token(bearer_token(request.get_header_value("Authorization")), options_.token) ||
        same_token(cookie_value(request.get_header_value("Cookie"), kTokenCookie),
                   options_.token)) {
        return true;
    }
    if (same_token(request.get_param_value("token"), options_.token)) {
        response.set_header("Set-Cookie", fmt::format("{}={}; Path=/; HttpOnly; SameSite=Strict",
                                                      kTokenCookie, options_.token));
        if (request.path != "/") {
            return true;
        }
        // The token disappears from the address, so that nobody copies it along.
        response.status = 303;
        response.set_header("Cache-Control", "no-store");
        response.set_header("Location", without_token(request.target));
        return false;
    }
    response.set_header("WWW-Authenticate", "Bearer realm=\"vorn\"");
    refuse(response, 401,
           "a token is needed: open /?token=TOKEN once, or send 'Authorization: Bearer TOKEN'");
    return false;
}

void Site::route(const httplib::Request& request, httplib::Response& response) {
    constexpr std::string_view kInstrument = "/api/instruments/";
    const std::string& path = request.path;
    if (path == "/api/status") {
        answer_status(response);
    } else if (path == "/api/instruments") {
        answer_instruments(request, response);
    } else if (path.starts_with(kInstrument)) {
        answer_instrument(path.substr(kInstrument.size()), response);
    } else if (path == "/api/events") {
        answer_events(request, response);
    } else if (path == "/api/stream") {
        answer_stream(request, response);
    } else if (path == "/metrics") {
        answer_metrics(response);
    } else {
        answer_file(request, response);
    }
}

void Site::answer_health(httplib::Response& response) const {
    const FeedState state = watch_.status().state;
    const bool well = state == FeedState::kLive || state == FeedState::kLoading;
    response.status = well ? 200 : 503;
    response.set_header("Cache-Control", "no-store");
    response.set_content(std::string(feed_state_name(state)) + "\n", kText);
}

void Site::answer_status(httplib::Response& response) const {
    answer_json(response, to_json(watch_.status(), watch_.options()));
}

void Site::answer_instruments(const httplib::Request& request, httplib::Response& response) const {
    std::size_t limit = 100;
    std::string query;
    if (!read_limit(request, response, kMostListed, limit) ||
        !read_query(request, response, query)) {
        return;
    }
    static const InstrumentList kNone{{}};
    const auto list = watch_.instruments();
    response.set_header("Cache-Control", "no-store");
    response.set_content(*(list ? *list : kNone).json(query, limit) + "\n", kJson);
}

void Site::answer_instrument(const std::string& inst_id, httplib::Response& response) const {
    const auto list = watch_.instruments();
    const auto slot = list ? list->slot_of(inst_id) : std::nullopt;
    const auto state = slot ? watch_.instrument_at(*slot) : std::nullopt;
    if (!state) {
        refuse(response, 404, "there is no instrument of this name; /api/instruments lists them");
        return;
    }
    answer_json(response, to_json(*state));
}

void Site::answer_events(const httplib::Request& request, httplib::Response& response) const {
    std::size_t limit = watch_.options().events;
    if (read_limit(request, response, watch_.options().events, limit)) {
        answer_json(response, events_json(watch_.events(0, limit), true));
    }
}

void Site::answer_metrics(httplib::Response& response) const {
    const auto list = watch_.instruments();
    response.set_header("Cache-Control", "no-store");
    response.set_content(
        metrics_text(watch_.status(), list ? list->size() : 0, load_ ? load_() : ServerLoad{}),
        "text/plain; version=0.0.4; charset=utf-8");
}

void Site::answer_stream(const httplib::Request& request, httplib::Response& response) {
    StreamRequest wanted;
    wanted.inst_id = request.get_param_value("instrument");
    wanted.list = request.has_param("q");
    if (!read_limit(request, response, kMostListed, wanted.limit) ||
        !read_query(request, response, wanted.query)) {
        return;
    }
    if (request.method == "HEAD") {
        response.set_content("", "text/event-stream");
        return;
    }
    if (streams_.fetch_add(1) >= options_.streams) {
        --streams_;
        response.set_header("Retry-After", "5");
        refuse(response, 503, "too many pages are open; close one of them");
        return;
    }
    response.set_header("Cache-Control", "no-store");
    response.set_header("X-Accel-Buffering", "no"); // a proxy in front sends each on at once
    auto stream = std::make_shared<EventStream>(watch_, std::move(wanted));
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, stream](std::size_t, httplib::DataSink& sink) {
            if (stopping_) {
                sink.done();
                return true;
            }
            const std::string messages = stream->due(vorn_bus::clock_ns(CLOCK_MONOTONIC));
            if (!messages.empty() && !sink.write(messages.data(), messages.size())) {
                return false;
            }
            std::this_thread::sleep_for(kStreamStep);
            return true;
        },
        [this](bool) { --streams_; });
}

void Site::answer_file(const httplib::Request& request, httplib::Response& response) const {
    const auto file = files_ ? files_->read(request.path) : std::nullopt;
    if (!file) {
        if (request.path == "/" && !files_) {
            refuse(response, 503,
                   "the page is not built: run ./dev web, or give its folder as "
                   "--web; /api/status, /metrics and /healthz work");
        } else {
            refuse(response, 404, "there is nothing here");
        }
        return;
    }
    // Asked for again each time, sent again only when it has changed.
    response.set_header("Cache-Control", "no-cache");
    response.set_header("ETag", file->etag);
    if (request.get_header_value("If-None-Match") == file->etag) {
        response.status = 304;
        return;
    }
    response.set_content(file->content, file->content_type);
}

} // namespace vorn_cli
