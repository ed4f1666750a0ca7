// SPDX-License-Identifier: Apache-2.0
// getBootMode: the first digits of the kernel's boot-mode file, read on every call.
#include "BootMode.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#define LOG_TAG "VroCam/Utils"
#define LOG_MODULE_ID 0x40007001u
#include "GatedLog.h"

namespace NSCam {
namespace Utils {

int getBootMode() {
  static const char kBootModePath[] = "/sys/class/BOOT/BOOT/boot/boot_mode";
  char buf[4] = {'0', 0, 0, 0};

  const int fd = open(kBootModePath, O_RDONLY);
  if (fd < 0) {
    GLOG_WARNING("fail to open: %s", kBootModePath);
    return 0;
  }
  const ssize_t n = read(fd, buf, 3);
  close(fd);
  if (n <= 0) {
    GLOG_WARNING("could not read boot mode sys file");
    return 0;
  }
  buf[n] = '\0';
  GLOG_DETAIL(true, "Boot Mode %d", atoi(buf));
  return atoi(buf);
}

}  // namespace Utils
}  // namespace NSCam
