// Finding the files of an index pass, and reading one of them. Both block; both run on pool threads.
//
// The walk leaves out, by policy and without counting an error: ".git" at any depth, the data
// directory, what the ignore rules exclude, symbolic links, anything that is not a regular file or a
// directory, files of no known language (by the name's extension or, for a name without one, by an
// editor's mode line or an interpreter line in the first lines), and a directory it has entered already under another path (a
// bind mount: same device and inode). Reading leaves out, by policy as well, binary files (a NUL byte
// near the start, as git decides) and files over the size limit. Of these, the links, special files,
// directories reached twice, binary and oversized files are named (what the user or the layout of the
// tree asked to leave out, and files of no known language, are not). A directory that cannot be listed,
// or an entry that cannot be looked at, is left out with an error; so is a file that cannot be read.
// Something that vanished meanwhile is neither: it is simply gone.
//
// Relative paths, in and out, are in their text form (utils/path_text.h); the file system is reached
// through the bytes they stand for.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brenloc/workers/file_status.h"

namespace brenloc::workers {

// A file or directory the pass did not index: one it could not (`failed`, an error that counts), or one
// it left out by policy. `path` is relative to the root ("." for the root).
struct LeftOut {
  std::string path;
  std::string stage;  // "walk", "read", "parse" or "store"
  std::string error;  // what failed, or why the policy left it out
  bool failed = true;
};

// The start of the reason given for a directory reached a second time; the path reached first follows.
inline constexpr std::string_view kSameDirectoryAs = "same directory as ";

struct WalkPolicy {
  std::filesystem::path root;      // absolute, resolved
  std::filesystem::path data_dir;  // absolute; skipped when it lies inside the root
  // Directories that an earlier whole walk found to be a second path to a directory (reason: "same
  // directory as ..."): a walk of listed paths, which cannot tell by itself, leaves out what lies there.
  std::vector<LeftOut> second_paths;
};

// A file to index: relative path ('/'-separated), language, and its status as the walk saw it.
struct Candidate {
  std::string rel;
  std::string language;
  FileStatus status;
};

struct Collected {
  std::vector<Candidate> files;
  std::vector<LeftOut> errors;
  std::int64_t skipped = 0;  // entries left out by policy
  std::vector<LeftOut> named;  // of those, the ones named (not failed)
  // Relative paths whose index rows go when the pass does not index them: listed paths that are gone
  // or left out by policy.
  std::vector<std::string> drop;
  // Directories whose whole content the pass covered ("" for the root): an indexed file under one of
  // them that the pass did not find has vanished. Directories that could not be listed are in
  // `failed_dirs`; files under them keep their rows.
  std::vector<std::string> covered;
  std::vector<std::string> failed_dirs;
  std::vector<std::string> dirs;  // the directories walked (collect_dirs)
};

// The whole tree under policy.root, or, with `paths` (absolute), exactly those (a directory among them
// stands for the files under it). Stops early, returning what it has, once `stop` is set.
Collected collect_files(const WalkPolicy& policy, const std::optional<std::vector<std::filesystem::path>>& paths,
                        const std::atomic<bool>& stop);

// The directories that a whole walk would enter under `rel` ("" for the root), `rel` first when it is
// one the walk enters (not ignored, not .git, not the data directory, not through a symbolic link).
std::vector<std::string> collect_dirs(const WalkPolicy& policy, const std::string& rel, const std::atomic<bool>& stop);

// True when `rel` lies under `dir` ("" covers everything).
bool is_under(std::string_view rel, std::string_view dir);

struct SourceFile {
  enum class Status { ok, gone, skipped, failed };
  Status status = Status::failed;
  std::string content;
  std::int64_t size = 0;
  std::int64_t mtime_ns = 0;
  std::int64_t inode = 0;
  std::int64_t ctime_ns = 0;
  std::int64_t read_ns = 0;  // the wall clock just before the file was looked at
  std::string error;  // for failed; for skipped, why
};

// Reads a regular file (not through a symbolic link, never blocking on a FIFO). Larger than
// `max_size` bytes, binary, or no longer a regular file: skipped.
SourceFile read_source(const std::filesystem::path& path, std::int64_t max_size);

// True when `content` looks binary: a NUL byte among its first 8000 bytes.
bool looks_binary(std::string_view content);

// The hex digest of `content` used to tell changed files.
std::string content_hash(std::string_view content);

}  // namespace brenloc::workers
