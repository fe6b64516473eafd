#ifndef EXANIC_FIFO_RX_H
#define EXANIC_FIFO_RX_H

/* Receive buffers and frame reception. */

#include "exanic.h"
#include "time.h"

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct exanic_rx exanic_rx_t;

/* A reader of the port's ring with a position of its own, which starts at "now". Holds a reference
 * on the handle. Ports 0 and 1 exist, each with buffer 0; anything else is NULL. */
exanic_rx_t* exanic_acquire_rx_buffer(exanic_t* exanic, int port_number, int buffer_number);

/* NULL is ignored. */
void exanic_release_rx_buffer(exanic_rx_t* rx);

/* Never waits. The frame's length; 0 when there is none; -256 when the reader was lapped (frames
 * are lost, reading goes on from the newest); -257 when the frame is larger than the buffer (it is
 * consumed). `timestamp` may be NULL. */
ssize_t exanic_receive_frame(exanic_rx_t* rx, char* rx_buf, size_t rx_buf_size,
                             exanic_cycles32_t* timestamp);

#ifdef __cplusplus
}
#endif

#endif
