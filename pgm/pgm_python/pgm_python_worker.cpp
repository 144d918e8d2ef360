// The program that serves one call of a host. Hosts start it; it is not for use by hand.

#include "pgm/pgm_python/worker_main.h"

int main(int argc, char** argv) {
    return pgm_python_worker_main(argc, argv);
}
