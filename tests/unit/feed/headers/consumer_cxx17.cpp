// A C++17 consumer of the library. The headers must come first: they bring all that they need.
#include "ExanicMdImpl.h"
#include "ExanicMdMonitor.h"

#include "consumer_probe.h"

#if __cplusplus >= 202002L
#error "this file stands for a C++17 consumer"
#endif

#define ROW(expression) {#expression, static_cast<size_t>(expression)},
static const layout_probe kRows[] = {
#include "layout_rows.inc"
    {"RET_FAILED + 2", static_cast<size_t>(RET_FAILED + 2)},
    {"MD_INIT_FAILED + 2", static_cast<size_t>(MD_INIT_FAILED + 2)},
    {nullptr, 0}};

const layout_probe* cxx17_layout(void) {
    return kRows;
}

void cxx17_names(const void* names[8]) {
    void (**callback)(instrument*) = &update_md;
    void (*set)(void (*)(instrument*)) = set_update_md_callback;
    int (*run)(char*, int*) = vorn_recv;
    char* (*create)(const char*, unsigned int) = create_shm;
    void (*detach)(char*) = free_shm;
    const share* (*table)(void) = vorn_md_table;
    int (*counters)(vorn_md_counters_t*) = vorn_md_counters;
    void (*set_event)(void (*)(const vorn_md_event_t*, void*), void*) = vorn_md_set_event_callback;
    names[0] = reinterpret_cast<const void*>(callback);
    names[1] = reinterpret_cast<const void*>(set);
    names[2] = reinterpret_cast<const void*>(run);
    names[3] = reinterpret_cast<const void*>(create);
    names[4] = reinterpret_cast<const void*>(detach);
    names[5] = reinterpret_cast<const void*>(table);
    names[6] = reinterpret_cast<const void*>(counters);
    names[7] = reinterpret_cast<const void*>(set_event);
}
