/* A card maker's library for a machine without a card: every call says so. */
#include <exanic/exanic.h>
#include <exanic/fifo_rx.h>
#include <exanic/util.h>

exanic_t* exanic_acquire_handle(const char* device_name) {
    (void)device_name;
    return NULL;
}

void exanic_release_handle(exanic_t* exanic) {
    (void)exanic;
}

const char* exanic_get_last_error(void) {
    return "this machine has no card";
}

exanic_rx_t* exanic_acquire_rx_buffer(exanic_t* exanic, int port_number, int buffer_number) {
    (void)exanic;
    (void)port_number;
    (void)buffer_number;
    return NULL;
}

void exanic_release_rx_buffer(exanic_rx_t* rx) {
    (void)rx;
}

ssize_t exanic_receive_frame(exanic_rx_t* rx, char* rx_buf, size_t rx_buf_size,
                             exanic_cycles32_t* timestamp) {
    (void)rx;
    (void)rx_buf;
    (void)rx_buf_size;
    (void)timestamp;
    return 0;
}

volatile uint32_t* exanic_get_devkit_registers(exanic_t* exanic) {
    (void)exanic;
    return NULL;
}
