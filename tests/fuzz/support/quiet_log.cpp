// Stands in for the one function that writes the feed's log lines (the linker's --wrap): formats
// them, so that arguments which do not fit the format show, and drops the text.

#include "CommonLog.h"

#include <cstdarg>
#include <cstdio>

void format_and_drop(ELOGLEVEL level, const char* file, int line, const char* function,
                     const char* format, ...) __asm__("__wrap__Z11MdWriteLine9ELOGLEVELPKciS1_S1_z")
    __attribute__((format(printf, 5, 6)));

void format_and_drop(ELOGLEVEL, const char*, int, const char*, const char* format, ...) {
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
}
