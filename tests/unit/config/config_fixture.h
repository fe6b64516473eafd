#pragma once

// Loads configuration files from text and compares whole records.

#include "config/ConfigParse.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

// Every field of the record on a line of its own, so that two records can be compared whole.
std::string describe(const ExanicMdConfigData& data);

// The record after a file that names a device, "insts = all" and nothing else.
ExanicMdConfigData default_data();

// What one call of InitConfig left behind.
struct Loaded {
    int result = 0;
    ExanicMdConfigData data;
    int mask = 0;
    std::string path;
    std::vector<std::string> log;
};

// Writes `content` to a file of `dir` and loads it with the logger's mask at `mask`.
Loaded load_in(const support::TempDir& dir, const std::string& content, int mask = 31);
// The same in a directory of its own.
Loaded load(const std::string& content, int mask = 31);

// Loads "[config]", device and insts as in default_data(), and `lines` behind them.
Loaded load_with(const std::string& lines);
