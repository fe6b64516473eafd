#pragma once

// One run of the recorder: its configuration, its directory, and what it left there.

#include "contract.h"
#include "log_text.h"
#include "process.h"

#include "tests/support/temp_dir.h"

#include <filesystem>
#include <string>
#include <vector>

namespace recorder {

inline constexpr std::string_view kCsvHeader =
    "type,inst_id,update_time,update_milli_sec,change_no,last_px,volume,turnover,open_interest,"
    "bid1_volume,bid1_price,bid2_volume,bid2_price,bid3_volume,bid3_price,bid4_volume,bid4_price,"
    "bid5_volume,bid5_price,ask1_volume,ask1_price,ask2_volume,ask2_price,ask3_volume,ask3_price,"
    "ask4_volume,ask4_price,ask5_volume,ask5_price,bid_volume,bid_amount,ask_volume,ask_amount,"
    "highest_price,lowest_price\n";
inline constexpr std::string_view kVersionLine =
    "I ExanicMdImpl vorn_recv software version: Aug 18 2026 15:02:36 Shfe V2.1.1.12";
inline constexpr std::string_view kSignalLine = "received Ctrl + C signal.";

// A processor that this process may run on.
int usable_cpu();

// An empty text leaves the key out.
struct Config {
    std::string device = {};
    std::string insts = "all";
    bool shfe = true;
    bool ine = false;
    int cpu = usable_cpu();
    int log_level = 7;
    std::string more = {}; // further lines

    std::string text() const;
};

std::string capture_device(const std::filesystem::path& capture, const std::string& eof = "stop");

struct Recording {
    Ended end;
    std::string csv;
    Lines log; // of standard output
};

class Workspace {
public:
    std::filesystem::path path(const std::string& name) const { return root_.path() / name; }
    const std::filesystem::path& root() const { return root_.path(); }

    // Writes the configuration and makes a new, empty directory for the run.
    Launch prepare(const Config& config);
    std::filesystem::path config_path() const { return path("vorn.ini"); }
    void write_config(const Config& config) const;

    // Runs to the end.
    Recording record(const Config& config);
    Recording collect(const Launch& launch, const Ended& end) const;

private:
    support::TempDir root_;
    int runs_ = 0;
};

// The recorder with these arguments, in this directory.
Launch recorder_launch(const std::filesystem::path& directory,
                       const std::vector<std::string>& arguments);

// The one file of this ending in a directory; empty, and the test has failed, unless there is
// exactly one.
std::filesystem::path only_file(const std::filesystem::path& directory, const std::string& ending);
std::size_t size_of_csv(const std::filesystem::path& directory); // 0 while there is none

// Log lines up to the start of the snapshot, as they come at the default level.
Lines bring_up_lines(const Workspace& work, const Config& config, bool first_cycle = true);
// Those of a snapshot phase that succeeds at once.
Lines snapshot_lines(const std::vector<std::string>& finished, int cached_frames);
Lines joined(std::initializer_list<Lines> parts);

// The file that these rows make.
std::string csv_of(const std::vector<std::string>& rows);

} // namespace recorder
