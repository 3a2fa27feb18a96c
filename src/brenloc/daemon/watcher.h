// The inotify watches of one working tree, read on the event loop.
//
// The owner adds a watch per directory that an index pass walks (collect_dirs: the ignore rules hold, so
// nothing under .git, the data directory or an ignored tree is watched) and follows the files that decide
// the exclude rules (info/exclude, the user's excludes file, the git configuration). next() waits for
// events and turns them into changes relative to the root (paths in text form, utils/path_text.h): files
// of a known language (or without an extension, whose first lines may name one), directories that appeared or went (whose watches the owner adds or forgets), a
// .gitignore changed, an exclude file changed, or the kernel's queue overflowed (events were lost). add()
// stops at `max_watches` (0: the system's limit only) and then says so; the watches made stay until
// close().
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/asio/posix/stream_descriptor.hpp>

#include "brenloc/aio/task.h"

namespace brenloc::daemon {

class TreeWatcher {
 public:
  struct Change {
    enum class Kind {
      file,         // a file was written, created, removed or moved
      dir_added,    // a directory appeared (created, or moved in)
      dir_removed,  // a directory went (removed, or moved away)
      rules,        // the .gitignore of directory `rel` changed
      all_rules,    // a file of the exclude rules changed, came or went
      overflow,     // events were lost
    };
    Kind kind;
    std::string rel;
  };

  // Opens the inotify instance on the current event loop; throws std::system_error when it cannot.
  TreeWatcher(std::filesystem::path root, std::size_t max_watches);
  ~TreeWatcher();
  TreeWatcher(const TreeWatcher&) = delete;
  TreeWatcher& operator=(const TreeWatcher&) = delete;

  // Watches the directories `dirs` (relative to the root). False when the limit was reached (ours or
  // the system's): some were not watched. Other failures (a directory that went meanwhile) are skipped.
  bool add(const std::vector<std::string>& dirs);
  // Drops the watches of `rel` and of the directories under it.
  void forget(const std::string& rel);
  // Drops the watches of `rel` and of the directories under it that are not in `keep`.
  void retain(const std::string& rel, const std::vector<std::string>& keep);
  // Follows each of `files` instead of those followed until now: watches its directory for changes of
  // the file or, while that directory is missing, the nearest directory above it for the creation of
  // the next one down. Any of these, and the loss of such a watch, is an all_rules change.
  void watch_files(const std::vector<std::filesystem::path>& files);
  // Waits until events arrive and returns their changes (possibly none, for events of no interest).
  aio::Task<std::vector<Change>> next();
  // The number of watches (directories of the tree and of the followed files).
  std::size_t count() const;
  void close();

 private:
  // One event: its watch, mask and name.
  void take(int wd, std::uint32_t mask, const std::string& name, std::vector<Change>& out);

  std::filesystem::path root_;
  std::size_t max_watches_;
  int fd_ = -1;
  std::unique_ptr<boost::asio::posix::stream_descriptor> stream_;
  std::unordered_map<int, std::string> dirs_;                 // watch -> directory (relative)
  std::map<std::string, int> by_dir_;                         // directory -> watch
  std::unordered_map<int, std::set<std::string>> file_dirs_;  // watch -> names of the files watched there
  std::vector<char> buffer_;
};

}  // namespace brenloc::daemon
