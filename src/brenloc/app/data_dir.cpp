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

std::filesystem::path account_home() {
  if (const passwd* account = ::getpwuid(::getuid()); account != nullptr && account->pw_dir != nullptr &&
                                                      *account->pw_dir == '/') {
    return account->pw_dir;
  }
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') return home;
  return std::filesystem::temp_directory_path();
}

DataHome data_home() {
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && *xdg == '/') {
    std::filesystem::path dir = xdg;
    return {dir, dir == account_home() / ".local" / "share" ? "" : "XDG_DATA_HOME"};
  }
  return {account_home() / ".local" / "share", ""};
}

std::filesystem::path default_data_dir(const std::filesystem::path& resolved_root) {
  std::string name = resolved_root.filename().string();
  if (name.empty()) name = "root";
  return data_home().dir / "brenloc" / fmt::format("{}-{:08x}", name, fnv1a(resolved_root.string()));
}

}  // namespace brenloc::app
