/*
 * The smallest stand-in for the card library: no header of it, the seven calls declared here. It
 * proves that the feed needs nothing else of the library and that anyone can link a card of their
 * own. The card is absent: every acquisition fails.
 */

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

struct exanic;
struct exanic_rx;

struct exanic* exanic_acquire_handle(const char* device_name);
void exanic_release_handle(struct exanic* handle);
const char* exanic_get_last_error(void);
volatile uint32_t* exanic_get_devkit_registers(struct exanic* handle);
struct exanic_rx* exanic_acquire_rx_buffer(struct exanic* handle, int port_number,
                                           int buffer_number);
void exanic_release_rx_buffer(struct exanic_rx* rx);
ssize_t exanic_receive_frame(struct exanic_rx* rx, char* rx_buf, size_t rx_buf_size,
                             uint32_t* timestamp);

struct exanic* exanic_acquire_handle(const char* device_name) {
    (void)device_name;
    return NULL;
}

void exanic_release_handle(struct exanic* handle) {
    (void)handle;
}

const char* exanic_get_last_error(void) {
    return "no card in this machine";
}

volatile uint32_t* exanic_get_devkit_registers(struct exanic* handle) {
    (void)handle;
    return NULL;
}

struct exanic_rx* exanic_acquire_rx_buffer(struct exanic* handle, int port_number,
                                           int buffer_number) {
    (void)handle;
    (void)port_number;
    (void)buffer_number;
    return NULL;
}

void exanic_release_rx_buffer(struct exanic_rx* rx) {
    (void)rx;
}

ssize_t exanic_receive_frame(struct exanic_rx* rx, char* rx_buf, size_t rx_buf_size,
                             uint32_t* timestamp) {
    (void)rx;
    (void)rx_buf;
    (void)rx_buf_size;
    (void)timestamp;
    return 0;
}
