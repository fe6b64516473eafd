#include "dissection.h"

#include "tests/system/vorn_check/run_program.h"
#include "wirekit/ethernet.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sstream>

namespace wireshark_test {

Dissection::Dissection()
    : path_((directory_.path() / "test.pcap").string()),
      capture_(std::make_unique<vorn_check::CaptureFile>(path_)) {}

void Dissection::segment(const wirekit::Bytes& payload, uint16_t server_port,
                         uint16_t client_port) {
    frame(wirekit::tcp_segment()
              .from(0x0A010101, server_port)
              .to(0x0A010102, client_port)
              .seq(next_seq_)
              .payload(payload)
              .bytes());
    next_seq_ += static_cast<uint32_t>(payload.size());
}

void Dissection::segments(const wirekit::Bytes& stream, std::size_t size) {
    for (std::size_t at = 0; at < stream.size(); at += size) {
        const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(at);
        segment({begin, begin + static_cast<std::ptrdiff_t>(std::min(size, stream.size() - at))});
    }
}

void Dissection::line_a(const wirekit::Bytes& buffer) {
    frame(wirekit::udp_datagram().to(0xEF042A48, 21000).payload(buffer).bytes());
}

void Dissection::line_b(const wirekit::Bytes& buffer) {
    frame(wirekit::udp_datagram().to(0xEF032A47, 21000).payload(buffer).bytes());
}

void Dissection::frame(const wirekit::Bytes& bytes) {
    capture_->add(bytes);
}

std::vector<std::string> Dissection::run(std::vector<std::string> arguments) {
    capture_.reset();
    const std::vector<std::string> always = {
        VORN_TSHARK, "-n", "-X", std::string("lua_script:") + VORN_DISSECTOR, "-r", path_};
    arguments.insert(arguments.begin(), always.begin(), always.end());
    // Without the user's own settings and plugins, of which one may be this dissector.
    const auto run = vorn_check::run_program(arguments, directory_.path(), [this] {
        ::setenv("HOME", directory_.path().c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", directory_.path().c_str(), 1);
        ::unsetenv("WIRESHARK_CONFIG_DIR");
    });
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(run.err.find("Lua"), std::string::npos) << run.err;
    EXPECT_EQ(run.out.find("Lua Error"), std::string::npos) << run.out;
    std::vector<std::string> lines;
    std::istringstream out(run.out);
    for (std::string line; std::getline(out, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<int> Dissection::frames(const std::string& filter) {
    std::vector<int> numbers;
    for (const std::string& line : run({"-Y", filter, "-T", "fields", "-e", "frame.number"})) {
        numbers.push_back(std::stoi(line));
    }
    return numbers;
}

std::vector<std::string> Dissection::values(const std::string& field, const std::string& filter) {
    return run({"-Y", filter.empty() ? field : filter, "-T", "fields", "-e", field});
}

std::vector<std::string> Dissection::info(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"-T", "fields", "-e", "_ws.col.Info"});
    return run(arguments);
}

std::string Dissection::tree() {
    std::string text;
    for (const std::string& line : run({"-V"})) {
        text += line + "\n";
    }
    return text;
}

} // namespace wireshark_test
