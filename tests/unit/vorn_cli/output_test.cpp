// Where output goes: data, messages, the feed's lines.

#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/messages.h"
#include "tools/vorn/stdout_aside.h"
#include "tools/vorn/terminal.h"

#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

using namespace vorn_cli;

namespace {

TEST(StdoutAside, KeepsDataAndTheFeedsLinesApart) {
    const support::TempDir directory;
    const auto run = support::run_child(directory.path(), [] {
        std::printf("before ");
        {
            const StdoutAside aside(STDERR_FILENO);
            std::printf("a line of the feed");
            DataOut out(aside.data_descriptor());
            out.write("data ");
            out.close();
        }
        std::printf("after");
        std::fflush(stdout);
    });
    EXPECT_EQ(run.out, "before data after");
    EXPECT_EQ(run.err, "a line of the feed");
}

TEST(StdoutAside, FailsWhenThereIsNoStandardOutput) {
    const support::TempDir directory;
    const auto run = support::run_child(directory.path(), [] {
        ::close(STDOUT_FILENO);
        EXPECT_THROW(StdoutAside aside(STDERR_FILENO), Failure);
    });
    EXPECT_EQ(run.exit_status, 0) << run.err;
}

TEST(DataOut, WritesAFileOnlyAtItsEnd) {
    const support::TempDir directory;
    const std::string path = (directory.path() / "out.json").string();
    {
        DataOut out(path, false, STDOUT_FILENO);
        out.json({{"a", 1}});
        out.flush();
        EXPECT_FALSE(std::filesystem::exists(path));
        out.close();
    }
    EXPECT_EQ(support::read_file(path), "{\"a\":1}\n");
    EXPECT_THROW(DataOut(path, false, STDOUT_FILENO), Failure);
    {
        DataOut unfinished(path + "2", false, STDOUT_FILENO);
        unfinished.line("x");
    }
    EXPECT_FALSE(std::filesystem::exists(path + "2"));
}

TEST(DataOut, ADashIsStandardOutput) {
    const support::TempDir directory;
    const auto run = support::run_child(directory.path(), [] {
        DataOut out("-", false, STDOUT_FILENO);
        out.line("x");
        out.close();
    });
    EXPECT_EQ(run.out, "x\n");
}

TEST(DataOut, JsonReplacesBytesThatAreNotUtf8) {
    EXPECT_EQ(json_line({{"device", "a\xFF"}}), "{\"device\":\"a\xEF\xBF\xBD\"}");
}

TEST(DataOut, AFullDiskIsAFailure) {
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    DataOut out(full);
    out.line("x");
    EXPECT_THROW(out.flush(), Failure);
    ::close(full);
}

TEST(DataOut, AReaderThatHasGoneIsNone) {
    const support::TempDir directory;
    const auto run = support::run_child(directory.path(), [] {
        ::signal(SIGPIPE, SIG_IGN);
        int ends[2];
        ASSERT_EQ(::pipe(ends), 0);
        ::close(ends[0]);
        DataOut out(ends[1]);
        out.line("x");
        EXPECT_THROW(out.flush(), ReaderGone);
    });
    EXPECT_EQ(run.exit_status, 0) << run.err;
}

TEST(Messages, GoToStandardErrorAsFarAsTheyAreWanted) {
    const support::TempDir directory;
    const auto run = support::run_child(directory.path(), [] {
        Globals plain, quiet, verbose;
        quiet.quiet = true;
        verbose.verbose = 1;
        for (const Globals* globals : {&plain, &quiet, &verbose}) {
            say(*globals, "said {}", 1);
            detail(*globals, 1, "detail");
            detail(*globals, 2, "more detail");
        }
    });
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "said 1\nsaid 1\ndetail\n");
}

TEST(Terminal, PaintsOnlyWhenTold) {
    EXPECT_EQ(paint("x", Colour::kRed, false), "x");
    EXPECT_EQ(paint("x", Colour::kNone, true), "x");
    EXPECT_EQ(paint("x", Colour::kRed, true), "\x1b[1;31mx\x1b[0m");
}

TEST(Terminal, ObeysNothingThatComesFromElsewhere) {
    EXPECT_EQ(printable("a\x1b[2J\n\x7f"), "a\\x1b[2J\\x0a\\x7f");
    EXPECT_EQ(printable("\xC2\x9B"
                        "31m"),
              "\\xc2\x9B"
              "31m"); // a broken character, no control one
    EXPECT_EQ(printable("\xE9\x93\x9C"), "\xE9\x93\x9C");
}

// On a terminal: colour unless NO_COLOR or a dumb one says otherwise. Elsewhere: never.
TEST(Terminal, ColourIsForTerminals) {
    const support::TempDir directory;
    const auto run = support::run_child(directory.path(), [] {
        EXPECT_FALSE(use_colour(STDOUT_FILENO));
        const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_GE(terminal, 0);
        ::setenv("TERM", "xterm", 1);
        ::unsetenv("NO_COLOR");
        EXPECT_TRUE(use_colour(terminal));
        ::setenv("NO_COLOR", "", 1);
        EXPECT_TRUE(use_colour(terminal));
        ::setenv("NO_COLOR", "1", 1);
        EXPECT_FALSE(use_colour(terminal));
        ::unsetenv("NO_COLOR");
        ::setenv("TERM", "dumb", 1);
        EXPECT_FALSE(use_colour(terminal));
    });
    EXPECT_EQ(run.exit_status, 0) << run.out << run.err;
}

} // namespace
