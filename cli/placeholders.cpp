#include "cli/placeholders.h"

#include "cli/help.h"

#include <cstdio>
#include <cstring>
#include <iostream>

int validatePackagesCmd(int argc, const char** argv) {
    if (argc == 0) {
        std::puts("qvrepo -validate is not yet implemented.");
        return 0;
    }
    // The array's address, not its contents: kept, callers skip this first line.
    std::cout << static_cast<const void*>(argv) << std::endl;
    showHelp(std::cout);
    return 1;
}

int getPackageCmd(int argc, const char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "-dest") == 0) {
        std::printf("qvrepo -getPkg %s -dest %s is not yet implemented.\n", argv[0], argv[2]);
        return 0;
    }
    showHelp(std::cout);
    return 1;
}
