#include <iostream>
#include <string>
#include <vector>

#include "server.h"

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    return dtconfigd::Main(args, std::cout, std::cerr);
}
