// The main of every test program: each test process gets registry and temp folders of its own
// (and with them its own log folder) before any test runs.
#include <gtest/gtest.h>

#include "support/ScratchRegistry.h"

int main(int argc, char** argv) {
    TesselTest::UseScratchRegistry();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
