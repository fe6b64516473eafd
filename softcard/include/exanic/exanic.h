#ifndef EXANIC_EXANIC_H
#define EXANIC_EXANIC_H

/* Card handles, as the software card implements them. Plain C11, C linkage for C++. */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct exanic exanic_t;

/* Opens the device, or takes another reference when it is open already: the same name gives the
 * same pointer. NULL on failure, with the reason behind exanic_get_last_error(). */
exanic_t* exanic_acquire_handle(const char* device_name);

/* Gives one reference back; the last one closes the device. NULL is ignored. */
void exanic_release_handle(exanic_t* exanic);

/* What went wrong in the calling thread's last failed call; empty when nothing has. The pointer
 * stays valid for as long as the thread lives, the text until its next failed call. */
const char* exanic_get_last_error(void);

#ifdef __cplusplus
}
#endif

#endif
