// System V shared memory for consumers that place data of their own. Every failure ends the
// process: there is nothing a consumer could do without its segment.

#include "ExanicMdImpl.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int PROJECT_ID = 'R';
constexpr int CREATE_FOR_ALL = IPC_CREAT | 0777;

void AdviseUpdate() {
    fputs("please check that the path exists and that the network card's driver is up to date, "
          "then retry\n",
          stderr);
}
void AdviseContact() {
    fputs("if this persists, please contact your vendor's support\n", stderr);
}

} // namespace

extern "C" {

char* create_shm(const char* path, unsigned int size) {
    const key_t key = ftok(path, PROJECT_ID);
    if (key == -1) {
        perror("failed to attach memory");
        AdviseUpdate();
        AdviseContact();
        exit(1);
    }
    const int id = shmget(key, size, CREATE_FOR_ALL);
    if (id == -1) {
        perror("failed to access memory");
        AdviseUpdate();
        AdviseContact();
        exit(1);
    }
    void* address = shmat(id, nullptr, 0);
    if (reinterpret_cast<intptr_t>(address) == -1) {
        perror("failed to attach memory");
        AdviseContact();
        exit(1);
    }
    return static_cast<char*>(address);
}

void free_shm(char* addr) {
    if (shmdt(addr) == -1) {
        perror("failed to free memory");
        exit(1);
    }
}

} // extern "C"
