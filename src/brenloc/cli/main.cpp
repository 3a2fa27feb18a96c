// brenloc: a code-indexing daemon for AI coding assistants.
#include <CLI/CLI.hpp>

#include <iostream>

#include "brenloc/app/commands.h"

namespace {

std::string one_line(std::string s) {
  for (char& c : s) {
    if (c == '\n') c = ' ';
  }
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace brenloc::app;
  CLI::App app{"brenloc: keeps a symbol index of a repository and serves it to AI assistants over MCP"};
  app.set_version_flag("--version", std::string("brenloc ") + BRENLOC_VERSION);
  app.require_subcommand(1);

  Where where;
  auto add_where = [&where](CLI::App* cmd) {
    cmd->add_option("--repo", where.repo, "Repository root (default: the current directory)");
    cmd->add_option("--data-dir", where.data_dir,
                    "Where the index lives (default: $XDG_DATA_HOME/brenloc/<name>-<hash of the root>)");
  };

  auto* serve = app.add_subcommand("serve", "Serve the repository's tools over MCP on stdin/stdout");
  add_where(serve);

  bool clear_existing = false;
  std::vector<std::string> paths;
  auto* reindex = app.add_subcommand("reindex", "Index the repository (or some paths in it) again, and wait");
  add_where(reindex);
  reindex->add_flag("--clear-existing", clear_existing,
                    "Rebuild the whole index from scratch; the live index is replaced only when every file was indexed");
  reindex->add_option("paths", paths, "Files or directories to reindex (default: the whole repository)");

  auto* status = app.add_subcommand("status", "Print the state of the repository's index as JSON");
  add_where(status);

  std::string query;
  std::optional<std::string> kind;
  std::optional<int> limit;
  auto* search = app.add_subcommand("search", "Search symbol definitions; JSON on stdout");
  add_where(search);
  search->add_option("query", query, "Name, prefix or substring")->required();
  search->add_option("--kind", kind, "Only symbols of this kind");
  search->add_option("--limit", limit, "Largest number of results");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "brenloc: " << one_line(e.what()) << " (see brenloc --help)\n";
    return kExitUsage;
  }

  if (serve->parsed()) return run_serve(where);
  if (reindex->parsed()) return run_reindex(where, clear_existing, paths);
  if (status->parsed()) return run_status(where);
  return run_search(where, query, kind, limit);
}
