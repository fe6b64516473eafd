#include "tools/vorn/convert/parquet_sink.h"

#include "tools/vorn/convert/duckdb_library.h"
#include "tools/vorn/convert/npy_file.h"
#include "tools/vorn/exit_code.h"
#include "tools/vorn/part_file.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <optional>

namespace vorn_cli {

namespace {

int duckdb_type(RowColumn::Type type) {
    switch (type) {
    case RowColumn::Type::kText:
        return kDuckdbVarchar;
    case RowColumn::Type::kU16:
        return kDuckdbUsmallint;
    case RowColumn::Type::kU32:
        return kDuckdbUinteger;
    case RowColumn::Type::kI32:
        return kDuckdbInteger;
    case RowColumn::Type::kU64:
        return kDuckdbUbigint;
    default:
        return kDuckdbDouble;
    }
}

std::size_t element_size(RowColumn::Type type) {
    switch (type) {
    case RowColumn::Type::kU16:
        return 2;
    case RowColumn::Type::kU32:
    case RowColumn::Type::kI32:
        return 4;
    default:
        return 8;
    }
}

// Elements of a row column that are columns of their own in Parquet: the ten levels.
std::size_t parts(const RowColumn& column) {
    return column.type == RowColumn::Type::kText ? 1 : column.count;
}

// What DuckDB reads when it runs the table function.
struct Source {
    const DuckdbLibrary* duckdb = nullptr;
    std::span<const ResearchRow> rows;
    std::size_t next = 0;
};

// The one that is read; the callbacks of the table function run while its query does.
Source* g_source = nullptr;

// Makes a source the one that is read, for as long as it lives.
class Reading {
public:
    explicit Reading(Source& source) { g_source = &source; }
    ~Reading() { g_source = nullptr; }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;
};

void bind(DuckdbHandle info) {
    const DuckdbLibrary& duckdb = *g_source->duckdb;
    for (const RowColumn& column : row_columns()) {
        DuckdbHandle type = duckdb.create_logical_type(duckdb_type(column.type));
        for (std::size_t part = 0; part < parts(column); ++part) {
            const std::string name =
                parts(column) == 1 ? column.name : fmt::format("{}_{}", column.name, part + 1);
            duckdb.bind_add_result_column(info, name.c_str(), type);
        }
        duckdb.destroy_logical_type(&type);
    }
}

// One thread reads: the order of the rows is theirs.
void init(DuckdbHandle info) {
    g_source->duckdb->init_set_max_threads(info, 1);
}

// Identifiers of the wire may hold anything; a VARCHAR is UTF-8.
void fill_text(const DuckdbLibrary& duckdb, DuckdbHandle vector, const RowColumn& column,
               std::span<const ResearchRow> rows) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const char* const at = reinterpret_cast<const char*>(&rows[i]) + column.offset;
        std::string text(at, strnlen(at, column.count));
        std::replace_if(
            text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
        duckdb.vector_assign_string_element_len(vector, i, text.data(), text.size());
    }
}

template <std::size_t kSize>
void copy_numbers(char* to, std::size_t offset, std::span<const ResearchRow> rows) {
    for (const ResearchRow& row : rows) {
        std::memcpy(to, reinterpret_cast<const char*>(&row) + offset, kSize);
        to += kSize;
    }
}

void fill_numbers(void* to, std::size_t offset, std::size_t size,
                  std::span<const ResearchRow> rows) {
    char* const bytes = static_cast<char*>(to);
    switch (size) {
    case 2:
        return copy_numbers<2>(bytes, offset, rows);
    case 4:
        return copy_numbers<4>(bytes, offset, rows);
    default:
        return copy_numbers<8>(bytes, offset, rows);
    }
}

void fill(DuckdbHandle /*info*/, DuckdbHandle chunk) {
    const DuckdbLibrary& duckdb = *g_source->duckdb;
    Source& source = *g_source;
    const std::size_t count =
        std::min<std::size_t>(duckdb.vector_size(), source.rows.size() - source.next);
    const auto rows = source.rows.subspan(source.next, count);
    uint64_t index = 0;
    for (const RowColumn& column : row_columns()) {
        const std::size_t size = element_size(column.type);
        for (std::size_t part = 0; part < parts(column); ++part) {
            DuckdbHandle vector = duckdb.data_chunk_get_vector(chunk, index++);
            if (column.type == RowColumn::Type::kText) {
                fill_text(duckdb, vector, column, rows);
            } else {
                fill_numbers(duckdb.vector_get_data(vector), column.offset + part * size, size,
                             rows);
            }
        }
    }
    source.next += count;
    duckdb.data_chunk_set_size(chunk, count);
}

// A database in memory with one connection. It starts no thread, so that nobody but the caller has
// a say in the order of things, and fetches nothing.
class Database {
public:
    explicit Database(const DuckdbLibrary& duckdb) : duckdb_(duckdb) {
        DuckdbHandle config = nullptr;
        const bool fine =
            duckdb_.create_config(&config) == 0 &&
            duckdb_.set_config(config, "threads", "1") == 0 &&
            duckdb_.set_config(config, "preserve_insertion_order", "true") == 0 &&
            duckdb_.set_config(config, "autoinstall_known_extensions", "false") == 0 &&
            duckdb_.open_ext(nullptr, &database_, config, nullptr) == 0 &&
            duckdb_.connect(database_, &connection_) == 0;
        duckdb_.destroy_config(&config);
        if (!fine) {
            release();
            throw Failure(kFailed, "DuckDB cannot be started");
        }
    }
    ~Database() { release(); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void run(const std::string& sql) {
        DuckdbResult result{};
        std::string error;
        if (duckdb_.query(connection_, sql.c_str(), &result) != 0) {
            const char* const text = duckdb_.result_error(&result);
            error = text != nullptr ? text : "unknown reason";
        }
        duckdb_.destroy_result(&result);
        if (!error.empty()) {
            std::replace(error.begin(), error.end(), '\n', ' ');
            throw Failure(kFailed, fmt::format("DuckDB: {}", error));
        }
    }

    void add_function(const char* name) {
        DuckdbHandle function = duckdb_.create_table_function();
        duckdb_.table_function_set_name(function, name);
        duckdb_.table_function_set_bind(function, bind);
        duckdb_.table_function_set_init(function, init);
        duckdb_.table_function_set_function(function, fill);
        const int result = duckdb_.register_table_function(connection_, function);
        duckdb_.destroy_table_function(&function);
        if (result != 0) {
            throw Failure(kFailed, "DuckDB refuses to read the rows");
        }
    }

private:
    void release() {
        if (connection_ != nullptr) {
            duckdb_.disconnect(&connection_);
        }
        if (database_ != nullptr) {
            duckdb_.close(&database_);
        }
    }

    const DuckdbLibrary& duckdb_;
    DuckdbHandle database_ = nullptr;
    DuckdbHandle connection_ = nullptr;
};

std::string quoted_sql(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c;
        if (c == '\'') {
            quoted += c;
        }
    }
    return quoted + "'";
}

class ParquetSink final : public RowSink {
public:
    explicit ParquetSink(const SinkOptions& options)
        : duckdb_(options.duckdb), target_(options.output, options.force) {
        if (target_.path() == target_.target()) {
            throw Failure(kUsage,
                          fmt::format("{} is no regular file; Parquet needs one", options.output));
        }
        rows_.emplace(options.output + ".rows.npy", true);
    }

    void put(const ResearchRow& row) override { rows_->put(row); }
    void flush() override { rows_->flush(); }

    void finish() override {
        rows_->flush();
        const NpyRows mapped(rows_->path());
        Source source{&duckdb_, mapped.rows(), 0};
        const Reading reading(source);
        Database database(duckdb_);
        database.add_function("vorn_rows");
        database.run(fmt::format("COPY (SELECT * FROM vorn_rows()) TO {} (FORMAT parquet, "
                                 "COMPRESSION zstd, ROW_GROUP_SIZE 122880, USE_TMP_FILE false)",
                                 quoted_sql(target_.path())));
        if (source.next != source.rows.size()) {
            throw Failure(kFailed, "DuckDB did not take all rows");
        }
        bytes_ = std::filesystem::file_size(target_.path());
        target_.commit();
        rows_.reset();
    }

    std::string leave() override {
        rows_->keep();
        return rows_->path();
    }
    uint64_t bytes() const override { return bytes_; }

private:
    DuckdbLibrary duckdb_;
    PartFile target_;
    std::optional<NpyFile> rows_;
    uint64_t bytes_ = 0;
};

} // namespace

std::unique_ptr<RowSink> open_parquet_sink(const SinkOptions& options) {
    return std::make_unique<ParquetSink>(options);
}

} // namespace vorn_cli
