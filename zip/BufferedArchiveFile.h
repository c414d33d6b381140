#pragma once
// minizip's file functions for reading an archive through one descriptor and two 1 MiB windows, one on the
// central directory and one on the entries' bytes. minizip's own (stdio) functions read in 4 KiB pieces and
// seek before every local header, some 40 system calls per entry; here a seek inside a window costs none and
// the archive is read in large pieces.

#include <minizip/ioapi.h>

namespace zrv::zip {

/// The functions for `unzOpen2_64`; the path passed there is opened read-only.
zlib_filefunc64_def bufferedArchiveFileFunctions();

}  // namespace zrv::zip
