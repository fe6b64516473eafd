#include "exchange_sim/pcap_writer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <pcap/pcap.h>

namespace exchange_sim {

namespace {

constexpr int kSnapshotLength = 65535;
constexpr uint64_t kSecond = 1'000'000'000;

struct CloseHandle {
    void operator()(pcap_t* handle) const { pcap_close(handle); }
};
struct CloseFile {
    void operator()(pcap_dumper_t* file) const { pcap_dump_close(file); }
};

std::string system_error(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

std::string write_frames(const std::string& path, Session& session, const WriteHooks& hooks,
                         WriteResult& result) {
    const std::unique_ptr<pcap_t, CloseHandle> handle(pcap_open_dead_with_tstamp_precision(
        DLT_EN10MB, kSnapshotLength, PCAP_TSTAMP_PRECISION_NANO));
    if (!handle) {
        return "libpcap gave no handle";
    }
    std::unique_ptr<pcap_dumper_t, CloseFile> file(pcap_dump_open(handle.get(), path.c_str()));
    if (!file) {
        return pcap_geterr(handle.get());
    }
    std::FILE* const stream = pcap_dump_file(file.get());
    const auto next = [&](WireFrame& frame) {
        return hooks.next ? hooks.next(session, frame) : session.next(frame);
    };
    for (WireFrame frame; next(frame);) {
        pcap_pkthdr header{};
        header.ts.tv_sec = static_cast<decltype(header.ts.tv_sec)>(frame.timestamp_ns / kSecond);
        // With nanosecond precision libpcap takes nanoseconds in the field named for microseconds.
        header.ts.tv_usec = static_cast<decltype(header.ts.tv_usec)>(frame.timestamp_ns % kSecond);
        header.caplen = static_cast<bpf_u_int32>(frame.bytes.size());
        header.len = header.caplen;
        pcap_dump(reinterpret_cast<u_char*>(file.get()), &header, frame.bytes.data());
        ++result.frames;
        result.bytes += frame.bytes.size();
        if (std::ferror(stream) != 0) {
            return system_error("cannot write", path);
        }
        if (hooks.frame && !hooks.frame(frame)) {
            return "interrupted";
        }
    }
    if (pcap_dump_flush(file.get()) != 0) {
        return system_error("cannot write", path);
    }
    return {};
}

} // namespace

WriteResult write_session(const std::string& path, const SessionOptions& options,
                          const WriteHooks& hooks) {
    WriteResult result;
    result.error = check_session_options(options);
    if (!result.ok()) {
        return result;
    }
    if (options.changes == 0 && options.seconds_ns == 0) {
        result.error = "an endless session does not fit into a file: give changes or seconds";
        return result;
    }
    const std::string part = path + ".part";
    Session session(options);
    if (hooks.begin) {
        hooks.begin(session);
    }
    result.error = write_frames(part, session, hooks, result);
    if (result.ok() && std::rename(part.c_str(), path.c_str()) != 0) {
        result.error = system_error("cannot rename to", path);
    }
    if (!result.ok()) {
        std::remove(part.c_str());
    }
    result.counters = session.counters();
    return result;
}

} // namespace exchange_sim
