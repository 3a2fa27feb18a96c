// Finding the files of an index pass, and reading one of them. Both block; both run on pool threads.
//
// The walk leaves out, by policy and without counting an error: ".git" at any depth, the data
// directory, what the ignore rules exclude, symbolic links, anything that is not a regular file or a
// directory, and files of no known language. Reading leaves out, by policy as well, binary files (a NUL
// byte near the start, as git decides) and files over the size limit. A directory that cannot be
// listed, or an entry that cannot be looked at, is left out with an error; so is a file that cannot be
// read. Something that vanished meanwhile is neither: it is simply gone.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "brenloc/workers/file_status.h"

namespace brenloc::workers {

// A file or directory the pass could not index. `path` is relative to the root ("." for the root).
struct LeftOut {
  std::string path;
  std::string stage;  // "walk", "read", "parse" or "store"
  std::string error;
};

struct WalkPolicy {
  std::filesystem::path root;      // absolute, resolved
  std::filesystem::path data_dir;  // absolute; skipped when it lies inside the root
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
  std::string error;  // for failed
};

// Reads a regular file (not through a symbolic link, never blocking on a FIFO). Larger than
// `max_size` bytes, binary, or no longer a regular file: skipped.
SourceFile read_source(const std::filesystem::path& path, std::int64_t max_size);

// True when `content` looks binary: a NUL byte among its first 8000 bytes.
bool looks_binary(std::string_view content);

// The hex digest of `content` used to tell changed files.
std::string content_hash(std::string_view content);

}  // namespace brenloc::workers
