// brenloc: a code-indexing daemon for AI coding assistants.
#include <CLI/CLI.hpp>

#include <iostream>

int main(int argc, char** argv) {
  CLI::App app{"brenloc: keeps a symbol index of a repository and serves it over MCP"};
  app.set_version_flag("--version", std::string("brenloc ") + BRENLOC_VERSION);
  CLI11_PARSE(app, argc, argv);
  std::cout << app.help();
  return 0;
}
