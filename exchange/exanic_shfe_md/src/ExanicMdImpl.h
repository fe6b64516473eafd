#ifndef EXANIC_MD_IMPL_H
#define EXANIC_MD_IMPL_H

/*
 * The feed library as a consumer sees it: five plain names, usable from C11 and from C++17 and
 * later. The records are in ExanicMdTypes.h.
 *
 *     static int keep_running = 1;
 *     static void notify(instrument* p) { printf("%s %.2f\n", (char*)p->inst_id, p->last_px); }
 *
 *     char config[] = "vorn.ini";
 *     set_update_md_callback(notify);
 *     vorn_recv(config, &keep_running);
 */

#include "ExanicMdTypes.h"

#define VORN_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The consumer's callback, null until set. Called on the thread that runs vorn_recv, once per
 * applied update, with a pointer into the instrument table. The record is valid while vorn_recv
 * runs and may be overwritten as soon as the callback returns: copy what is kept.
 */
VORN_EXPORT extern void (*update_md)(instrument*);

/*
 * Sets the callback. Call it before vorn_recv: the feed calls through the pointer without testing
 * it.
 */
VORN_EXPORT void set_update_md_callback(void (*callback)(instrument*));

/*
 * Runs the feed on the calling thread until *keep_running becomes 0.
 *
 * configfile    path of the INI file; read again at every restart of the feed.
 * keep_running  read (never written) with relaxed atomic loads; set it to 0 from a signal handler
 *               or another thread to stop. Must stay valid for the duration of the call.
 *
 * Binds the calling thread to the configured CPU and polls without sleeping. Returns 0 after an
 * orderly stop, -1 when the feed could not start or the snapshot could not be taken in time; the
 * log says why. After -1 the card and the buffers (about 207 MiB) stay acquired: end the process
 * rather than calling again in a loop.
 */
VORN_EXPORT int vorn_recv(char* configfile, int* keep_running);

/*
 * Attaches a System V shared memory segment of `size` bytes for a consumer's own data, creating it
 * (mode 0777) if it does not exist; `path` names an existing file. Ends the process with status 1
 * on failure. The feed itself does not use it. Any local user can attach such a segment.
 */
VORN_EXPORT char* create_shm(const char* path, unsigned int size);

/* Detaches a segment attached by create_shm; ends the process with status 1 on failure. */
VORN_EXPORT void free_shm(char* addr);

#ifdef __cplusplus
}
#endif

#endif
