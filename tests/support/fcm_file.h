// Keeps whatever "/fcm.log" a test finds and puts it back afterwards, and
// reads the file the library wrote.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

class FcmFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        // One fault file per machine: test runs of several build trees take turns.
        lock_ = open("/tmp/dtkit-fcm-test.lock", O_RDWR | O_CREAT, 0600);
        if (lock_ >= 0) flock(lock_, LOCK_EX);
        backup_ = "/fcm.log.dtkit-test-" + std::to_string(getpid());
        saved_ = std::rename("/fcm.log", backup_.c_str()) == 0;
    }
    void TearDown() override {
        std::remove("/fcm.log");
        rmdir("/fcm.log");
        if (saved_) std::rename(backup_.c_str(), "/fcm.log");
        if (lock_ >= 0) close(lock_);  // closing releases the lock
    }
    static std::vector<uint8_t> ReadFcm() {
        std::ifstream in("/fcm.log", std::ios::binary);
        return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }

private:
    std::string backup_;
    bool saved_ = false;
    int lock_ = -1;
};
