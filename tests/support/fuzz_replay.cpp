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

// The files to replay: a folder's regular files in name order, or the file itself.
static bool Collect(const std::string &path, std::vector<std::string> *files) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return false;
    if (!S_ISDIR(st.st_mode)) {
        files->push_back(path);
        return true;
    }
    dirent **names;
    int n = scandir(path.c_str(), &names, nullptr, alphasort);
    if (n < 0) return false;
    for (int i = 0; i < n; ++i) {
        std::string full = path + "/" + names[i]->d_name;
        if (stat(full.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files->push_back(full);
        free(names[i]);
    }
    free(names);
    return true;
}

int main(int argc, char **argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (!Collect(argv[i], &files)) {
            fprintf(stderr, "replay: cannot read %s\n", argv[i]);
            return 2;
        }
    }
    if (files.empty()) {
        fprintf(stderr, "replay: no inputs\n");
        return 2;
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
    return 0;
}
