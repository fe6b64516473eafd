// Records every update of the feed as a row of a CSV file in the working directory, until Ctrl+C.
//
// Every row reaches the file before the callback returns, in one write, so that a process that is
// killed leaves whole rows only. A row that cannot be written (disk full) is taken back as a whole.

#include "ExanicMdImpl.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

int keep_running = 1;
FILE* dumpHandler = nullptr;

static const char CSV_HEADER[] =
    "type,inst_id,update_time,update_milli_sec,change_no,last_px,volume,turnover,open_interest,"
    "bid1_volume,bid1_price,bid2_volume,bid2_price,bid3_volume,bid3_price,bid4_volume,bid4_price,"
    "bid5_volume,bid5_price,ask1_volume,ask1_price,ask2_volume,ask2_price,ask3_volume,ask3_price,"
    "ask4_volume,ask4_price,ask5_volume,ask5_price,bid_volume,bid_amount,ask_volume,ask_amount,"
    "highest_price,lowest_price\n";
static_assert(sizeof(CSV_HEADER) - 1 == 391);

// Larger than the longest row, so that a row is one write.
static char rowBuffer[65536];
static off_t wholeRows = 0; // bytes of the file that are whole rows
static unsigned long lostRows = 0;

// Takes back what the file got of a row that could not be written whole.
static void dropTornRow(int reason) {
    clearerr(dumpHandler);
    __fpurge(dumpHandler);
    if (ftruncate(fileno(dumpHandler), wholeRows) == 0) {
        fseeko(dumpHandler, wholeRows, SEEK_SET);
    }
    if (lostRows++ == 0) {
        fprintf(stderr, "a row could not be written and is lost: %s\n", strerror(reason));
    }
}

// A descriptor that is closed would be given to the CSV file, and whatever is printed would end up
// among its rows.
static void occupyStandardDescriptors() {
    while (true) {
        const int descriptor = open("/dev/null", O_RDWR);
        if (descriptor > STDERR_FILENO || descriptor < 0) {
            if (descriptor > STDERR_FILENO) {
                close(descriptor);
            }
            return;
        }
    }
}

void notify(instrument* p) {
    const int written = fprintf(
        dumpHandler,
        "%u,%.16s,%u,%d,%d,%.2f,%d,%.2f,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,%."
        "2f,"
        "%d,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%d,%.2f,%.2f,%.2f\n",
        static_cast<unsigned>(p->type), reinterpret_cast<const char*>(p->inst_id), p->update_time,
        static_cast<int>(p->update_milli_sec), static_cast<int>(p->change_no), p->last_px,
        static_cast<int>(p->volume), p->turnover, p->open_interest, p->bid_vol[0], p->bid_px[0],
        p->bid_vol[1], p->bid_px[1], p->bid_vol[2], p->bid_px[2], p->bid_vol[3], p->bid_px[3],
        p->bid_vol[4], p->bid_px[4], p->ask_vol[0], p->ask_px[0], p->ask_vol[1], p->ask_px[1],
        p->ask_vol[2], p->ask_px[2], p->ask_vol[3], p->ask_px[3], p->ask_vol[4], p->ask_px[4],
        p->bid_totvol, p->bid_totamount, p->ask_totvol, p->ask_totamount, p->highest_price,
        p->lowest_price);
    if (fflush(dumpHandler) != 0 || written < 0) {
        dropTornRow(errno);
        return;
    }
    wholeRows += written;
}

// Only what is safe in a handler: an atomic store and a write. The logger flushes every line, so
// nothing of standard output waits.
void sig_handler(int) {
    const int interrupted = errno; // belongs to the code that was interrupted
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
    static const char TEXT[] = "received Ctrl + C signal.\n";
    const ssize_t written = write(STDOUT_FILENO, TEXT, sizeof(TEXT) - 1);
    (void)written; // with nobody to tell, there is nothing to do about it
    errno = interrupted;
}

int main(int argc, char* argv[]) {
    if (argc != 2) {
        fprintf(stderr, "Usage: %s config.ini\n", argv[0]);
        return -1;
    }
    occupyStandardDescriptors();
    const time_t seconds = time(nullptr);
    const tm* now = localtime(&seconds);
    if (now == nullptr) {
        perror("localtime");
        return -1;
    }
    char name[256];
    snprintf(name, sizeof(name), "exanic_md_%04d%02d%02d_%02d%02d%02d.csv", now->tm_year + 1900,
             now->tm_mon + 1, now->tm_mday, now->tm_hour, now->tm_min, now->tm_sec);
    dumpHandler = fopen(name, "w");
    if (dumpHandler == nullptr) {
        printf("fopen: %s failed\n", name);
        return -1;
    }
    setvbuf(dumpHandler, rowBuffer, _IOFBF, sizeof(rowBuffer));
    if (fputs(CSV_HEADER, dumpHandler) < 0 || fflush(dumpHandler) != 0) {
        perror("the CSV header could not be written");
        return -1;
    }
    wholeRows = sizeof(CSV_HEADER) - 1;

    signal(SIGINT, sig_handler);
    set_update_md_callback(notify);
    vorn_recv(argv[1], &keep_running);

    fclose(dumpHandler);
    dumpHandler = nullptr;
    if (lostRows != 0) {
        fprintf(stderr, "%lu rows could not be written and are lost\n", lostRows);
    }
    return 0;
}
