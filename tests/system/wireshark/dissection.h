#pragma once

// A capture made frame by frame, and what tshark with the dissector says about it.

#include "tests/support/temp_dir.h"
#include "tests/system/vorn_check/capture_file.h"
#include "wirekit/bytes.h"

#include <memory>
#include <string>
#include <vector>

namespace wireshark_test {

class Dissection {
public:
    Dissection();

    // TCP payload of the snapshot server, continuing its stream.
    void segment(const wirekit::Bytes& payload, uint16_t server_port = 33022,
                 uint16_t client_port = 50001);
    // A stream cut into segments of at most `size` bytes.
    void segments(const wirekit::Bytes& stream, std::size_t size);
    // A decode buffer on line A or B of SHFE.
    void line_a(const wirekit::Bytes& buffer);
    void line_b(const wirekit::Bytes& buffer);
    void frame(const wirekit::Bytes& bytes);

    // Lines of tshark's output; the capture is closed by the first call. Fails the test when tshark
    // fails or a script error shows.
    std::vector<std::string> run(std::vector<std::string> arguments);
    // Numbers of the frames that pass the display filter.
    std::vector<int> frames(const std::string& filter);
    // The field's values, those of one frame separated by commas, of the frames that have it.
    std::vector<std::string> values(const std::string& field, const std::string& filter = "");
    // The info column of every frame.
    std::vector<std::string> info(std::vector<std::string> arguments = {});
    // The whole tree of every frame.
    std::string tree();

private:
    support::TempDir directory_;
    std::string path_;
    std::unique_ptr<vorn_check::CaptureFile> capture_;
    uint32_t next_seq_ = 1000;
};

} // namespace wireshark_test
