// SPDX-License-Identifier: Apache-2.0
// memfd_create, ftruncate, F_ADD_SEALS.
#include "SealedMemfd.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace vrocam {
namespace host {

UniqueFd sealedMemfd(const char* name, size_t size, unsigned int seals) {
  const auto length = static_cast<off_t>(size);
  if (length < 0) {
    errno = EINVAL;
    return UniqueFd();
  }
  UniqueFd fd(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!fd || ftruncate(fd.get(), length) != 0 ||
      (seals != 0 && fcntl(fd.get(), F_ADD_SEALS, seals) != 0)) {
    fd.reset();  // errno stays that of the failed step
  }
  return fd;
}

}  // namespace host
}  // namespace vrocam
