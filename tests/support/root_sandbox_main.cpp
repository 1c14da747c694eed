// gtest main for tests in which another uid acts (the desktop user, a local
// attacker): real root in a private mount + network namespace. Without real
// root the whole binary is skipped, visibly: it prints why and exits with 77,
// which ctest reports as skipped.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "sandbox.h"

int main(int argc, char** argv) {
  bool listing = false;
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "--gtest_list_tests", 18) == 0) listing = true;
  if (!listing) {
    if (!testsupport::CanEnterRootSandbox()) {
      std::printf("SKIPPED: these tests need real root (a second uid acts in them)\n");
      return 77;
    }
    testsupport::EnterSandbox({TOLVARIND_SOURCE_DIR, TOLVARIND_BINARY_DIR},
                              testsupport::SandboxKind::kRealRoot);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
