#include "tools/vorn/convert/duckdb_library.h"

#include "tools/vorn/exit_code.h"

#include <cstdlib>
#include <dlfcn.h>
#include <fmt/format.h>

namespace vorn_cli {

namespace {

constexpr char kInstall[] =
    "npm install @duckdb/node-bindings-linux-x64 brings it; then name it with --duckdb "
    "node_modules/@duckdb/node-bindings-linux-x64/libduckdb.so, or in VORN_DUCKDB";

std::string last_error() {
    const char* const text = ::dlerror();
    return text != nullptr ? text : "unknown reason";
}

template <typename Function>
void find(void* handle, const std::string& path, const char* name, Function& function) {
    const std::string symbol = std::string("duckdb_") + name;
    void* const address = ::dlsym(handle, symbol.c_str());
    if (address == nullptr) {
        throw Failure(kFailed, fmt::format("{} has no {}: it is not DuckDB's library, or one that "
                                           "is too old (1.0 or newer is needed)",
                                           path, symbol));
    }
    function = reinterpret_cast<Function>(address);
}

} // namespace

DuckdbLibrary::DuckdbLibrary(const std::string& path) : path_(path) {
    const char* const named = std::getenv("VORN_DUCKDB");
    if (path_.empty() && named != nullptr) {
        path_ = named;
    }
    const bool chosen = !path_.empty();
    if (!chosen) {
        path_ = "libduckdb.so";
    }
    handle_ = ::dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr && chosen) {
        throw Failure(kFailed,
                      fmt::format("cannot load DuckDB's library, which writes Parquet: {} ({})",
                                  last_error(), kInstall));
    }
    if (handle_ == nullptr) {
        throw Failure(kFailed, fmt::format("Parquet is written by DuckDB's library, which is not "
                                           "installed here: {}",
                                           kInstall));
    }
    const auto take = [this](const char* name, auto& function) {
        find(handle_, path_, name, function);
    };
    take("create_config", create_config);
    take("set_config", set_config);
    take("destroy_config", destroy_config);
    take("open_ext", open_ext);
    take("close", close);
    take("connect", connect);
    take("disconnect", disconnect);
    take("query", query);
    take("result_error", result_error);
    take("destroy_result", destroy_result);
    take("create_logical_type", create_logical_type);
    take("destroy_logical_type", destroy_logical_type);
    take("create_table_function", create_table_function);
    take("destroy_table_function", destroy_table_function);
    take("table_function_set_name", table_function_set_name);
    take("table_function_set_bind", table_function_set_bind);
    take("table_function_set_init", table_function_set_init);
    take("table_function_set_function", table_function_set_function);
    take("register_table_function", register_table_function);
    take("bind_add_result_column", bind_add_result_column);
    take("init_set_max_threads", init_set_max_threads);
    take("vector_size", vector_size);
    take("data_chunk_get_vector", data_chunk_get_vector);
    take("data_chunk_set_size", data_chunk_set_size);
    take("vector_get_data", vector_get_data);
    take("vector_assign_string_element_len", vector_assign_string_element_len);
}

} // namespace vorn_cli
