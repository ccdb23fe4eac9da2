// Verifies the package files that it is given, with nothing around it: what a measurement of the verification
// alone needs.

#include "seam/T.h"

#include <cstdio>

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const int status = T::verifySja(argv[i]);
        if (status != 0) {
            std::fprintf(stderr, "%s: status %d\n", argv[i], status);
            return 1;
        }
    }
    return 0;
}
