// Several threads log at once: whole lines, one file, no thread's lines out of order.

#include "CommonLog.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <map>
#include <pthread.h>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using support::ChildRun;
using support::TempDir;

constexpr char LOG_FILE_TAG[] = "CommonLog_threads_test";
constexpr int kLinesPerThread = 1500;

// Every other thread writes lines that fill the stream's buffer every few lines.
std::string padding_of(int speaker) {
    return std::string(speaker % 2 == 0 ? 10 : 3000, static_cast<char>('a' + speaker));
}

void speak(int speaker, const std::string& padding) {
    for (int i = 0; i < kLinesPerThread; ++i) {
        MD_LOG(LOG_INFO, "speaker %d line %d %s.", speaker, i, padding.c_str());
    }
}

// Starts the threads at the same moment.
void speak_at_once(int threads) {
    std::atomic<int> ready{0};
    std::vector<std::thread> speakers;
    for (int speaker = 0; speaker < threads; ++speaker) {
        speakers.emplace_back([speaker, threads, &ready] {
            const std::string padding = padding_of(speaker);
            ++ready;
            while (ready < threads) {
                std::this_thread::yield();
            }
            speak(speaker, padding);
        });
    }
    for (std::thread& thread : speakers) {
        thread.join();
    }
}

void expect_whole_lines(const std::string& text, int threads) {
    std::map<int, int> next_line;
    std::map<int, unsigned long> thread_of;
    std::istringstream lines(text);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        int date = 0;
        int clock[3] = {};
        unsigned long thread = 0;
        int source_line = 0;
        int speaker = 0;
        int number = 0;
        int parsed = 0;
        ASSERT_EQ(std::sscanf(line.c_str(),
                              "\x1b[32;1m [I] [%8d][%2d:%2d:%2d][%lu] [CommonLog_threads_test:%d]"
                              "[speak]speaker %d line %d %n",
                              &date, &clock[0], &clock[1], &clock[2], &thread, &source_line,
                              &speaker, &number, &parsed),
                  8)
            << line;
        ASSERT_EQ(number, next_line[speaker]++);
        ASSERT_EQ(line.substr(static_cast<std::size_t>(parsed)), padding_of(speaker) + ".\x1b[0m ");
        ASSERT_EQ(thread_of.try_emplace(speaker, thread).first->second, thread);
    }
    EXPECT_EQ(count, threads * kLinesPerThread);
    std::set<unsigned long> ids;
    for (const auto& [speaker, id] : thread_of) {
        ids.insert(id);
    }
    EXPECT_EQ(ids.size(), static_cast<std::size_t>(threads));
}

TEST(CommonLogThreads, WriteWholeLinesInTheirOwnOrder) {
    for (const int threads : {2, 4}) {
        const TempDir dir;
        const ChildRun run = support::run_child(dir.path(), [&] { speak_at_once(threads); });
        ASSERT_EQ(run.exit_status, 0) << run.err;
        expect_whole_lines(run.out, threads);
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
            files.push_back(entry.path());
        }
        ASSERT_EQ(files.size(), 1U) << "the file is opened exactly once";
        EXPECT_EQ(support::read_file(files.front()), run.out);
    }
}

TEST(CommonLogThreads, MayChangeMaskAndPathMeanwhile) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        std::atomic<bool> stop{false};
        std::thread changer([&stop] {
            std::string path = ".";
            for (int i = 0; !stop; ++i) {
                CCommonLog::GetInstance()->SetLogLevel(i % 2 == 0 ? LOG_ERROR : LOG_INFO);
                CCommonLog::GetInstance()->SetLogPath(path);
                EXPECT_NE(CCommonLog::GetInstance()->GetLogLevel(), 0);
            }
        });
        speak(0, "padding");
        stop = true;
        changer.join();
    });
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(run.err, "");
}

TEST(CommonLogThreads, AreNamedByTheirOwnId) {
    const TempDir dir;
    const ChildRun run = support::run_child(dir.path(), [] {
        std::thread([] {
            MD_LOG(LOG_INFO, "id %lu", static_cast<unsigned long>(::pthread_self()));
        }).join();
    });
    const std::vector<support::LogLine> lines = support::parse_log(run.out);
    ASSERT_EQ(lines.size(), 1U) << run.out;
    EXPECT_EQ(lines[0].message, "id " + lines[0].thread);
    EXPECT_NE(lines[0].thread, std::to_string(::pthread_self()));
}

} // namespace
