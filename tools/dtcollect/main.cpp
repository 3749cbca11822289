#include <iostream>
#include <string>
#include <vector>

#include "collector.h"

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    return dtcollect::Main(args, std::cin, std::cout, std::cerr);
}
