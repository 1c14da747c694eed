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

namespace testsupport {
namespace {

TEST(Sandbox, DirectoriesArePrivateAndEmpty) {
  for (const auto& dir : SandboxedDirs()) {
    struct statfs fs;
    ASSERT_EQ(statfs(dir.c_str(), &fs), 0) << dir;
    EXPECT_EQ(fs.f_type, static_cast<decltype(fs.f_type)>(TMPFS_MAGIC)) << dir;
  }
  // Whatever the host has under /usr/share/applications is hidden.
  std::ofstream(std::string("/usr/share/applications/probe.desktop")) << "x";
  EXPECT_EQ(access("/usr/share/applications/probe.desktop", F_OK), 0);
  EXPECT_EQ(getuid(), 0u) << "root must be mapped";
}

TEST(Sandbox, SourceAndBuildTreesStayReachable) {
  EXPECT_EQ(access(TOLVARIND_SOURCE_DIR "/CMakeLists.txt", R_OK), 0);
  EXPECT_EQ(access(TOLVARIND_BINARY_DIR "/CMakeCache.txt", R_OK), 0);
}

TEST(Sandbox, DefaultRouteUsesTheKnownInterface) {
  std::ifstream route("/proc/net/route");
  std::string line, found;
  while (std::getline(route, line)) {
    std::istringstream fields(line);
    std::string ifname, dest;
    fields >> ifname >> dest;
    if (dest == "00000000") found = ifname;
  }
  EXPECT_EQ(found, kSandboxIfName);
}

}  // namespace
}  // namespace testsupport
