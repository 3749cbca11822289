// Runs a fuzz target over its committed corpus without the fuzzing engine, so
// that every seed and every input that once found a fault is replayed by the
// ordinary test run, on every build (the powerpc one included). A target
// reports a fault by aborting, which fails the test.
//   replay_<target> FILE_OR_FOLDER...
// A 32-bit build (the board's) must still list and stat files whose inode
// numbers or offsets need 64 bits, as they do on large host file systems.
#define _FILE_OFFSET_BITS 64

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    std::vector<std::string> files;  // a folder's regular files in name order, or the file itself
    for (int i = 1; i < argc; ++i) {
        dirent **names;
        const int n = scandir(argv[i], &names, nullptr, alphasort);
        if (n < 0) files.push_back(argv[i]);
        for (int k = 0; k < n; ++k) {
            struct stat st;
            const std::string full = std::string(argv[i]) + "/" + names[k]->d_name;
            if (stat(full.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back(full);
            free(names[k]);
        }
        if (n >= 0) free(names);
    }
    for (const std::string &f : files) {
        std::ifstream in(f, std::ios::binary);
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!in.is_open() || in.bad()) {
            fprintf(stderr, "replay: cannot read %s\n", f.c_str());
            return 2;
        }
        // An empty vector's data() may be null; the engine always passes a pointer.
        uint8_t none = 0;
        LLVMFuzzerTestOneInput(data.empty() ? &none : data.data(), data.size());
    }
    printf("replay: %zu inputs\n", files.size());
    return files.empty() ? 2 : 0;  // no inputs: a corpus gone missing, not a pass
}
