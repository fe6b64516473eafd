"""Bring-up of the card: CPU, handle, registers, receive buffers, filter tables, switches."""

import os
import socket

from .common import ERROR, FAILED, INFO, OK, U32, WARNING, c_long

VERSION, UPDATE_DATA, RESET, SNAP_TIME = 1, 2, 5, 12
SHFE_IP_A, INE_IP_A, SHFE_PORT_A, INE_PORT_A = 16, 17, 18, 19
SHFE_IP_B, INE_IP_B, SHFE_PORT_B, INE_PORT_B = 20, 21, 22, 23
ORIG_DATA_SW, DECODE_SW, ALL_INE_SW, ALL_SHFE_SW = 512, 513, 514, 515
START_PKT_NO, SPLIT_ALL_FIELD = 528, 1398
SHFE_ADDR, SHFE_DATA, INE_ADDR, INE_DATA = 1792, 1793, 1796, 1797

_FILE = "ExanicDevFunc"


class Registers:
    """Every store, in order."""

    def __init__(self):
        self.stores = []

    def __setitem__(self, word, value):
        self.stores.append((word, value & U32))


def host_order_group(text):
    try:
        return int.from_bytes(socket.inet_aton(text), "big")
    except (OSError, ValueError):
        return U32


class Device:
    """failing: the call that the card refuses, as (name, port, text), or None.

    bindable: CPUs to which the calling thread may be bound.
    """

    def __init__(self, config, log, registers, failing=None, bindable=None):
        self.config = config
        self.log = log
        self.registers = registers
        self.failing = failing
        self.bindable = os.sched_getaffinity(0) if bindable is None else bindable
        self.enabled = 0
        self.calls = []  # of the card's library, in order
        self.handle = self.raw_rx = self.decode_rx = False

    def _refused(self, name, port=-1):
        if self.failing is None or self.failing[:2] != (name, port):
            return False
        what = {"handle": "handle", "registers": "registers"}.get(
            name, "tcp rx buffer" if port == 1 else "udp rx buffer")
        self.log.write(ERROR, f"{_FILE} InitDev",
                       f"get [{self.config.device}] {what} failed, {self.failing[2]}")
        return True

    def init_dev(self):
        self._bind_cpu()
        self.calls.append(f"acquire_handle {self.config.device}")
        if self._refused("handle"):
            return FAILED
        self.handle = True
        if self._refused("registers"):
            return FAILED
        for port in (1, 0):
            self.calls.append(f"acquire_rx {port} 0")
            if self._refused("rx", port):
                return FAILED
            if port == 1:
                self.raw_rx = True
            else:
                self.decode_rx = True
        self._init_registers()
        return OK

    def release(self):
        if self.decode_rx:
            self.calls.append("release_rx 0")
        if self.raw_rx:
            self.calls.append("release_rx 1")
        if self.handle:
            self.calls.append("release_handle")
        self.handle = self.raw_rx = self.decode_rx = False

    def _bind_cpu(self):
        cpu = self.config.cpucore
        if cpu < 0 or cpu > os.sysconf("SC_NPROCESSORS_ONLN"):
            self.log.write(WARNING, f"{_FILE} _BindCpu", f"CPU[{cpu}] exceed max procs")
        elif cpu not in self.bindable:
            self.log.write(WARNING, f"{_FILE} _BindCpu", f"set CPU[{cpu}] affinity failed")
        else:
            self.log.write(INFO, f"{_FILE} _BindCpu", f"set CPU[{cpu}] affinity successful")

    def _init_registers(self):
        config, registers = self.config, self.registers
        self.log.write(INFO, f"{_FILE} _InitReg", "FPGA version: 0, update data: 0")
        registers[RESET] = 1
        registers[RESET] = 0
        self.enabled = 0
        if config.shfe4ps:
            self._program("shfe4ps", SHFE_IP_A, SHFE_PORT_A, SHFE_IP_B, SHFE_PORT_B, 0x02)
        elif config.shfe2ps:
            self._program("shfe2ps", SHFE_IP_A, SHFE_PORT_A, SHFE_IP_B, SHFE_PORT_B, 0x01)
        if config.ine4ps:
            self._program("ine4ps", INE_IP_A, INE_PORT_A, INE_IP_B, INE_PORT_B, 0x08)
        elif config.ine2ps:
            self._program("ine2ps", INE_IP_A, INE_PORT_A, INE_IP_B, INE_PORT_B, 0x04)
        registers[ALL_INE_SW] = 0
        registers[ALL_SHFE_SW] = 0
        registers[START_PKT_NO] = 0
        registers[SPLIT_ALL_FIELD] = config.split_all_field
        for address, data, count in ((INE_ADDR, INE_DATA, 4096), (SHFE_ADDR, SHFE_DATA, 16384)):
            for number in range(count):
                registers.stores.append((address, number))
                registers.stores.append((data, 0))

    def _program(self, feed, ip_a, port_a, ip_b, port_b, bit):
        self._set_ip_and_port(ip_a, port_a, getattr(self.config, f"{feed}_ip_a"))
        self._set_ip_and_port(ip_b, port_b, getattr(self.config, f"{feed}_ip_b"))
        self.enabled |= bit

    def _set_ip_and_port(self, ip_word, port_word, text):
        group, colon, port = text.partition(":")
        self.registers[ip_word] = host_order_group(group) if colon else 0
        self.registers[port_word] = c_long(port) if colon else 0

    def switch(self, word, on):
        self.registers[word] = int(on)
