#include "tools/vorn/program.h"

int main(int argc, char** argv) {
    return vorn_cli::run(argc, argv);
}
