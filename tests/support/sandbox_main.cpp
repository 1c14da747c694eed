// gtest main for tests that need the sandbox: enters it before anything else
// runs (and before any thread exists), keeping the source and build trees
// reachable. Built twice: the private one, and (TOLVARIND_ROOT_SANDBOX=1) real
// root with a second uid, skipped with exit 77 when not root. Listing tests
// (ctest's discovery) needs no sandbox.
#include <gtest/gtest.h>

#include "sandbox.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!GTEST_FLAG_GET(list_tests))
    testsupport::EnterSandbox({TOLVARIND_SOURCE_DIR, TOLVARIND_BINARY_DIR},
                              testsupport::SandboxKind(TOLVARIND_ROOT_SANDBOX));
  return RUN_ALL_TESTS();
}
