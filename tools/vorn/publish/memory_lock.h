#pragma once

namespace vorn_cli {

// Keeps all memory of the process in RAM, what it takes from now on included: nothing that the feed
// touches has to be fetched first. Throws Failure when the system does not allow it.
void lock_memory();

} // namespace vorn_cli
