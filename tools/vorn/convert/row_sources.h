#pragma once

// Where rows come from: each function reads its source to the end, or until the taker is done, and
// throws Failure when it cannot.

#include "tools/vorn/convert/row_taker.h"

#include <string>

namespace vorn_cli {

enum class SourceKind : uint8_t { kCapture, kCsv, kNpy, kBus };
const char* source_kind_name(SourceKind kind);
// By the first bytes of the file. Throws Failure when it is none of them.
SourceKind kind_of_file(const std::string& path);

// What ended the reading, beyond its end.
struct SourceEnd {
    bool interrupted = false; // by a signal from outside
    std::string remark;       // something that the user should know; empty: nothing
    bool failed = false;      // the source gave up (remark says why); the rows before that are good
    bool lost = false;        // rows are missing that were there when the reading began
};

// A capture, through the feed in step mode. Rows are its callbacks and events, in order. Their time
// is that of the decode buffer, of an event that of the decode buffer before it. (In step mode the
// feed applies what it has cached during a snapshot without a callback, so that every callback
// comes of the buffer that was read last.)
SourceEnd rows_of_capture(const std::string& path, const std::string& config, RowTaker& taker);

// A file of the recorder. Where the change numbers of an instrument skip without an event that
// explains it, there is a kSkip row. A last line that was torn by a kill is left out.
SourceEnd rows_of_csv(const std::string& path, RowTaker& taker);

// A research file.
SourceEnd rows_of_npy(const std::string& path, RowTaker& taker);

// A bus by name or path: what its ring still holds, and with `follow` what comes until its writer
// ends or a signal does. Where records were overwritten before they could be read there is a kLost
// row.
SourceEnd rows_of_bus(const std::string& name, bool follow, RowTaker& taker);

} // namespace vorn_cli
