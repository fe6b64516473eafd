#include "tools/vorn/convert/row_sink.h"

#include "tools/vorn/convert/csv_event.h"
#include "tools/vorn/convert/npy_file.h"
#include "tools/vorn/convert/parquet_sink.h"
#include "tools/vorn/data_out.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/globals.h"
#include "tools/vorn/record/csv_row.h"

#include <csignal>
#include <fmt/format.h>
#include <unistd.h>

namespace vorn_cli {

namespace {

class NpySink final : public RowSink {
public:
    explicit NpySink(const SinkOptions& options) : file_(options.output, options.force) {}

    void put(const ResearchRow& row) override { file_.put(row); }
    void flush() override { file_.flush(); }
    void finish() override { file_.commit(); }
    std::string leave() override {
        file_.keep();
        return file_.path();
    }
    uint64_t bytes() const override { return file_.bytes(); }

private:
    NpyFile file_;
};

class CsvSink final : public RowSink {
public:
    explicit CsvSink(const SinkOptions& options)
        : standard_output_(::dup(STDOUT_FILENO)),
          out_(options.output, options.force, standard_output_),
          to_file_(!options.output.empty() && options.output != "-") {
        out_.write(csv_header());
        bytes_ = csv_header().size();
    }

    ~CsvSink() override { ::close(standard_output_); }
    CsvSink(const CsvSink&) = delete;
    CsvSink& operator=(const CsvSink&) = delete;

    void put(const ResearchRow& row) override {
        line_.clear();
        append_research_csv_row(line_, row);
        bytes_ += line_.size();
        out_.write(line_);
    }
    void flush() override { out_.flush(); }
    void finish() override { out_.close(); }
    std::string leave() override { return out_.keep(); }
    uint64_t bytes() const override { return to_file_ ? bytes_ : 0; }

private:
    int standard_output_; // another descriptor of it: while a feed runs, 1 leads elsewhere
    DataOut out_;
    bool to_file_;
    std::string line_;
    uint64_t bytes_ = 0;
};

} // namespace

const char* row_format_name(RowFormat format) {
    static constexpr const char* kNames[] = {"npy", "csv", "parquet"};
    return kNames[static_cast<std::size_t>(format)];
}

const std::vector<std::string>& row_format_suffixes() {
    static const std::vector<std::string> suffixes = {".npy", ".csv", ".parquet"};
    return suffixes;
}

RowFormat choose_row_format(const std::string& output, const std::string& name) {
    const bool to_file = !output.empty() && output != "-";
    if (!to_file && name.empty()) {
        throw Failure(kUsage, "say where to write: -o rows.npy, rows.csv or rows.parquet; or "
                              "--format csv for standard output");
    }
    const std::string suffix = name.empty() ? suffix_of(output, row_format_suffixes()) : "." + name;
    for (const RowFormat format : {RowFormat::kNpy, RowFormat::kCsv, RowFormat::kParquet}) {
        if (suffix.substr(1) == row_format_name(format)) {
            if (!to_file && format != RowFormat::kCsv) {
                throw Failure(kUsage, fmt::format("{} cannot go to standard output; name a file "
                                                  "with -o",
                                                  row_format_name(format)));
            }
            return format;
        }
    }
    throw Failure(kUsage, fmt::format("--format takes npy, csv or parquet, not '{}'", name));
}

std::unique_ptr<RowSink> open_row_sink(const SinkOptions& options) {
    ::signal(SIGXFSZ, SIG_IGN); // a limit on the size of files is met as a full disk
    switch (options.format) {
    case RowFormat::kNpy:
        return std::make_unique<NpySink>(options);
    case RowFormat::kCsv:
        return std::make_unique<CsvSink>(options);
    default:
        return open_parquet_sink(options);
    }
}

void append_research_csv_row(std::string& block, const ResearchRow& row) {
    append_csv_row(block, is_event(row) ? csv_event_record(row) : row.record);
}

} // namespace vorn_cli
