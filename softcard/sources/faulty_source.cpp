#include "softcard/sources/faulty_source.h"

#include "faults/fault_filter.h"

#include <utility>

namespace softcard {

namespace {

class FaultySource final : public FrameSource {
public:
    FaultySource(std::unique_ptr<FrameSource> source, const std::vector<faults::FaultSpec>& faults,
                 uint64_t seed)
        : source_(std::move(source)),
          filter_([this](faults::FilteredFrame& frame) { return pull(frame); }, faults, seed) {}

    bool next(SourceFrame& frame) override {
        faults::FilteredFrame filtered;
        if (!filter_.next(filtered)) {
            return false;
        }
        frame = {filtered.timestamp_ns, filtered.bytes, filtered.reader_lapped};
        return true;
    }

private:
    bool pull(faults::FilteredFrame& filtered) {
        SourceFrame frame;
        if (!source_->next(frame)) {
            return false;
        }
        filtered = {frame.timestamp_ns, frame.bytes, frame.reader_lapped};
        return true;
    }

    const std::unique_ptr<FrameSource> source_;
    faults::FaultFilter filter_;
};

} // namespace

std::unique_ptr<FrameSource> with_faults(std::unique_ptr<FrameSource> source,
                                         const std::vector<faults::FaultSpec>& faults,
                                         uint64_t seed) {
    if (faults.empty()) {
        return source;
    }
    return std::make_unique<FaultySource>(std::move(source), faults, seed);
}

} // namespace softcard
