#include "CommonLog.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <fcntl.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <unistd.h>

// One line is formatted once, outside the lock, and written to both files under it. The caller's
// format is applied on its own and its result travels as data, so that a message can neither be
// cut by the length of the stamps nor be taken for a format.

namespace {

constexpr char LOG_FILE_TAG[] = "CommonLog";
constexpr size_t MESSAGE_SIZE = 4096; // bytes of one message with its NUL
constexpr size_t SOURCE_SIZE = 512;   // "[file:line][function]"
constexpr size_t LINE_SIZE = MESSAGE_SIZE + 512;
constexpr size_t PATH_SIZE = 4096 + 64;
constexpr char TAIL[] = "\x1b[0m \n";

struct LinePart {
    const char* data;
    size_t size;
};

// Puts text into a buffer of fixed size; what does not fit is cut off.
class TextBuffer {
public:
    TextBuffer(char* begin, size_t size) : m_begin(begin), m_at(begin), m_end(begin + size) {}

    void Put(const char* text) { Put(text, strlen(text)); }
    void Put(const char* text, size_t size) {
        const size_t taken = std::min(size, static_cast<size_t>(m_end - m_at));
        memcpy(m_at, text, taken);
        m_at += taken;
    }
    void PutNumber(long value) { m_at = std::to_chars(m_at, m_end, value).ptr; }
    void PutNumber(unsigned long value) { m_at = std::to_chars(m_at, m_end, value).ptr; }
    void PutTwoDigits(int value) {
        const char digits[] = {static_cast<char>('0' + value / 10 % 10),
                               static_cast<char>('0' + value % 10)};
        Put(digits, sizeof(digits));
    }
    size_t Size() const { return static_cast<size_t>(m_at - m_begin); }

private:
    char* m_begin;
    char* m_at;
    char* m_end;
};

// Colour sequence, one blank, tag.
const char* PrefixOf(ELOGLEVEL level) {
    switch (level) {
    case LOG_ERROR:
        return "\x1b[31;1m [E]";
    case LOG_WARNING:
        return "\x1b[33;1m [W]";
    case LOG_INFO:
        return "\x1b[32;1m [I]";
    case LOG_DEBUG:
        return "\x1b[37;1m [D]";
    case LOG_DEBUG_EX:
        return "\x1b[34;1m [X]";
    default:
        return "\x1b[34;1m [N]";
    }
}

// Writes and flushes one line. The stream's own lock, held over the parts, keeps the line whole
// among whatever else the process prints.
bool PutLine(FILE* file, const LinePart (&parts)[3]) {
    bool good = true;
    flockfile(file);
    for (const LinePart& part : parts) {
        good = fwrite_unlocked(part.data, 1, part.size, file) == part.size && good;
    }
    good = fflush_unlocked(file) == 0 && good;
    funlockfile(file);
    return good;
}

// What a failed write left in the stream would come out in front of a later line.
void DropPending(FILE* file) {
    clearerr(file);
    __fpurge(file);
}

// A program may be started with its standard files closed. A log that took one of their numbers
// would receive everything that is printed.
FILE* OpenAboveStandardFiles(const char* name) {
    FILE* file = fopen(name, "w");
    if (file == nullptr || fileno(file) > STDERR_FILENO) {
        return file;
    }
    const int moved = fcntl(fileno(file), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    fclose(file);
    return moved < 0 ? nullptr : fdopen(moved, "w");
}

// A failing localtime_r is reported through the logger itself, which may fail the same way: the
// report of a thread is never reported again.
thread_local bool t_reportingClock = false;

} // namespace

CCommonLog* CCommonLog::GetInstance() {
    // Never destroyed, so that a thread which still runs while the process exits can log; and in
    // static storage, so that logging does not depend on the heap.
    alignas(CCommonLog) static unsigned char storage[sizeof(CCommonLog)];
    static CCommonLog* const instance = new (storage) CCommonLog;
    return instance;
}

void CCommonLog::SetLogLevel(ELOGLEVEL level) {
    const std::lock_guard<std::mutex> lock(m_mutexLog);
    m_logLevel.store(level, std::memory_order_relaxed);
}

ELOGLEVEL CCommonLog::GetLogLevel() const {
    return static_cast<ELOGLEVEL>(m_logLevel.load(std::memory_order_relaxed));
}

void CCommonLog::SetLogPath(std::string& path) {
    const std::lock_guard<std::mutex> lock(m_mutexLog);
    if (m_log_flag) {
        return;
    }
    m_log_path = path;
    m_log_flag = true;
}

void CCommonLog::WriteLog(ELOGLEVEL level, const char* format, ...) {
    // Tested before the lock is taken: a thread whose line is disabled must not wait for one whose
    // standard output is blocked.
    if (!IsEnabled(level)) {
        return;
    }

    char fixed[LINE_SIZE];
    std::unique_ptr<char, decltype(&free)> larger(nullptr, &free);
    const char* message = fixed;
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start stands above
    const int needed = vsnprintf(fixed, sizeof(fixed), format, arguments);
    va_end(arguments);
    size_t length = needed < 0 ? 0 : static_cast<size_t>(needed);
    if (length >= sizeof(fixed)) {
        larger.reset(static_cast<char*>(malloc(length + 1)));
        if (larger) {
            vsnprintf(larger.get(), length + 1, format, again);
            message = larger.get();
        } else {
            length = sizeof(fixed) - 1;
        }
    }
    va_end(again);

    WriteText(level, message, length);
}

void CCommonLog::WriteText(ELOGLEVEL level, const char* message, size_t length) {
    if (!IsEnabled(level)) {
        return;
    }
    bool clockFailed = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutexLog);
        const time_t seconds = time(nullptr);
        tm now{};
        if (localtime_r(&seconds, &now) != nullptr) {
            _WriteLocked(PrefixOf(level), now, message, length);
        } else {
            clockFailed = true;
        }
    }
    if (clockFailed && !t_reportingClock) {
        t_reportingClock = true;
        MD_LOG_AS("WriteLog", LOG_ERROR, "localtime_r failed");
        t_reportingClock = false;
    }
}

void CCommonLog::_WriteLocked(const char* prefix, const tm& now, const char* message,
                              size_t length) {
    if (m_logHandler == nullptr && !_OpenFile(now)) {
        return;
    }
    char head[128];
    TextBuffer stamps(head, sizeof(head));
    stamps.Put(prefix);
    stamps.Put(" [");
    const int year = now.tm_year + 1900;
    if (year >= 0 && year <= 9999) {
        stamps.PutTwoDigits(year / 100);
        stamps.PutTwoDigits(year % 100);
    } else {
        stamps.PutNumber(long{year});
    }
    stamps.PutTwoDigits(now.tm_mon + 1);
    stamps.PutTwoDigits(now.tm_mday);
    stamps.Put("][");
    stamps.PutTwoDigits(now.tm_hour);
    stamps.Put(":");
    stamps.PutTwoDigits(now.tm_min);
    stamps.Put(":");
    stamps.PutTwoDigits(now.tm_sec);
    stamps.Put("][");
    stamps.PutNumber(static_cast<unsigned long>(pthread_self()));
    stamps.Put("] ");
    const LinePart parts[] = {{head, stamps.Size()}, {message, length}, {TAIL, sizeof(TAIL) - 1}};
    if (!PutLine(stdout, parts)) {
        DropPending(stdout);
    }
    if (PutLine(m_logHandler, parts)) {
        m_wholeBytes += static_cast<int64_t>(stamps.Size() + length + sizeof(TAIL) - 1);
    } else {
        _DropTornLine();
    }
}

// The file got part of a line, or nothing (disk full): it ends with the last whole line again.
void CCommonLog::_DropTornLine() {
    const int reason = errno;
    DropPending(m_logHandler);
    if (ftruncate(fileno(m_logHandler), m_wholeBytes) == 0) {
        fseeko(m_logHandler, m_wholeBytes, SEEK_SET);
    }
    if (m_lostLines++ == 0) {
        fprintf(stderr, "a log line could not be written to the log file and is lost: %s\n",
                strerror(reason));
    }
}

bool CCommonLog::_OpenFile(const tm& now) {
    char name[PATH_SIZE];
    snprintf(name, sizeof(name), "%s%sVorn_Exanic_%04d%02d%02d_%02d%02d%02d.log",
             m_log_path.c_str(), m_log_path.empty() ? "" : "/", now.tm_year + 1900, now.tm_mon + 1,
             now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec);
    m_logHandler = OpenAboveStandardFiles(name);
    if (m_logHandler == nullptr) {
        printf("fopen: %s failed\n", name);
        fflush(stdout);
        return false;
    }
    m_wholeBytes = 0;
    return true;
}

void MdWriteLine(ELOGLEVEL level, const char* file, int line, const char* function,
                 const char* format, ...) {
    char text[SOURCE_SIZE + MESSAGE_SIZE];
    TextBuffer source(text, SOURCE_SIZE);
    source.Put("[");
    source.Put(file);
    source.Put(":");
    source.PutNumber(long{line});
    source.Put("][");
    source.Put(function);
    source.Put("]");
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start stands above
    const int needed = vsnprintf(text + source.Size(), MESSAGE_SIZE, format, arguments);
    va_end(arguments);
    const size_t length = needed < 0 ? 0 : std::min(static_cast<size_t>(needed), MESSAGE_SIZE - 1);
    CCommonLog::GetInstance()->WriteText(level, text, source.Size() + length);
}
