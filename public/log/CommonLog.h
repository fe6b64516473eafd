#ifndef COMMON_LOG_H
#define COMMON_LOG_H

// The process-wide logger. Every line goes to standard output and to a log file, both flushed
// before the call returns, so that nothing is lost when the process dies.
//
// Call sites use MD_LOG. A line of a disabled level costs one relaxed load and a branch: nothing
// is formatted, no lock is taken, no function is called.

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

// Levels are bits, so that a mask can select any set of them.
enum ELOGLEVEL : int {
    LOG_ERROR = 1,
    LOG_WARNING = 2,
    LOG_INFO = 4,
    LOG_DEBUG = 8,
    LOG_DEBUG_EX = 16
};

class CCommonLog {
public:
    // The singleton, created on first use and never destroyed: threads that still run while the
    // process exits may log.
    static CCommonLog* GetInstance();

    // True when a line of this level would be written. Any thread.
    static bool IsEnabled(int level) {
        return (m_logLevel.load(std::memory_order_relaxed) & level) != 0;
    }

    // Stores the mask of enabled levels; any int is taken. Any thread.
    void SetLogLevel(ELOGLEVEL level);
    ELOGLEVEL GetLogLevel() const;

    // Directory of the log file, instead of the working directory. Only the first call counts, and
    // only until the first line has opened the file. For programs that link the static library: the
    // shared one does not export the logger.
    void SetLogPath(std::string& path);

    // Writes one line if its level is enabled: colour, level tag, local date and time, thread id,
    // the formatted message. Lines of concurrent threads never mix. The log file is opened by the
    // first line ("Vorn_Exanic_YYYYMMDD_HHMMSS.log"); while it cannot be opened, lines are lost and
    // each one says so on standard output.
    void WriteLog(ELOGLEVEL level, const char* format, ...) __attribute__((format(printf, 3, 4)));

    // The same for a message of `length` bytes as it stands.
    void WriteText(ELOGLEVEL level, const char* message, size_t length);

private:
    CCommonLog() = default;

    void _WriteLocked(const char* prefix, const tm& now, const char* message, size_t length);
    void _DropTornLine();
    bool _OpenFile(const tm& now);

    // One mask for the process, outside the object so that the test of a level needs no access to
    // the singleton. Errors, warnings, info and debug until someone says otherwise.
    static inline std::atomic<int32_t> m_logLevel{15};
    FILE* m_logHandler = nullptr;
    std::mutex m_mutexLog;
    std::string m_log_path;
    bool m_log_flag = false;
    int64_t m_wholeBytes = 0; // length of the log file's whole lines
    uint64_t m_lostLines = 0; // that the log file could not take
};

// Formats a message of at most 4095 bytes and writes it as "[file:line][function]message". Out of
// line and cold, so that its buffer and its code stay away from the callers' hot paths.
void MdWriteLine(ELOGLEVEL level, const char* file, int line, const char* function,
                 const char* format, ...) __attribute__((cold, noinline, format(printf, 5, 6)));

// One line from the enclosing function, e.g. MD_LOG(LOG_WARNING, "receive length: %u", size).
// LOG_FILE_TAG is a constant that each source file defines for itself: the name under which its
// class is known in the log, also where the class is spread over several files.
#define MD_LOG(level, ...) MD_LOG_AS(__func__, level, __VA_ARGS__)

// The same where a helper speaks for the function that its caller is known as.
#define MD_LOG_AS(function, level, ...)                                                            \
    do {                                                                                           \
        if (__builtin_expect(CCommonLog::IsEnabled(level), 0)) {                                   \
            MdWriteLine(level, LOG_FILE_TAG, __LINE__, function, __VA_ARGS__);                     \
        }                                                                                          \
    } while (0)

#endif
