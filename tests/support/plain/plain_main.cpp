// A consumer whose run flag is down from the start: the feed says which version it is and returns.

#include "ExanicMdImpl.h"

int main() {
    char config[] = "absent.ini";
    int keep_running = 0;
    return vorn_recv(config, &keep_running);
}
