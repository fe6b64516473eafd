#ifndef FPGA_REGISTERS_H
#define FPGA_REGISTERS_H

// The firmware's registers in the card's devkit window, as indexes of 32-bit words. Every access is
// one aligned 32-bit load or store through a volatile pointer.

#include <cstdint>

enum : uint32_t {
    EXANIC_FPGA_CONFIG_OFFSET = 0,

    EXANIC_FPGA_VERSION = 1, // read: firmware version
    EXANIC_FPGA_DATA = 2,    // read: build stamp
    EXANIC_FPGA_RESET = 5,   // 1, then 0

    EXANIC_FPGA_SNAP_TIME = 12, // time of the update being handled

    // Multicast lines: IPv4 groups in host byte order, UDP ports.
    EXANIC_FPGA_SHFE_IP_A = 16,
    EXANIC_FPGA_INE_IP_A = 17,
    EXANIC_FPGA_SHFE_PORT_A = 18,
    EXANIC_FPGA_INE_PORT_A = 19,
    EXANIC_FPGA_SHFE_IP_B = 20,
    EXANIC_FPGA_INE_IP_B = 21,
    EXANIC_FPGA_SHFE_PORT_B = 22,
    EXANIC_FPGA_INE_PORT_B = 23,

    // Switches, 1 on and 0 off.
    EXANIC_FPGA_ORIG_DATA_SW = 512, // raw snapshot frames on port 1
    EXANIC_FPGA_DECODE_SW = 513,    // decode buffers on port 0
    EXANIC_FPGA_ALL_INE_SW = 514,   // pass every INE instrument, not only those of the table
    EXANIC_FPGA_ALL_SHFE_SW = 515,  // the same for SHFE

    EXANIC_FPGA_START_PKT_NO = 528,
    EXANIC_FPGA_SPLIT_ALL_FIELD = 1398,

    // Filter tables: the instrument number to ADDR_WR, then 1 (pass) or 0 (block) to DATA_WR.
    EXANIC_FPGA_SHFE_ADDR_WR = 1792,
    EXANIC_FPGA_SHFE_DATA_WR = 1793,
    EXANIC_FPGA_SHFE_ADDR_RD = 1794,
    EXANIC_FPGA_SHFE_DATA_RD = 1795,
    EXANIC_FPGA_INE_ADDR_WR = 1796,
    EXANIC_FPGA_INE_DATA_WR = 1797,
    EXANIC_FPGA_INE_ADDR_RD = 1798,
    EXANIC_FPGA_INE_DATA_RD = 1799,

    // Bases of the filter blocks; nothing is accessed through them.
    EXANIC_FPGA_INE_OFFSET = 4096,
    EXANIC_FPGA_SHFE_OFFSET = 8192
};

// Receive ports of the card.
enum : int {
    EXANIC_RECV_PORT_DECODE = 0, // decode buffers of the incremental stream
    EXANIC_RECV_PORT_ORIG = 1    // raw frames of the snapshot stream
};

#endif
