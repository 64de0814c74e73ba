// Shared main of the test executables. It deliberately creates no QCoreApplication: some tests
// check what the library does without one, the others make their own.
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
