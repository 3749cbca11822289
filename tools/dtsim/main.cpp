// dtsim: many simulated devices in one process, for testing and measuring
// collectors against the library's real agent stream (see fleet.h).
#include <iostream>
#include <string>
#include <vector>

#include "fleet.h"

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    return dtsim::Main(args, std::cout, std::cerr);
}
