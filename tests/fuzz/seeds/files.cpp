// Configuration files, logger runs and captures.

#include "exchange_sim/pcap_writer.h"
#include "exchange_sim/session_options.h"
#include "seeds.h"

#include <initializer_list>
#include <string>
#include <utility>

namespace seeds {
namespace {

void put_configs() {
    const auto save = [](const std::string& name, const std::string& text) {
        put("config", name, bytes_of(text));
    };
    put("config", "sample", file_bytes(VORN_SAMPLE_INI));
    save("none", std::string(1, '\0'));
    save("list", "[config]\ndevice=exanic0\ninsts= cu2603 ,au,, sc ,\noptions=norecv\n"
                 "shfe2ps=enabled\nine2ps=enabled\nlog_level=31\nshield_price_check=1\n");
    save("all-log", "[config]\ndevice=d\ninsts=all\nlog_level=15\n");
    save("no-device", "[config]\ninsts=all\n");
    save("no-insts", "[config]\ndevice=x\ninsts=,,\n");
    save("twice", "[config]\ndevice=a\n[other]\nx=1\n[config]\ninsts=all\ndevice=b\n");
    save("odd",
         "key=before\n[open\n[]\n=\n a = b = c ; remark\n[config] \r\ndevice\t=\tx#y\ninsts");
    save("numbers", "[config]\ndevice=x\ninsts=all\ncpucore=99999999999999999999\n"
                    "md2ps_snap_port=-1\nshfe2ps_topic_id=0x10\nlog_level= 7x\ntimeout_cnt=+3\n"
                    "split_all_field=300\n");
    save("long", "[config]\ndevice=" + std::string(5000, 'd') + "\ninsts=all\nlog_level=8\n");
}

void put_log_runs() {
    const auto mask = [](uint32_t value) { return Bytes{0} + number(value); };
    const auto line = [](uint8_t kind, uint8_t level, uint16_t shape, const std::string& text) {
        return Bytes{kind, level, static_cast<uint8_t>(shape), static_cast<uint8_t>(shape >> 8)} +
               bytes_of(text);
    };
    const auto text = [&](uint8_t kind, uint8_t level, const std::string& content) {
        return line(kind, level, static_cast<uint16_t>(content.size()), content);
    };
    Bytes levels;
    for (const uint8_t level : std::initializer_list<uint8_t>{1, 2, 4, 8, 16, 32, 3, 0}) {
        for (uint8_t kind = 1; kind < 4; ++kind) {
            levels = levels + text(kind, level, "a line of %s %n level");
        }
    }
    put("log", "levels", slice(mask(31), 0) + levels);
    put("log", "mask-5", mask(5) + levels);
    put("log", "mask-none", mask(0) + levels);
    put("log", "mask-all", mask(0xFFFFFFFF) + levels);
    for (const std::size_t size : {0, 1, 100, 4000, 4095}) {
        for (uint8_t kind = 1; kind < 4; ++kind) {
            const std::string content(size, 'x');
            const auto shape = static_cast<uint16_t>(size | 0x8000);
            put("log", "long-" + std::to_string(size) + "-" + std::to_string(kind),
                line(kind, 1, shape, content) + text(kind, 1, content));
        }
    }
    put("log", "named",
        text(7, 1, "file") + text(7, 2, std::string(600, 'f')) + mask(2) + text(7, 1, "off") +
            text(7, 0, ""));
    put("log", "bytes",
        text(1, 1, std::string("a\0b\n\x1b[31m\xFF", 10)) + text(2, 1, std::string("a\0b", 3)));
}

void put_captures() {
    const std::string folder = folder_of("capture");
    for (const char* const options :
         {"seed=1 instruments=3 changes=6 rate=1000 rounds=1 lines=both",
          "seed=2 instruments=2 changes=4 rate=1000 rounds=1 feeds=shfe lines=a",
          "seed=3 instruments=2 changes=3 rate=1000 rounds=1 feeds=ine lines=b"}) {
        const auto parsed = exchange_sim::parse_session_options(options);
        const std::string name = "seed-" + std::to_string(parsed.options.seed);
        exchange_sim::write_session(folder + "/" + name, parsed.options);
        const Bytes bytes = file_bytes(folder + "/" + name);
        put("capture", name + "-cut", slice(bytes, 0, bytes.size() - 5));
        Bytes damaged = bytes;
        damaged[32] = 0xFF;
        put("capture", name + "-length", damaged);
        Bytes swapped = slice(bytes, 0, 24);
        std::swap(swapped[0], swapped[3]);
        std::swap(swapped[1], swapped[2]);
        put("capture", name + "-swapped", swapped);
        Bytes other_link = slice(bytes, 0, 200);
        other_link[20] = 101;
        put("capture", name + "-link", other_link);
    }
    put("capture", "none", {});
    put("capture", "text", bytes_of("[config]\n"));
}

} // namespace

void put_files() {
    put_configs();
    put_log_runs();
    put_captures();
}

} // namespace seeds
