#include <iostream>
#include <string>
#include <vector>

#include "fcm_decode.h"

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    return dtfcm::Main(args, std::cout, std::cerr);
}
