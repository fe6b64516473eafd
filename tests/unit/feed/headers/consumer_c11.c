/* A C11 consumer of the library. The headers must come first: they bring all that they need. */
#include "ExanicMdImpl.h"
#include "ExanicMdMonitor.h"

#include "consumer_probe.h"

#define ROW(expression) {#expression, (size_t)(expression)},
static const struct layout_probe kRows[] = {
#include "layout_rows.inc"
    {"RET_FAILED + 2", (size_t)(RET_FAILED + 2)},
    {"MD_INIT_FAILED + 2", (size_t)(MD_INIT_FAILED + 2)},
    {NULL, 0}};

const struct layout_probe* c11_layout(void) {
    return kRows;
}

void c11_names(const void* names[8]) {
    /* The types, too, are as a C consumer writes them. */
    void (**callback)(instrument*) = &update_md;
    void (*set)(void (*)(instrument*)) = set_update_md_callback;
    int (*run)(char*, int*) = vorn_recv;
    char* (*create)(const char*, unsigned int) = create_shm;
    void (*detach)(char*) = free_shm;
    const share* (*table)(void) = vorn_md_table;
    int (*counters)(vorn_md_counters_t*) = vorn_md_counters;
    void (*set_event)(void (*)(const vorn_md_event_t*, void*), void*) = vorn_md_set_event_callback;
    names[0] = (const void*)callback;
    names[1] = (const void*)(size_t)set;
    names[2] = (const void*)(size_t)run;
    names[3] = (const void*)(size_t)create;
    names[4] = (const void*)(size_t)detach;
    names[5] = (const void*)(size_t)table;
    names[6] = (const void*)(size_t)counters;
    names[7] = (const void*)(size_t)set_event;
}

/* The mask reads as a byte and as bits. */
unsigned c11_mask_bits(unsigned char byte);
unsigned c11_mask_bits(unsigned char byte) {
    UEnableMask mask;
    mask.mask = byte;
    return mask.shfe2ps * 1U + mask.shfe4ps * 2U + mask.ine2ps * 4U + mask.ine4ps * 8U +
           mask.reserved * 16U;
}
