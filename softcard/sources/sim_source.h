#pragma once

// Frames from the simulated exchange.

#include "softcard/sources/frame_source.h"

#include <map>
#include <memory>
#include <string>

namespace softcard {

// `options` are the simulated exchange's own. Null with a one-line reason in `error`.
std::unique_ptr<FrameSource> open_sim_source(const std::map<std::string, std::string>& options,
                                             std::string& error);

} // namespace softcard
