#pragma once

// DuckDB's library, loaded when it is needed: those of its C functions that write a file from rows.
// Nothing of it is needed to build this program.

#include <cstddef>
#include <cstdint>
#include <string>

namespace vorn_cli {

// The records and handles of DuckDB's C interface, as far as they are used.
struct DuckdbResult {
    uint64_t words[16]; // six of them are used; it is passed by address and never looked into
};
using DuckdbHandle = void*;
using DuckdbCallback = void (*)(DuckdbHandle info);
using DuckdbFill = void (*)(DuckdbHandle info, DuckdbHandle chunk);

// Values of duckdb_type.
inline constexpr int kDuckdbInteger = 4;
inline constexpr int kDuckdbUsmallint = 7;
inline constexpr int kDuckdbUinteger = 8;
inline constexpr int kDuckdbUbigint = 9;
inline constexpr int kDuckdbDouble = 11;
inline constexpr int kDuckdbVarchar = 17;

class DuckdbLibrary {
public:
    // `path`, else the one that VORN_DUCKDB names, else libduckdb.so where the system looks for
    // libraries. Throws Failure with what to install.
    explicit DuckdbLibrary(const std::string& path);
    // It stays loaded: it has threads and memory that outlive any one use.
    ~DuckdbLibrary() = default;
    DuckdbLibrary(const DuckdbLibrary&) = delete;
    DuckdbLibrary& operator=(const DuckdbLibrary&) = delete;

    const std::string& path() const { return path_; }

    // What returns an int returns 0 when all is well.
    int (*create_config)(DuckdbHandle* config) = nullptr;
    int (*set_config)(DuckdbHandle config, const char* name, const char* value) = nullptr;
    void (*destroy_config)(DuckdbHandle* config) = nullptr;
    int (*open_ext)(const char* path, DuckdbHandle* database, DuckdbHandle config,
                    char** error) = nullptr;
    void (*close)(DuckdbHandle* database) = nullptr;
    int (*connect)(DuckdbHandle database, DuckdbHandle* connection) = nullptr;
    void (*disconnect)(DuckdbHandle* connection) = nullptr;
    int (*query)(DuckdbHandle connection, const char* sql, DuckdbResult* result) = nullptr;
    const char* (*result_error)(DuckdbResult* result) = nullptr;
    void (*destroy_result)(DuckdbResult* result) = nullptr;

    DuckdbHandle (*create_logical_type)(int type) = nullptr;
    void (*destroy_logical_type)(DuckdbHandle* type) = nullptr;

    DuckdbHandle (*create_table_function)() = nullptr;
    void (*destroy_table_function)(DuckdbHandle* function) = nullptr;
    void (*table_function_set_name)(DuckdbHandle function, const char* name) = nullptr;
    void (*table_function_set_bind)(DuckdbHandle function, DuckdbCallback bind) = nullptr;
    void (*table_function_set_init)(DuckdbHandle function, DuckdbCallback init) = nullptr;
    void (*table_function_set_function)(DuckdbHandle function, DuckdbFill fill) = nullptr;
    int (*register_table_function)(DuckdbHandle connection, DuckdbHandle function) = nullptr;

    void (*bind_add_result_column)(DuckdbHandle info, const char* name,
                                   DuckdbHandle type) = nullptr;
    void (*init_set_max_threads)(DuckdbHandle info, uint64_t threads) = nullptr;

    uint64_t (*vector_size)() = nullptr;
    DuckdbHandle (*data_chunk_get_vector)(DuckdbHandle chunk, uint64_t column) = nullptr;
    void (*data_chunk_set_size)(DuckdbHandle chunk, uint64_t rows) = nullptr;
    void* (*vector_get_data)(DuckdbHandle vector) = nullptr;
    void (*vector_assign_string_element_len)(DuckdbHandle vector, uint64_t index, const char* text,
                                             uint64_t length) = nullptr;

private:
    void* handle_ = nullptr;
    std::string path_;
};

} // namespace vorn_cli
