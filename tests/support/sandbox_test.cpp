// The sandbox is what keeps tests away from the host's real directories, so
// its own guarantees are tested: private tmpfs, reachable trees, known route.
#include "sandbox.h"

#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

TEST(Sandbox, PrivateTmpfsDirsRootMappedTreesReachableAndKnownDefaultRoute) {
  for (const auto& dir : testsupport::SandboxedDirs()) {
    struct statfs fs;
    ASSERT_EQ(statfs(dir.c_str(), &fs), 0) << dir;
    EXPECT_EQ(fs.f_type, static_cast<decltype(fs.f_type)>(TMPFS_MAGIC)) << dir;
  }
  EXPECT_TRUE(std::ofstream("/usr/share/applications/probe.desktop") << "x");
  EXPECT_EQ(getuid(), 0u) << "root must be mapped";
  EXPECT_EQ(access(TOLVARIND_SOURCE_DIR "/CMakeLists.txt", R_OK), 0);
  EXPECT_EQ(access(TOLVARIND_BINARY_DIR "/CMakeCache.txt", R_OK), 0);
  std::ifstream route("/proc/net/route");
  std::string line, ifname, dest, found;
  while (std::getline(route, line))
    if (std::istringstream(line) >> ifname >> dest && dest == "00000000") found = ifname;
  EXPECT_EQ(found, testsupport::kSandboxIfName);
}

}  // namespace
