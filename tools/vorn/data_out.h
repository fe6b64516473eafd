#pragma once

// Where a subcommand's data go: standard output, or the file that -o names. Buffered; nothing is
// lost silently: whatever cannot be written is a Failure.

#include "tools/vorn/part_file.h"

#include <nlohmann/json_fwd.hpp>

#include <memory>
#include <string>
#include <string_view>

namespace vorn_cli {

// The reader of standard output has gone away (a closed pipe, as by `| head`). Ends the subcommand
// quietly with kFine.
class ReaderGone {};

class DataOut {
public:
    // Writes to a descriptor, which stays the caller's.
    explicit DataOut(int descriptor);
    // Writes the file `path`, or to `descriptor` when it is empty or "-".
    DataOut(const std::string& path, bool force, int descriptor);
    // Discards what close() has not written, and an unfinished file.
    ~DataOut();
    DataOut(const DataOut&) = delete;
    DataOut& operator=(const DataOut&) = delete;

    void write(std::string_view bytes);
    void line(std::string_view text);        // adds the line end
    void json(const nlohmann::json& object); // one line; bytes that are not UTF-8 are replaced
    void flush();
    // Leaves a file without its name and says where it is; it has what was flushed.
    std::string keep();
    // Writes what is buffered and gives a file its name.
    void close();

private:
    std::unique_ptr<PartFile> file_;
    int descriptor_;
    std::string name_; // for messages
    std::string buffer_;
};

// The object as one line without line end.
std::string json_line(const nlohmann::json& object);

} // namespace vorn_cli
