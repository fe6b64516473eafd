#pragma once

// The files of a session lie beside its capture: session.pcap, session.truth,
// session.manifest.json.

#include <string>
#include <vector>

namespace vorn_cli {

struct SessionFiles {
    std::string capture;
    std::string truth;
    std::string manifest;
};

// From the capture's path, whatever its suffix.
SessionFiles session_files(const std::string& capture);

std::string file_name(const std::string& path); // without its folders

// Throws Failure naming the first that exists, unless `force`. Empty names are skipped.
void refuse_existing(const std::vector<std::string>& paths, bool force);

} // namespace vorn_cli
