#pragma once

/*
 * What a consumer's compiler makes of the library's header: one table of numbers from a C11 and one
 * from a C++17 translation unit that include nothing else of the library.
 */

#include <stddef.h>

struct layout_probe {
    const char* name;
    size_t value;
};

#ifdef __cplusplus
extern "C" {
#endif

/* Rows of a table; the last one has a null name. */
const struct layout_probe* c11_layout(void);
const struct layout_probe* cxx17_layout(void);
/* Addresses of the eight names as the two languages see them, in the order of the headers. */
void c11_names(const void* names[8]);
void cxx17_names(const void* names[8]);

#ifdef __cplusplus
}
#endif
