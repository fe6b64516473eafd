#ifndef EXANIC_UTIL_H
#define EXANIC_UTIL_H

/* The firmware's register window. */

#include "exanic.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 32-bit registers, indexed by word; valid until the handle's last reference is given back. */
volatile uint32_t* exanic_get_devkit_registers(exanic_t* exanic);

#ifdef __cplusplus
}
#endif

#endif
