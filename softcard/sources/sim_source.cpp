#include "softcard/sources/sim_source.h"

#include "exchange_sim/session.h"
#include "exchange_sim/session_options.h"

#include <stdexcept>

namespace softcard {

namespace {

class SimSource final : public FrameSource {
public:
    explicit SimSource(const exchange_sim::SessionOptions& options) : session_(options) {}

    bool next(SourceFrame& frame) override {
        exchange_sim::WireFrame wire;
        if (!session_.next(wire)) {
            return false;
        }
        frame.timestamp_ns = wire.timestamp_ns;
        frame.bytes = wire.bytes;
        return true;
    }

private:
    exchange_sim::Session session_;
};

} // namespace

std::unique_ptr<FrameSource> open_sim_source(const std::map<std::string, std::string>& options,
                                             std::string& error) {
    const exchange_sim::ParsedOptions parsed = exchange_sim::parse_session_options(options);
    if (!parsed.ok()) {
        error = "sim: " + parsed.error;
        return nullptr;
    }
    try {
        return std::make_unique<SimSource>(parsed.options);
    } catch (const std::invalid_argument& refusal) {
        error = std::string("sim: ") + refusal.what();
        return nullptr;
    }
}

} // namespace softcard
