// Keeps whatever fault file (DTFAULT_FILE, the path the library was built
// with) a test finds and puts it back afterwards, and reads the file the
// library wrote.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fault/DTFault.h"

class FcmFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        // One fault file per machine: test runs of several build trees take turns.
        lock_ = open("/tmp/dtkit-fcm-test.lock", O_RDWR | O_CREAT, 0600);
        flock(lock_, LOCK_EX);
        backup_ = std::string(DTFAULT_FILE) + ".dtkit-test-" + std::to_string(getpid());
        saved_ = std::rename(DTFAULT_FILE, backup_.c_str()) == 0;
    }
    void TearDown() override {
        std::remove(DTFAULT_FILE);
        rmdir(DTFAULT_FILE);
        if (saved_) std::rename(backup_.c_str(), DTFAULT_FILE);
        close(lock_);  // closing releases the lock
    }
    // Empty when there is no file: some tests expect none.
    static std::vector<uint8_t> ReadFcm() {
        std::ifstream in(DTFAULT_FILE, std::ios::binary);
        return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }

private:
    std::string backup_;
    bool saved_ = false;
    int lock_ = -1;
};
