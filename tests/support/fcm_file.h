// Keeps whatever "/fcm.log" a test finds and puts it back afterwards, and
// reads the file the library wrote.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

class FcmFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        backup_ = "/fcm.log.dtkit-test-" + std::to_string(getpid());
        saved_ = std::rename("/fcm.log", backup_.c_str()) == 0;
    }
    void TearDown() override {
        std::remove("/fcm.log");
        rmdir("/fcm.log");
        if (saved_) std::rename(backup_.c_str(), "/fcm.log");
    }
    static std::vector<uint8_t> ReadFcm() {
        std::ifstream in("/fcm.log", std::ios::binary);
        return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }

private:
    std::string backup_;
    bool saved_ = false;
};
