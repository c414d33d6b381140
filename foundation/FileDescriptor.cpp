#include "foundation/FileDescriptor.h"

#include <unistd.h>

namespace zrv {

void FileDescriptor::reset() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace zrv
