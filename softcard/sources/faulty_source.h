#pragma once

// A source with faults in it.

#include "faults/fault_spec.h"
#include "softcard/sources/frame_source.h"

#include <memory>
#include <vector>

namespace softcard {

// `source` with the faults applied; `source` itself when there are none.
std::unique_ptr<FrameSource> with_faults(std::unique_ptr<FrameSource> source,
                                         const std::vector<faults::FaultSpec>& faults,
                                         uint64_t seed);

} // namespace softcard
