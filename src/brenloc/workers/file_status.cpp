#include "brenloc/workers/file_status.h"

#include <time.h>

namespace brenloc::workers {

namespace {

std::int64_t ns_of(const struct timespec& t) { return static_cast<std::int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec; }

}  // namespace

FileStatus status_of(const struct stat& st) {
  return FileStatus{true, static_cast<std::int64_t>(st.st_size), ns_of(st.st_mtim), static_cast<std::int64_t>(st.st_ino),
                    ns_of(st.st_ctim)};
}

std::int64_t wall_clock_ns() {
  struct timespec t {};
  ::clock_gettime(CLOCK_REALTIME, &t);
  return ns_of(t);
}

bool unchanged_since_read(const storage::StoredFile& stored, const FileStatus& now, std::int64_t racy_margin_ns) {
  if (!now.known || stored.read_ns == 0) return false;
  if (now.size != stored.size || now.mtime_ns != stored.mtime_ns || now.inode != stored.inode ||
      now.ctime_ns != stored.ctime_ns) {
    return false;
  }
  // Racily clean: the reading may have raced a write that left the status as it was.
  return stored.mtime_ns + racy_margin_ns < stored.read_ns && stored.ctime_ns + racy_margin_ns < stored.read_ns;
}

}  // namespace brenloc::workers
