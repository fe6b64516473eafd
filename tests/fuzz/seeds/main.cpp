// Writes the inputs from which the corpora grow: what the simulated exchange sends, and by hand
// what it never sends. The formats are described at the top of each target.

#include "seeds.h"

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_fuzz_seeds FOLDER\n");
        return 2;
    }
    seeds::set_folder(argv[1]);
    seeds::put_frames();
    seeds::put_sessions();
    seeds::put_messages();
    seeds::put_buffers();
    seeds::put_cache_runs();
    seeds::put_files();
    seeds::put_session();
    return 0;
}
