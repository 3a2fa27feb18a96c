// A file's status (size, modification and change times in ns, inode) and when a stored one may be
// trusted: a pass skips, without reading it, a file whose status equals the one stored when it was last
// read, unless that reading came too soon after the file's modification time for the status to tell (a
// write in the same tick of the file system's clock leaves the status as it was: "racily clean", as git
// calls it). Such a file is read again, and its row refreshed once its content is found unchanged.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "brenloc/storage/records.h"

namespace brenloc::workers {

struct FileStatus {
  bool known = false;  // false: not looked at (the file is read)
  std::int64_t size = 0;
  std::int64_t mtime_ns = 0;
  std::int64_t inode = 0;
  std::int64_t ctime_ns = 0;
};

// A reading this close after the file's modification (or earlier) does not vouch for its content: more
// than the coarsest clock tick of the file systems met here (2 s on FAT; the kernel's coarse clock that
// stamps files lags the wall clock by a few ms elsewhere).
inline constexpr std::int64_t kRacyMarginNs = 3'000'000'000;

FileStatus status_of(const struct stat& st);

// The wall clock in ns (what a row's read_ns holds).
std::int64_t wall_clock_ns();

// True when `stored` (the row of the file's last reading) shows the file unchanged at `now`: the same
// status, read more than `racy_margin_ns` after the file's last modification and change.
bool unchanged_since_read(const storage::StoredFile& stored, const FileStatus& now,
                          std::int64_t racy_margin_ns = kRacyMarginNs);

}  // namespace brenloc::workers
