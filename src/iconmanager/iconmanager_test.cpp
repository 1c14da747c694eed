// The bytes of a resource's launcher, built without files.
#include "iconmanager.h"

#include <gtest/gtest.h>

namespace {

TEST(DesktopEntry, ResourceLauncherIsTheThirteenLineLayout) {
  SAppDesktop resource;
  resource.name = "Mail box";
  resource.exec = "mail01";
  resource.spare = "never";
  EXPECT_EQ(
      "[Desktop Entry]\n"
      "Categories=Network;WebBrowser\n"
      "MimeType=text/html;text/xml;application/xhtml_xml;image/webp;x-scheme-handler/http;"
      "x-scheme-handler/https;x-scheme-handler/ftp;\n"
      "Encoding=UTF-8\n"
      "Exec=/opt/apps/morvasta/dravinAum.sh mail01\n"
      "Icon=/tmp/.sdp_cfs/mail01.png\n"
      "Name=Mail box\n"
      "Terminal=false\n"
      "Type=Application\n"
      "X-Deepin-Vendor=user-custom\n"
      "StartupNotify=true\n"
      "Actions=new-window;\n"
      "X-Deepin-CreatedBy=com.deepin.dde.daemon.Launcher\n"
      "X-Deepin-AppID=mail01\n",
      iconmanager::DesktopEntryText(iconmanager::ResourceLauncher(resource)));
}

}  // namespace
