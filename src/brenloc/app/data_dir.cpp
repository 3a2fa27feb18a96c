#include "brenloc/app/data_dir.h"

#include <pwd.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace brenloc::app {

namespace {

// FNV-1a, 32 bits: short, stable across runs and machines.
std::uint32_t fnv1a(const std::string& s) {
  std::uint32_t h = 2166136261u;
  for (unsigned char c : s) {
    h ^= c;
    h *= 16777619u;
  }
  return h;
}

}  // namespace

std::filesystem::path default_data_dir(const std::filesystem::path& resolved_root) {
  std::filesystem::path base;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && *xdg == '/') {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    base = std::filesystem::path(home) / ".local" / "share";
  } else if (const passwd* account = ::getpwuid(::getuid()); account != nullptr && account->pw_dir != nullptr) {
    base = std::filesystem::path(account->pw_dir) / ".local" / "share";  // HOME unset: the account's home
  } else {
    base = std::filesystem::temp_directory_path();
  }
  std::string name = resolved_root.filename().string();
  if (name.empty()) name = "root";
  return base / "brenloc" / fmt::format("{}-{:08x}", name, fnv1a(resolved_root.string()));
}

}  // namespace brenloc::app
