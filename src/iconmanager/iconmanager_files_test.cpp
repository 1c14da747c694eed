// Launchers on their fixed paths; runs in the namespace sandbox, so /tmp, /opt, /home and
// /usr/share/applications are private and empty at the start of every test.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "iconmanager.h"
#include "log_capture.h"
#include "sdp_paths.h"

namespace {

namespace fs = std::filesystem;
const std::string kDesk = "/home/alice/Desktop/", kApps = "/usr/share/applications/";
const std::string kRecord = sdp_paths::kRecordOldAppNames;
IconManager& icons = IconManager::getIns();

void Write(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// The file's bytes, and its mode when it is not 0644; "<none>" when it cannot be read.
std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<none>";
  const auto mode = fs::status(path).permissions();
  const std::string text(std::istreambuf_iterator<char>(in), {});
  return text + (mode == fs::perms(0644) ? "" : mode == fs::perms(0755) ? "|755" : "|?");
}

SAppDesktop Resource(const char* name, const char* source) {
  SAppDesktop r;
  r.name = name;
  r.exec = source;
  return r;
}

// Start-up has named the record file; the user's desktop directory exists.
class LauncherPlacement : public testing::Test {
 protected:
  void SetUp() override {
    Write(sdp_paths::kUserinfoIni, "[Aum]\nmail01=https://m\n[CustomJumpPolicy]\nJumpBrowser=v\n");
    fs::create_directories(kDesk);
    fs::create_directories(sdp_paths::kInstallDir);
    icons.iconInit({});
  }
  const std::string user = "[UserInfo]\nSysUserName=alice\n";
  std::vector<SAppDesktop> resources{Resource("Mail", "mail01"), Resource("Wiki", "wiki01"),
                                     Resource("Mail 2", "mail01"), Resource("X", "../x"),
                                     Resource("Y\nZ", "mail01")};
  testsupport::LogCapture capture;
};

TEST_F(LauncherPlacement, ResourcesWithAddressAndBrowserGetBothFilesRecordedEachTime) {
  // Without a user the name would stand at the root of the file system.
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  EXPECT_TRUE(capture.has("desktop produce failed ! /mail01.desktop", google::GLOG_WARNING));
  EXPECT_EQ(Read(kRecord) + Read("/mail01.desktop"), "<none>");
  // Blanks and a CR around the name are the INI reader's to trim. The second resource of the
  // same source overwrites the first's files; a source that is no file name, a name with a
  // line break and a source without an address get none.
  Write(sdp_paths::kUserinfoIni,
        "[UserInfo]\nSysUserName = alice\r\n[Aum]\nmail01=https://m\n"
        "../x=https://x\n[CustomJumpPolicy]\nJumpBrowser=v\n");
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  const std::string text =
      "[Desktop Entry]\nCategories=Network;WebBrowser\n"
      "MimeType=text/html;text/xml;application/xhtml_xml;image/webp;x-scheme-handler/http;"
      "x-scheme-handler/https;x-scheme-handler/ftp;\nEncoding=UTF-8\n"
      "Exec=/opt/apps/morvasta/dravinAum.sh mail01\nIcon=/tmp/.sdp_cfs/mail01.png\nName=Mail 2\n"
      "Terminal=false\nType=Application\nX-Deepin-Vendor=user-custom\nStartupNotify=true\n"
      "Actions=new-window;\nX-Deepin-CreatedBy=com.deepin.dde.daemon.Launcher\n"
      "X-Deepin-AppID=mail01\n|755";
  EXPECT_EQ(Read(kDesk + "mail01.desktop"), text);
  EXPECT_EQ(Read(kApps + "mail01.desktop"), text);
  const std::string twice = kDesk + "mail01.desktop\n" + kApps + "mail01.desktop\n";
  EXPECT_EQ(Read(kRecord), twice + twice);
  // An address but no browser to open it: no launcher.
  fs::remove(kDesk + "mail01.desktop");
  Write(sdp_paths::kUserinfoIni, user + "[Aum]\nmail01=https://m\n");
  EXPECT_TRUE(icons.produceDesktopFile(resources));
  EXPECT_EQ(Read(kDesk + "mail01.desktop"), "<none>");
}

// Only what is placed is recorded; the user's own and the system's files are left alone.
TEST_F(LauncherPlacement, WhitelistPlacesFoundAndClientEntriesButNothingElse) {
  const std::string client = std::string(sdp_paths::kClientApplicationsDir) + "/";
  for (const char* name : {"foo", "bar", "saipra", "deepin-draw", "saipra.desktop", "shared"})
    Write(kApps + name + ".desktop", std::string("system ") + name);
  for (const char* name :
       {"shared.desktop", "client.desktop", "com.vrek.browser.desktop", ".desktop", "notes.txt"})
    Write(client + name, std::string("client ") + name);
  fs::create_directories(client + "folder.desktop");
  Write(kDesk + "foo.desktop", "the user's own");
  Write(sdp_paths::kUserinfoIni, user);
  std::vector<SAppInfo> list;
  for (const char* value :
       {"/usr/bin/foo", "saipra", "deepin-draw", "shared", "missing", "saipra.desktop"})
    list.push_back(SAppInfo{"", "n", 1, value});
  for (int type : {0, 2}) list.push_back(SAppInfo{"", "n", type, "bar"});
  icons.iconInit(list);
  EXPECT_EQ(Read(kDesk + "foo.desktop") + "|" + Read(kDesk + "shared.desktop") + "|" +
                Read(kApps + "shared.desktop") + "|" + Read(kDesk + "saipra.desktop.desktop"),
            "the user's own|client shared.desktop|755|system shared|system saipra.desktop|755");
  EXPECT_EQ(Read(kRecord), kDesk + "client.desktop\n" + kApps + "client.desktop\n" + kDesk +
                               "saipra.desktop.desktop\n" + kDesk + "shared.desktop\n");
}

}  // namespace
