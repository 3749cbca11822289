#include <gtest/gtest.h>

#include <sstream>

#include "server.h"

namespace {

// --version answers at once: what follows it, a missing CONFIG-FILE included, is not read.
TEST(DtconfigdVersion, NamesTheProgramAndTheBuildsVersion) {
    const std::vector<std::string> lines[] = {{"--version"}, {"--port", "9000", "--version"}, {"--version", "a", "b"}};
    for (const auto &args : lines) {
        std::ostringstream out, err;
        EXPECT_EQ(dtconfigd::Main(args, out, err), 0);
        EXPECT_EQ(out.str(), "dtconfigd (dtkit) " DTKIT_VERSION "\n");
        EXPECT_EQ(err.str(), "");
    }
}

}  // namespace
