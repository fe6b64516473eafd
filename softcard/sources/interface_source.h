#pragma once

// Frames from a network interface as they come, through libpcap: of both directions, whole, with
// time stamps of the kernel in nanoseconds where it has them. For labs, and for sites that mirror
// the exchange's traffic to an ordinary card.
//
// The kernel keeps what comes in a buffer of its own until it is taken; what does not fit there is
// counted as lost. Taken by whoever polls: no thread, and no poll waits.

#include "softcard/sources/live_source.h"

#include <memory>
#include <string>

namespace softcard {

struct InterfaceOptions {
    std::string interface;
    uint64_t buffer_bytes = uint64_t{64} << 20; // of the kernel
    // Exhausted after so long without a frame once one has come; 0: never.
    double idle_seconds = 0;
};

// Null with a one-line reason in `error`: no such interface, loopback, down, no privileges. An
// interface whose offloads would spoil frames is opened, with a warning on standard error.
std::unique_ptr<LiveSource> open_interface_source(const InterfaceOptions& options,
                                                  std::string& error);

} // namespace softcard
