// The commands of the brenloc binary. Each runs its own event loop and repository worker and returns
// the process's exit code.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace brenloc::app {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;   // the reindex ran and failed, or a command failed
inline constexpr int kExitRefused = 2;  // the request was refused ("failed" or "in_progress")
inline constexpr int kExitUsage = 64;   // bad command line, missing repository

struct Where {
  std::filesystem::path repo;                    // as given; resolved by the command
  std::optional<std::filesystem::path> data_dir;  // absent: the default for the repository
};

// MCP server on stdin/stdout until the input ends or SIGINT/SIGTERM arrives.
int run_serve(const Where& where);
// One force_reindex request, run in process; prints the response and the outcome.
int run_reindex(const Where& where, bool clear_existing, const std::vector<std::string>& paths);
int run_status(const Where& where);
int run_search(const Where& where, const std::string& query, const std::optional<std::string>& kind,
               std::optional<int> limit);

}  // namespace brenloc::app
