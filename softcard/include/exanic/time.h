#ifndef EXANIC_TIME_H
#define EXANIC_TIME_H

#include <stdint.h>

/* The low 32 bits of the card's clock. The software card's clock is the source's time stamp in
 * nanoseconds. */
typedef uint32_t exanic_cycles32_t;

#endif
