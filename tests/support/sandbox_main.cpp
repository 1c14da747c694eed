// gtest main for tests that need the sandbox: enters it before anything else
// runs (and before any thread exists), keeping the source and build trees
// reachable. Built twice: the private one, and (TOLVARIND_ROOT_SANDBOX=1) real
// root with a second uid, skipped with exit 77 when not root. Listing tests
// (ctest's discovery) needs no sandbox.
#include <gtest/gtest.h>

#include <cstring>

#include "sandbox.h"

int main(int argc, char** argv) {
  bool listing = false;
  for (int i = 1; i < argc; ++i) listing |= std::strncmp(argv[i], "--gtest_list_tests", 18) == 0;
  if (!listing)
    testsupport::EnterSandbox({TOLVARIND_SOURCE_DIR, TOLVARIND_BINARY_DIR},
                              testsupport::SandboxKind(TOLVARIND_ROOT_SANDBOX));
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
