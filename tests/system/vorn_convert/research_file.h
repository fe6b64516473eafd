#pragma once

// A research file as its bytes say, read without the code that writes them.

#include "tools/vorn/convert/research_row.h"

#include <string>
#include <vector>

namespace vorn_convert {

struct ResearchFile {
    std::string problem; // why it is no whole file; empty: it is one
    std::string header;
    std::vector<vorn_cli::ResearchRow> rows; // as many as the header says
    std::vector<vorn_cli::ResearchRow> updates() const;
    std::vector<vorn_cli::ResearchRow> events() const;
};

ResearchFile read_research_file(const std::string& path);

bool same_bytes(const vorn_cli::ResearchRow& a, const vorn_cli::ResearchRow& b);
std::string inst_id_of(const vorn_cli::ResearchRow& row);
// "phase phase round gap", the names of the events
std::string event_names(const std::vector<vorn_cli::ResearchRow>& events);

} // namespace vorn_convert
