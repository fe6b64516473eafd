// What `vorn convert` refuses, in one line each, and what it leaves alone then.

#include "convert_program.h"

#include <filesystem>

using vorn_session::contains;
using vorn_session::lines;

namespace {

using ConvertRefusals = vorn_convert::ConvertProgram;

TEST_F(ConvertRefusals, AreOneLineThatSaysWhatToDo) {
    sim("s");
    convert({"s.pcap", "-o", "s.npy"});
    directory_.write("text.txt", "type of thing\n");
    directory_.write("other.csv", "type,inst_id,update_time,other\n0,a,b\n");
    const std::string npy = content("s.npy");
    directory_.write("short.npy", npy.substr(0, npy.size() - 1));
    std::string old = npy;
    old[200] ^= 1; // inside the names of the columns
    directory_.write("old.npy", old);
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* says;
    } cases[] = {
        {{"s.pcap"}, 2, "say where to write: -o rows.npy"},
        {{"s.pcap", "-o", "s.txt"}, 2, "must be .npy, .csv, .parquet"},
        {{"s.pcap", "-o", "s.npy"}, 2, "s.npy exists; -f replaces it"},
        {{"s.pcap", "--format", "npy"}, 2, "npy cannot go to standard output"},
        {{"s.pcap", "-o", "x", "--format", "xml"}, 2, "npy, csv or parquet, not 'xml'"},
        {{"s.pcap", "--format", "csv", "--json"}, 2, "cannot both go to standard output"},
        {{"-o", "x.npy"}, 2, "say what to convert"},
        {{"s.pcap", "--bus", "live", "-o", "x.npy"}, 2, "say what to convert, one thing"},
        {{"--bus", "no-such-bus", "-o", "x.npy"}, 1, "there is no bus"},
        {{"s.npy", "--config", "vorn.ini", "-o", "x.npy"}, 2, "--config is for a capture"},
        {{"s.npy", "--no-follow", "-o", "x.npy"}, 2, "--no-follow is for a bus"},
        {{"s.pcap", "--from", "9", "--to", "24:00", "-o", "x.npy"}, 2, "--to takes a time of day"},
        {{"s.pcap", "--from", "9:30", "-o", "x.npy"}, 2, "not '9:30'"},
        {{"s.pcap", "--instruments", "cu26", "-o", "x.npy"}, 2, "'cu26' matches nothing"},
        {{"s.pcap", "--instruments", ",", "-o", "x.npy"}, 2, "names none"},
        {{"s.pcap", "--limit", "0", "-o", "x.npy"}, 2, "--limit"},
        {{"absent.pcap", "-o", "x.npy"}, 1, "cannot read absent.pcap"},
        {{"text.txt", "-o", "x.npy"}, 1, "none of what can be converted"},
        {{"other.csv", "-o", "x.npy"}, 1, "its first line is not the recorder's header"},
        {{"short.npy", "-o", "x.npy"}, 1, "fewer rows than its header says"},
        {{"old.npy", "-o", "x.npy"}, 1, "its columns are not those"},
        {{"s.pcap", "-o", "x.parquet", "--duckdb", "absent.so"},
         1,
         "npm install @duckdb/node-bindings-linux-x64"},
        {{"s.pcap", "-o", "x.parquet", "--duckdb", "libm.so.6"}, 1, "it is not DuckDB's library"},
    };
    for (const auto& row : cases) {
        std::vector<std::string> arguments = row.arguments;
        arguments.insert(arguments.begin(), "convert");
        const auto run = vorn(arguments);
        EXPECT_EQ(run.exit_status, row.status) << row.says;
        EXPECT_EQ(run.out, "") << row.says;
        EXPECT_EQ(lines(run.err), 1u) << run.err;
        EXPECT_TRUE(contains(run.err, row.says)) << run.err;
    }
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
        const std::string file = entry.path().filename().string();
        EXPECT_NE(file.front(), 'x') << file << " was left behind";
        EXPECT_NE(entry.path().extension(), ".part") << file;
    }
    EXPECT_EQ(content("s.npy"), npy);
}

} // namespace
