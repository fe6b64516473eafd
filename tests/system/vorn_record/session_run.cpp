#include "session_run.h"

#include "tests/system/vorn_check/run_program.h"
#include "tools/vorn/feed/feed_run.h"
#include "tools/vorn/record/open_recorder.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>

namespace vorn_record {

namespace {

using namespace vorn_cli;

// Keeps the callbacks, and passes everything on to a recorder if there is one.
class Keeper final : public FeedWatcher {
public:
    explicit Keeper(Recorder* recorder) : recorder_(recorder) {}
    void on_update(const instrument& record, uint32_t) override {
        callbacks.append(reinterpret_cast<const char*>(&record), sizeof(record));
        if (recorder_ != nullptr) {
            recorder_->on_update(record);
        }
    }
    void on_phase(FeedPhase phase) override {
        if (recorder_ != nullptr) {
            recorder_->on_phase(phase);
        }
    }
    void on_first_update(uint64_t later) override {
        if (recorder_ != nullptr) {
            recorder_->on_first_update(later);
        }
    }
    FrameKeeper* frame_keeper() override {
        return recorder_ != nullptr ? recorder_->frame_keeper() : nullptr;
    }
    std::string callbacks;

private:
    Recorder* recorder_;
};

void run_and_save(const std::string& ini, const std::string& recording) {
    std::unique_ptr<Recorder> recorder;
    if (!recording.empty()) {
        RecorderRequest request;
        request.output = recording;
        request.config = effective_config(read_ini(read_config(ini)));
        recorder = open_recorder(request);
    }
    Keeper keeper(recorder.get());
    FeedRunOptions options;
    options.config = ini;
    const FeedReport report = run_feed(options, keeper);
    const RecorderCounts counts = recorder ? recorder->finish(true) : RecorderCounts{};
    ASSERT_EQ(report.result, 0) << reason_of(report.log);
    std::ofstream("callbacks", std::ios::binary) << keeper.callbacks;
    std::ofstream("counts") << report.counters.cycles << ' ' << report.counters.gaps << ' '
                            << counts.lost() << ' ' << report.counters.overflows;
}

} // namespace

support::ChildRun RecordedSession::vorn(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), VORN_PROGRAM);
    return vorn_check::run_program(arguments, directory_.path());
}

void RecordedSession::sim(const std::string& name, const std::vector<std::string>& more) const {
    std::vector<std::string> arguments = {"sim", "-q", "--no-truth", "-f", "-o", name};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const auto done = vorn(arguments);
    ASSERT_EQ(done.exit_status, 0) << done.err;
}

void RecordedSession::config(const std::string& name, const std::string& device,
                             const std::string& feeds) const {
    const auto enabled = [&](const char* feed) {
        return std::string(feed) +
               "2ps = " + (feeds == feed || feeds == "both" ? "enabled\n" : "disabled\n");
    };
    directory_.write(name, "[config]\ndevice = " + device + "\ninsts = all\n" + enabled("shfe") +
                               enabled("ine") + "cpucore = 0\nlog_level = 7\n");
}

SessionRun RecordedSession::run(const std::string& device, const std::string& recording,
                                const std::string& feeds) const {
    config("run.ini", device, feeds);
    const auto child =
        support::run_child(directory_.path(), [&] { run_and_save("run.ini", recording); });
    EXPECT_EQ(child.exit_status, 0) << child.out << child.err;
    SessionRun result;
    result.callbacks = content("callbacks");
    result.updates = result.callbacks.size() / sizeof(instrument);
    std::ifstream counts(path("counts"));
    counts >> result.cycles >> result.gaps >> result.lost >> result.overflows;
    EXPECT_TRUE(counts) << "no counts";
    return result;
}

std::string first_difference(const SessionRun& a, const SessionRun& b) {
    if (a.callbacks == b.callbacks) {
        return {};
    }
    const auto common = std::min(a.callbacks.size(), b.callbacks.size());
    const auto end = a.callbacks.begin() + static_cast<std::ptrdiff_t>(common);
    const auto at = std::mismatch(a.callbacks.begin(), end, b.callbacks.begin()).first;
    const auto offset = static_cast<std::size_t>(at - a.callbacks.begin());
    return std::to_string(a.updates) + " and " + std::to_string(b.updates) +
           " callbacks differ from number " + std::to_string(offset / sizeof(instrument)) +
           ", byte " + std::to_string(offset % sizeof(instrument));
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::size_t lines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

} // namespace vorn_record
