// What every subcommand of the program keeps to.

#include "run_program.h"

#include "tests/support/temp_dir.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using vorn_check::run_program;

namespace {

class Conventions : public testing::Test {
protected:
    support::ChildRun vorn(std::vector<std::string> arguments,
                           const std::function<void()>& before_exec = {}) const {
        arguments.insert(arguments.begin(), VORN_PROGRAM);
        return run_program(arguments, directory_.path(), before_exec);
    }

    support::TempDir directory_;
};

std::size_t lines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

TEST_F(Conventions, HelpBeginsWithExamples) {
    for (const auto& arguments : {std::vector<std::string>{"--help"},
                                  {"-h"},
                                  {"help"},
                                  {"check", "--help"},
                                  {"check", "-h"},
                                  {"help", "check"}}) {
        const auto run = vorn(arguments);
        EXPECT_EQ(run.exit_status, 0);
        EXPECT_EQ(run.err, "");
        const std::size_t examples = run.out.find("\nexamples:\n  vorn ");
        const std::size_t usage = run.out.find("\nusage: vorn");
        EXPECT_NE(examples, std::string::npos) << run.out;
        EXPECT_NE(usage, std::string::npos) << run.out;
        EXPECT_LT(examples, usage) << run.out;
    }
}

TEST_F(Conventions, HelpListsEverySubcommandAndEachHasItsOwn) {
    const std::string help = vorn({"--help"}).out;
    std::size_t at = help.find("\nsubcommands:\n");
    ASSERT_NE(at, std::string::npos) << help;
    std::vector<std::string> names;
    for (at = help.find('\n', at + 1); at + 3 < help.size(); at = help.find('\n', at + 1)) {
        if (help.compare(at + 1, 2, "  ") == 0 && help[at + 3] != ' ') {
            names.push_back(help.substr(at + 3, help.find(' ', at + 3) - at - 3));
        }
    }
    EXPECT_FALSE(names.empty());
    for (const std::string& name : names) {
        const auto run = vorn({name, "--help"});
        EXPECT_EQ(run.exit_status, 0) << name;
        EXPECT_EQ(run.out.find("vorn " + name + ": "), 0u) << run.out;
        EXPECT_NE(run.out.find("\nexamples:\n"), std::string::npos) << run.out;
    }
}

TEST_F(Conventions, VersionNamesCompilerCardAndSystem) {
    const auto run = vorn({"--version"});
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.out.find("vorn " VORN_VERSION), 0u) << run.out;
    EXPECT_NE(run.out.find("\ncompiler  "), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("\ncard      " VORN_CARD_IN_USE "\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("\nsystem    Linux "), std::string::npos) << run.out;
}

struct UsageCase {
    std::vector<std::string> arguments;
    const char* says;
};

TEST_F(Conventions, AWrongCommandLineIsOneLineAndStatusTwo) {
    const UsageCase cases[] = {
        {{}, "a subcommand is missing (subcommands: "},
        {{"chekc"}, "did you mean check?"},
        {{"help", "chekc"}, "did you mean check?"},
        {{"nothing-like-it"}, "subcommands: "},
        {{"--frobnicate"}, "unknown option --frobnicate"},
        {{"check"}, "vorn check: FILE is required"},
        {{"check", "a", "b"}, "'b' is one argument too many"},
        {{"check", "--jsno", "a"}, "unknown option --jsno; did you mean --json?"},
        {{"check", "a", "--json=1"}, "json"},
        {{"check", "a", "-q", "-v"}, "--verbose"},
        {{"check", "a", "--capture"}, "--capture"},
        {{"check", "a", "--cpus", "none"}, "cpus"},
    };
    for (const UsageCase& row : cases) {
        const auto run = vorn(row.arguments);
        EXPECT_EQ(run.exit_status, 2) << row.says;
        EXPECT_EQ(run.out, "") << row.says;
        EXPECT_EQ(lines(run.err), 1u) << run.err;
        EXPECT_NE(run.err.find(row.says), std::string::npos) << run.err;
    }
}

TEST_F(Conventions, AnErrorShowsNoEscapeSequences) {
    const auto run = vorn({"\x1b[31mred\n"});
    EXPECT_EQ(run.exit_status, 2);
    EXPECT_EQ(run.err.find('\x1b'), std::string::npos);
    EXPECT_EQ(lines(run.err), 1u) << run.err;
}

TEST_F(Conventions, OutputThatCannotBeWrittenIsAFailure) {
    for (const auto& arguments :
         {std::vector<std::string>{"--help"}, {"--version"}, {"check", "absent.ini"}}) {
        const auto full =
            vorn(arguments, [] { ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO); });
        EXPECT_EQ(full.exit_status, 1);
        EXPECT_NE(full.err.find("cannot be written"), std::string::npos) << full.err;
        const auto closed = vorn(arguments, [] { ::close(STDOUT_FILENO); });
        EXPECT_EQ(closed.exit_status, 1);
        EXPECT_NE(closed.err.find("cannot be written"), std::string::npos) << closed.err;
    }
}

TEST_F(Conventions, AReaderThatHasSeenEnoughIsFine) {
    const auto run = vorn({"--help"}, [] {
        int ends[2];
        if (::pipe(ends) == 0) {
            ::close(ends[0]);
            ::dup2(ends[1], STDOUT_FILENO);
        }
    });
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.err, "");
}

// Standard output on a terminal of its own; returns what it shows.
std::string on_terminal(const std::function<void(const std::function<void()>&)>& run) {
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(terminal, 0);
    EXPECT_EQ(::grantpt(terminal), 0);
    EXPECT_EQ(::unlockpt(terminal), 0);
    const std::string name = ::ptsname(terminal);
    // Held open, so that what was written stays readable.
    const int other_side = ::open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    run([&] {
        ::setenv("TERM", "xterm", 1);
        ::dup2(other_side, STDOUT_FILENO);
    });
    ::fcntl(terminal, F_SETFL, O_NONBLOCK);
    std::string shown;
    std::array<char, 4096> block;
    for (ssize_t got = 0; (got = ::read(terminal, block.data(), block.size())) > 0;) {
        shown.append(block.data(), static_cast<std::size_t>(got));
    }
    ::close(other_side);
    ::close(terminal);
    return shown;
}

TEST_F(Conventions, ColourIsForTerminalsAndObeysNoColor) {
    directory_.write("bad.ini", "device = x\n");
    const auto on_pipe = vorn({"check", "bad.ini"});
    EXPECT_EQ(on_pipe.out.find('\x1b'), std::string::npos) << on_pipe.out;
    const std::string coloured = on_terminal([&](const std::function<void()>& attach) {
        vorn({"check", "bad.ini"}, [&] {
            attach();
            ::unsetenv("NO_COLOR");
        });
    });
    EXPECT_NE(coloured.find("\x1b[1;31merror:"), std::string::npos) << coloured;
    const std::string plain = on_terminal([&](const std::function<void()>& attach) {
        vorn({"check", "bad.ini"}, [&] {
            attach();
            ::setenv("NO_COLOR", "1", 1);
        });
    });
    EXPECT_NE(plain.find("error:"), std::string::npos) << plain;
    EXPECT_EQ(plain.find('\x1b'), std::string::npos) << plain;
}

} // namespace
