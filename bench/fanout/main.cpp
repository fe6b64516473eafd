// G15: how many updates a second does `vorn fanout` bring from a bus into a stream, beside the bare
// client library that publishes payloads of the same size under the same ids as fast as it can?
//
// One server on this machine, the stream in memory, 400 instruments in turn. Each round makes a bus
// outside of the timing. Not part of a plain `./dev bench`: it needs nats-server.

#include "bench/harness/contest.h"
#include "bench/harness/report.h"

#include "bus/bus_writer.h"
#include "tools/vorn/fanout/bus_source.h"
#include "tools/vorn/fanout/sender.h"
#include "tools/vorn/fanout/subjects.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace vorn_cli;

constexpr uint32_t kUpdates = 20'000;
constexpr uint32_t kOfOne = 2'000; // updates of a single instrument
constexpr uint32_t kInstruments = 400;
constexpr uint64_t kRing = 65'536; // of which a reader that comes late gets half
constexpr uint64_t kWindowNs = 120'000'000'000;
constexpr int64_t kPending = 1024; // as fanout has by default

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "bench: %s\n", what.c_str());
    std::exit(1);
}
void must(natsStatus status, const char* what) {
    if (status != NATS_OK) {
        fail(std::string(what) + ": " + nats_text(status));
    }
}

// An address of loopback that belongs to this process.
std::string own_address() {
    const int pid = ::getpid();
    return "127." + std::to_string(1 + (pid >> 16) % 250) + "." +
           std::to_string((pid >> 8) & 0xff) + "." + std::to_string(pid & 0xff);
}

class Server {
public:
    Server() : directory_(std::filesystem::temp_directory_path() / ("vorn-bench-" + id())) {
        std::filesystem::create_directory(directory_);
        const std::string address = own_address();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int nothing = ::open("/dev/null", O_RDWR);
            ::dup2(nothing, STDOUT_FILENO);
            ::dup2(nothing, STDERR_FILENO);
            ::execlp(VORN_NATS_SERVER, VORN_NATS_SERVER, "-js", "-a", address.c_str(), "-p", "4222",
                     "-sd", directory_.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
    }
    ~Server() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        std::filesystem::remove_all(directory_);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

private:
    static std::string id() { return std::to_string(::getpid()); }
    std::filesystem::path directory_;
    pid_t pid_ = -1;
};

// What every contender sends, and how.
class Stage {
public:
    Stage(const NatsLink& link, const NatsLink& bare)
        : link_(link), bare_link_(bare), name_("bench." + std::to_string(getpid())) {
        StreamOptions options;
        options.memory = true;
        options.window_ns = kWindowNs;
        open_stream(link.jetstream(), options, UINT64_MAX, [] { return true; });
        jsOptions js;
        jsOptions_Init(&js);
        js.PublishAsync.MaxPending = kPending;
        must(nats_make(
                 bare_,
                 [&](jsCtx** to) { return natsConnection_JetStream(to, bare.connection(), &js); }),
             "JetStream");
    }
    ~Stage() {
        writer_.reset();
        vorn_bus::remove_bus(name_);
    }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    // An empty stream, ids that it has not seen, and a bus with the updates.
    void set(uint32_t updates, uint32_t instruments) {
        must(js_PurgeStream(link_.jetstream(), "VORN", nullptr, nullptr), "purge");
        stamp_ = {"bench", "r" + std::to_string(++round_)};
        updates_ = updates;
        writer_.reset();
        writer_ = std::make_unique<vorn_bus::BusWriter>(vorn_bus::WriterOptions{name_, kRing});
        messages_.assign(updates, {});
        for (uint32_t i = 0; i < updates; ++i) {
            Outgoing& message = messages_[i];
            message.slot = i % instruments;
            message.record.change_no = 1 + i / instruments;
            const std::string inst_id = "cu" + std::to_string(2600 + message.slot);
            inst_id.copy(reinterpret_cast<char*>(message.record.inst_id), 15);
            writer_->publish(message.record, message.slot);
        }
    }

    void fanout() {
        Lanes lanes(131'072);
        BusSource source(name_, kWindowNs);
        SenderOptions options;
        options.stamp = stamp_;
        options.stream = "VORN";
        options.window_ns = kWindowNs;
        options.under_way = kPending;
        Sender sender(link_, options, lanes);
        while (source.counts().updates < updates_ || lanes.size() != 0) {
            sender.work(source.poll(lanes, vorn_bus::clock_ns(CLOCK_MONOTONIC)) ? 0 : 1);
        }
        if (sender.counts().stored < updates_ || source.counts().dropped != 0) {
            fail("fanout did not send all");
        }
    }
    void bare_with_acks() {
        for (const Outgoing& message : messages_) {
            const std::string payload = encode_payload(message, stamp_, PayloadFormat::kBinary);
            const std::string id = message_id_of(message, stamp_);
            jsPubOptions options;
            jsPubOptions_Init(&options);
            options.MsgId = id.c_str();
            must(js_PublishAsync(bare_.get(), subject_of(message).c_str(), payload.data(),
                                 static_cast<int>(payload.size()), &options),
                 "publish");
        }
        must(js_PublishAsyncComplete(bare_.get(), nullptr), "acknowledgements");
    }
    // The client library and the server, as far as its protocol: nobody says that it is stored.
    void bare_without_acks() {
        for (const Outgoing& message : messages_) {
            const std::string payload = encode_payload(message, stamp_, PayloadFormat::kBinary);
            must(natsConnection_Publish(bare_link_.connection(), subject_of(message).c_str(),
                                        payload.data(), static_cast<int>(payload.size())),
                 "publish");
        }
        must(natsConnection_FlushTimeout(bare_link_.connection(), 60'000), "flush");
    }
    // Each message when the one before is acknowledged.
    void bare_one_by_one() {
        for (const Outgoing& message : messages_) {
            const std::string payload = encode_payload(message, stamp_, PayloadFormat::kBinary);
            must(js_Publish(nullptr, bare_.get(), subject_of(message).c_str(), payload.data(),
                            static_cast<int>(payload.size()), nullptr, nullptr),
                 "publish");
        }
    }

private:
    const NatsLink& link_;
    const NatsLink& bare_link_; // as the library has it by default
    const std::string name_;
    NatsPtr<jsCtx> bare_;
    std::unique_ptr<vorn_bus::BusWriter> writer_;
    std::vector<Outgoing> messages_;
    Stamp stamp_;
    uint32_t updates_ = 0;
    int round_ = 0;
};

} // namespace

int main() {
    bench::report_run("fanout", -1);
    const Server server;
    NatsOptions options;
    options.servers = own_address();
    try {
        const NatsLink link(options, "bench", [] { return true; });
        options.send_at_once = false;
        const NatsLink bare(options, "bench", [] { return true; });
        Stage stage(link, bare);
        const auto all = [&] { stage.set(kUpdates, kInstruments); };
        const bench::Times times = bench::run_contest(
            {kUpdates, 1, 7},
            {{"bare, acknowledged", all, [&] { stage.bare_with_acks(); }, {}},
             {"fanout", all, [&] { stage.fanout(); }, {}},
             {"bare, unacknowledged", all, [&] { stage.bare_without_acks(); }, {}}});
        const auto one = [&] { stage.set(kOfOne, 1); };
        const bench::Times of_one = bench::run_contest(
            {kOfOne, 1, 7}, {{"bare, one by one", one, [&] { stage.bare_one_by_one(); }, {}},
                             {"fanout, one instrument", one, [&] { stage.fanout(); }, {}}});
        const auto rate = [](const bench::Times& of, const char* name) {
            bench::report_figure("G15", "rate", name, 1e9 / of.ns(name), "messages/s");
        };
        rate(times, "bare, acknowledged");
        rate(times, "fanout");
        rate(times, "bare, unacknowledged");
        rate(of_one, "bare, one by one");
        rate(of_one, "fanout, one instrument");
        bench::report_goal({"G15", "fanout over the bare client",
                            times.ratio("fanout", "bare, acknowledged"), bench::Better::kSmaller,
                            2.0, 1.25});
        bench::report_goal({"G15", "one instrument over one by one",
                            of_one.ratio("fanout, one instrument", "bare, one by one"),
                            bench::Better::kSmaller, 2.0, 1.25});
    } catch (const std::exception& error) {
        fail(error.what());
    }
    return 0;
}
