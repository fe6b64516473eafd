// watcher BUS: how many instruments the table of a running, or ended, feed holds.
#include <vorn/bus/bus_reader.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: watcher BUS\n");
        return 2;
    }
    try {
        const vorn_bus::BusReader bus(argv[1]);
        unsigned instruments = 0;
        for (uint32_t number = 0; number < INSTRUMENT_SLOT_CNT; ++number) {
            vorn_bus::Slot slot{};
            if (bus.read_slot(number, slot) == vorn_bus::SlotResult::kFilled) {
                ++instruments;
            }
        }
        std::printf("instruments %u\n", instruments);
    } catch (const vorn_bus::BusError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
