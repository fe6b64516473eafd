// vorn serve: a page that shows a running feed, its market and its health, and the same as JSON and
// for Prometheus. It reads the feed's bus and nothing else, so that no browser can hold the feed
// up.

#include "tools/vorn/exit_code.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/own_files.h"
#include "tools/vorn/run_flag.h"
#include "tools/vorn/serve/access.h"
#include "tools/vorn/serve/listen_address.h"
#include "tools/vorn/serve/site.h"
#include "tools/vorn/subcommands.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <thread>

namespace vorn_cli {

namespace {

struct ServeOptions {
    std::string bus = vorn_bus::kDefaultName;
    std::string listen = "127.0.0.1:8710";
    std::string token;
    std::string token_file;
    std::string web;
};

std::string chosen_token(const ServeOptions& options) {
    if (!options.token_file.empty()) {
        return read_token_file(options.token_file);
    }
    if (!options.token.empty()) {
        if (const std::string fault = token_fault(options.token); !fault.empty()) {
            throw Failure(kUsage, "--token: " + fault);
        }
    }
    return options.token;
}

void refuse_open_door(const ListenAddress& address, const std::string& token) {
    if (token.empty() && !is_loopback(address.host)) {
        throw Failure(kUsage, fmt::format("{} can be reached from other machines: give --token or "
                                          "--token-file with it, or listen on 127.0.0.1",
                                          address.host));
    }
}

// The folder that was asked for, or the one that comes with the program, if the page is in it.
std::string chosen_web(const ServeOptions& options) {
    if (!options.web.empty()) {
        return options.web;
    }
    const std::string own = own_folder("web");
    std::error_code ignored;
    return std::filesystem::exists(own + "/index.html", ignored) ? own : "";
}

int run_serve(const ServeOptions& options, const Globals& globals) {
    const std::string token = chosen_token(options);
    ListenAddress address = parse_listen_address(options.listen);
    refuse_open_door(address, token);

    const RunFlag run;
    std::unique_ptr<MarketWatch> watch;
    FeedViewOptions view;
    view.bus = options.bus;
    try {
        watch = std::make_unique<MarketWatch>(view);
    } catch (const vorn_bus::BusError& error) {
        throw Failure(kUsage, error.what());
    }
    SiteOptions site_options;
    site_options.token = token;
    site_options.web = chosen_web(options);
    site_options.only_loopback_names = token.empty();
    Site site(site_options, *watch);
    HttpServer server({}, [&site](const httplib::Request& request, httplib::Response& response) {
        site.handle(request, response);
    });
    site.set_load([&server, &site] {
        const ServerCounts& counts = server.counts();
        return ServerLoad{counts.connections, site.streams(), counts.requests, counts.refused};
    });
    address.port = server.bind(address.host, address.port);
    if (site_options.web.empty()) {
        say(globals, "the page is not built (./dev web builds it); the rest works");
    }
    say(globals, "showing the bus {} at http://{}/{}; Ctrl+C ends it", options.bus,
        authority_of(address), token.empty() ? "" : "?token=...");

    std::atomic<bool> ended{false};
    std::atomic<bool> accepted{true};
    std::thread serving([&] {
        accepted = server.run();
        ended = true;
    });
    while (run.running() && !ended) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    site.stop();
    server.stop();
    serving.join();
    if (!accepted && run.running()) {
        throw Failure(kFailed, "no more connections can be accepted");
    }
    return kFine;
}

} // namespace

void add_serve(CLI::App& app, Globals& globals) {
    CLI::App& sub = add_subcommand(
        app, "serve", "a page that shows a running feed, as JSON and for Prometheus too",
        {{"vorn serve", "the bus 'live' at http://127.0.0.1:8710/"},
         {"vorn serve --bus night --listen 127.0.0.1:8711", "another bus, elsewhere"},
         {"vorn serve --listen 0.0.0.0:8710 --token-file token",
          "for other machines, who need the token"}});
    auto options = std::make_shared<ServeOptions>();
    sub.add_option("--bus", options->bus, "name of the bus (live), as vorn publish was given it")
        ->option_text("NAME");
    sub.add_option("--listen", options->listen,
                   "address and port (127.0.0.1:8710); port 0: any that is free")
        ->option_text("ADDRESS:PORT");
    auto* token = sub.add_option("--token", options->token,
                                 "what every visitor must know; needed beyond loopback. Other "
                                 "users of this machine see command lines: prefer --token-file");
    token->option_text("TOKEN");
    sub.add_option("--token-file", options->token_file, "the same, from the first line of a file")
        ->option_text("FILE")
        ->excludes(token);
    sub.add_option("--web", options->web, "folder of the built page, if not the program's own")
        ->option_text("DIR");
    add_message_flags(sub, globals);
    on_run(sub, globals, [options](const Globals& g) { return run_serve(*options, g); });
}

} // namespace vorn_cli
