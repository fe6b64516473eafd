#include "tools/vorn/globals.h"

#include "tools/vorn/exit_code.h"

#include <gtest/gtest.h>

using namespace vorn_cli;

namespace {

TEST(Globals, ASubcommandReadsTheSharedOptionsAndRuns) {
    Globals globals;
    CLI::App app;
    CLI::App& sub = add_subcommand(app, "info", "what it holds", {{"vorn info x", "counts"}});
    add_json_flag(sub, globals);
    add_message_flags(sub, globals);
    add_output_options(sub, globals, ".csv");
    on_run(sub, globals, [](const Globals& g) { return g.verbose; });
    app.parse("info --json -vv -o x.csv -f");
    EXPECT_TRUE(globals.json);
    EXPECT_FALSE(globals.quiet);
    EXPECT_TRUE(globals.force);
    EXPECT_EQ(globals.output, "x.csv");
    ASSERT_TRUE(globals.action);
    EXPECT_EQ(globals.action(), 2);
}

TEST(Globals, AnUnavailableSubcommandSaysWhatToInstall) {
    Globals globals;
    CLI::App app;
    add_unavailable(app, globals, "table", "rows as a table", "libtable-dev");
    EXPECT_NE(app.get_subcommand("table")->get_description().find("not built: needs libtable-dev"),
              std::string::npos);
    app.parse("table x --of any.kind");
    try {
        globals.action();
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), kUsage);
        EXPECT_NE(std::string(failure.what()).find("apt-get install libtable-dev"),
                  std::string::npos);
    }
}

TEST(Globals, TheSuffixChoosesTheFormat) {
    const std::vector<std::string> suffixes = {".csv.gz", ".csv", ".json"};
    EXPECT_EQ(suffix_of("a/day.csv", suffixes), ".csv");
    EXPECT_EQ(suffix_of("day.csv.gz", suffixes), ".csv.gz");
    EXPECT_EQ(suffix_of("DAY.JSON", suffixes), ".json");
    for (const char* path : {"day", "day.parquet", ".csv", "csv", ""}) {
        try {
            suffix_of(path, suffixes);
            ADD_FAILURE() << path;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.code(), kUsage);
            EXPECT_NE(std::string(failure.what()).find(".csv.gz, .csv, .json"), std::string::npos);
        }
    }
}

} // namespace
