// The brenloc binary as a user runs it: exit codes, what goes to stdout and stderr, the data directory.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "utils/tree_fixtures.h"

namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

struct Result {
  int code;
  std::string out, err;
};

std::string quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    brenloc::testing::write_file(repo_ / "pkg/shapes.py", "class Circle:\n    def area(self):\n        return 3\n");
    brenloc::testing::write_file(repo_ / "main.go", "package main\n\nfunc Launch() {}\n");
  }

  // Runs the binary with `args`, `env` set and no input.
  Result invoke(const std::string& args, const std::string& env = "") {
    const fs::path out = dir_.path() / "out", err = dir_.path() / "err";
    const std::string cmd =
        env + " " + quote(BRENLOC_BINARY) + " " + args + " >" + quote(out) + " 2>" + quote(err) + " </dev/null";
    const int status = std::system(cmd.c_str());
    const auto slurp = [](const fs::path& p) {
      std::ifstream in(p);
      return std::string(std::istreambuf_iterator<char>(in), {});
    };
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
  }
  std::string where() const { return "--repo " + quote(repo_) + " --data-dir " + quote(data_); }

  brenloc::testing::TempDir dir_;
  const fs::path repo_ = dir_.path() / "repo", data_ = dir_.path() / "data", xdg_ = dir_.path() / "xdg";
};

// Each command line, the exit code it gives and the first line it prints (on stdout for 0, else on stderr).
TEST_F(Cli, EachCommandLineGivesItsExitCodeAndFirstLine) {
  const std::string usage = "brenloc: keeps a symbol index of a repository and serves it to AI assistants over MCP";
  const std::string never = "--repo " + quote(repo_) + " --data-dir " + quote(dir_.path() / "never");
  const struct {
    std::string args;
    int code;
    std::string first_line;  // a regular expression
  } cases[] = {
      {"", 0, usage},
      {"help", 0, usage},
      {"--help", 0, usage},
      {"-V", 0, "brenloc " BRENLOC_VERSION},
      {"--version", 0, "brenloc " BRENLOC_VERSION},
      {"bogus", 64, "brenloc: unknown command 'bogus' \\(see brenloc --help\\)"},
      {"help bogus", 64, "brenloc: unknown command 'bogus' .*"},
      {"status --no-such-option", 64, "brenloc: .*--no-such-option.*"},
      {"reindex --repo /no/such/dir", 64, "brenloc: repository /no/such/dir: .*"},
      {"search", 64, "brenloc: QUERY is required \\(see brenloc help search\\)"},
      {"search --limit abc x", 64, "brenloc: --limit takes a whole number, not 'abc' \\(see brenloc help search\\)"},
      {"search x y", 64, "brenloc: unexpected argument y \\(see brenloc help search\\)"},
      {"search --quiet --verbose x", 64, "brenloc: .*excludes.*"},
      {"status " + never, 1, "brenloc: .* has no index yet \\(data directory .*never\\); run brenloc reindex"},
      {"search " + never + " x", 1, "brenloc: .* has no index yet .*"},
      {"reindex --repo / --data-dir " + quote(dir_.path() / "never"), 64,
       "brenloc: / has no index yet and brenloc will not index it unasked: it is the file system's root; pass "
       "--force to index it anyway"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    Result r = invoke(c.args);
    EXPECT_EQ(r.code, c.code) << r.err;
    const std::string& text = c.code == 0 ? r.out : r.err;
    EXPECT_TRUE(std::regex_match(text.substr(0, text.find('\n')), std::regex(c.first_line))) << text;
    if (c.code != 0) {
      EXPECT_TRUE(r.out.empty()) << r.out;
      EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
    }
  }
  EXPECT_FALSE(fs::exists(dir_.path() / "never")) << "looking created a data directory";
}

TEST_F(Cli, ReindexPrintsTheResponseAndTheOutcomeThenSearchAndStatusSeeTheIndex) {
  Result r = invoke("reindex --clear-existing " + where());
  ASSERT_EQ(r.code, 0) << r.err;
  const auto newline = r.out.find('\n');
  EXPECT_EQ(r.out.substr(0, newline),
            R"({"status":"accepted","message":"Reindexing started in background","clear_existing":true})");
  json o = json::parse(r.out.substr(newline));
  EXPECT_EQ(o["type"], "reindex_complete");
  EXPECT_EQ(o["files_processed"], 2);
  EXPECT_EQ(o["errors"], 0);

  Result bad = invoke("search --limit 0 " + where() + " area");
  EXPECT_EQ(bad.code, 64);
  EXPECT_EQ(bad.err, "brenloc: --limit must be between 1 and 1000\n");

  Result s = invoke("search " + where() + " area");
  ASSERT_EQ(s.code, 0) << s.err;
  json found = json::parse(s.out);
  ASSERT_EQ(found["count"], 1);
  EXPECT_EQ(found["results"][0]["name"], "area");
  EXPECT_EQ(found["results"][0]["path"], "pkg/shapes.py");

  Result st = invoke("status " + where());
  ASSERT_EQ(st.code, 0) << st.err;
  json status = json::parse(st.out);
  EXPECT_EQ(status["files"], 2);
  EXPECT_EQ(status["indexing"], false);
  EXPECT_TRUE(status["rebuild_refusal"].is_null());
  EXPECT_EQ(status["data_dir"], data_.string());
  // A new process still tells what the last pass did.
  EXPECT_EQ(status["last_index"]["files_processed"], 2);
}

TEST_F(Cli, PathsAreReindexedInTheLiveIndexAndPathsOutsideAreRefusedWithExit2) {
  Result r = invoke("reindex " + where() + " pkg");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find(R"("files_processed":1)"), std::string::npos) << r.out;
  for (std::string path : {"../outside", "/etc/passwd"}) {
    r = invoke("reindex " + where() + " " + quote(path));
    EXPECT_EQ(r.code, 2) << path << r.err;
    EXPECT_EQ(r.out, R"({"error":"Path outside repository","status":"failed"})" "\n") << path;
  }
}

// The relevance table through the command line (each tool argument as the option of its name), and the
// outline and source commands, over the demo samples.
TEST_F(Cli, SearchOutlineAndSourceOverTheSamples) {
  const fs::path source_dir = BRENLOC_SOURCE_DIR;
  const std::string samples = "--root " + quote(source_dir / "samples/demo") + " --data-dir " + quote(data_);
  ASSERT_EQ(invoke("reindex " + samples).code, 0);
  std::ifstream in(source_dir / "tests/search_relevance.json");
  const json table = json::parse(in);
  for (const auto& c : table["cases"]) {
    SCOPED_TRACE(c["args"].dump());
    std::string args = "search " + samples;
    for (const auto& [key, value] : c["args"].items()) {
      const std::string text = value.is_string() ? value.get<std::string>() : value.dump();
      args += " " + (key == "query" ? "" : "--" + key + " ") + quote(text);
    }
    Result r = invoke(args);
    ASSERT_EQ(r.code, c["first"].is_null() ? 1 : 0) << r.err;  // as grep: 1 when nothing was found
    const json results = json::parse(r.out)["results"];
    if (c["first"].is_null()) {
      EXPECT_TRUE(results.empty());
      continue;
    }
    ASSERT_FALSE(results.empty());
    const auto text = [](const json& h) { return h["name"].get<std::string>() + " " + h["kind"].get<std::string>() + " " + h["path"].get<std::string>(); };
    EXPECT_EQ(text(results[0]), c["first"].get<std::string>());
    for (const auto& h : results) {
      for (const auto& absent : c["absent"]) EXPECT_NE(text(h), absent.get<std::string>());
    }
  }
  Result outline = invoke("outline " + samples + " python/shop/cart.py");
  ASSERT_EQ(outline.code, 0) << outline.err;
  EXPECT_EQ(json::parse(outline.out)["symbols"][2]["children"][1]["name"], "add");
  Result source = invoke("source " + samples + " Cart.add");
  ASSERT_EQ(source.code, 0) << source.err;
  EXPECT_EQ(json::parse(source.out)["signature"], "def add(self, item):");
  Result by_line = invoke("source " + samples + " --path c/ring.c --line 7");
  EXPECT_EQ(json::parse(by_line.out)["name"], "ring_push");
  Result refused = invoke("outline " + samples + " ../README.md");
  EXPECT_EQ(refused.code, 1);
  EXPECT_EQ(refused.out, "{\n  \"error\": \"Path outside repository\",\n  \"status\": \"failed\"\n}\n");
  EXPECT_EQ(invoke("search " + samples + " --kind klass x").code, 64);
}

// For a person (lines, as grep and ctags -x print them) and for a program (JSON): the first line of
// stdout and of stderr, and the exit code, of each command line.
TEST_F(Cli, LinesForAPersonJsonForAProgramAndExitCodesAsGrepGives) {
  const std::string s = "--root " + quote(fs::path(BRENLOC_SOURCE_DIR) / "samples/demo") + " --data-dir " + quote(data_);
  const struct {
    std::string args;
    int code;
    std::string out, err;  // regular expressions for the first lines
  } cases[] = {
      {"reindex -q --lines " + s, 0, "reindex complete: files_processed 10, .*", ""},
      {"search --lines " + s + " Cart", 0, "python/shop/cart.py:12: class Cart  class Cart:", ""},
      {"search --lines " + s + " --limit 9 --limit 1 add", 0, ".+:\\d+: .+", "brenloc: 1 of \\d+ shown .*"},
      {"search --lines " + s + " zzzz", 1, "", ""},
      {"search --json " + s + " zzzz", 1, "\\{", ""},
      {"search " + s + " --match bogus x", 64, "", "brenloc: --match must be one of: .*"},
      {"outline --lines " + s + " python/shop/cart.py", 0, "python/shop/cart.py:3: constant TAX_RATE", ""},
      {"outline " + s + " python", 64, "", "brenloc: python is a directory: outline takes a file .*"},
      {"source --lines " + s + " Cart.add", 0, "python/shop/cart.py:16-17: method Cart.add", ""},
      {"help search", 0, "Search symbol definitions, best first; exit 1 when none is found", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    Result r = invoke(c.args);
    EXPECT_EQ(r.code, c.code) << r.err;
    EXPECT_TRUE(std::regex_match(r.out.substr(0, r.out.find('\n')), std::regex(c.out))) << r.out;
    EXPECT_TRUE(std::regex_match(r.err.substr(0, r.err.find('\n')), std::regex(c.err))) << r.err;
  }
  EXPECT_NE(invoke("help search").out.find("Usage: brenloc search [OPTIONS] QUERY"), std::string::npos);
}

// A repository root and file names that are not UTF-8, in the command's own process and through the
// daemon: answers name them in their text form (a stray byte as \xHH), and a path is taken either as the
// file system's bytes or in that text form.
TEST_F(Cli, NamesThatAreNotUtf8WorkEndToEnd) {
  const fs::path root = dir_.path() / "r\xe9po";
  brenloc::testing::write_file(root / "b\xff.py", "def odd_name():\n    pass\n");
  brenloc::testing::write_file(root / "d\xfe/x.py", "def in_odd_dir():  # caf\xe9\n    pass\n");
  const fs::path runtime = dir_.path() / "rt";
  fs::create_directories(runtime);
  fs::permissions(runtime, fs::perms::owner_all);
  const std::string env = "XDG_RUNTIME_DIR=" + quote(runtime);
  for (const std::string daemon : {"", "--daemon "}) {
    SCOPED_TRACE(daemon);
    const std::string at = "--repo " + quote(root) + " --data-dir " + quote(data_ / (daemon.empty() ? "own" : "daemon"));
    Result r = invoke("reindex " + daemon + at, env);
    ASSERT_EQ(r.code, 0) << r.err;
    r = invoke("search " + at + " odd_name", env);
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(json::parse(r.out)["results"][0]["path"], "b\\xff.py");
    r = invoke("search " + at + " --path " + quote("d\\xfe/*.py") + " in_odd", env);
    EXPECT_EQ(json::parse(r.out)["count"], 1) << r.out << r.err;
    for (const std::string path : {"b\xff.py", "b\\xff.py"}) {
      r = invoke("outline " + at + " " + quote(path), env);
      ASSERT_EQ(r.code, 0) << r.err;
      EXPECT_EQ(json::parse(r.out)["symbols"][0]["name"], "odd_name");
    }
    r = invoke("source " + at + " --path " + quote("d\xfe/x.py") + " --line 1", env);
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(json::parse(r.out)["signature"], "def in_odd_dir():  # caf\xef\xbf\xbd");
    // --wait: through the daemon, a live pass over the files just written may still run.
    r = invoke("reindex --wait " + at + " " + quote("d\xfe"), env);
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find(R"("files_processed":1)"), std::string::npos) << r.out;
    r = invoke("status " + at, env);
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(json::parse(r.out)["repo_root"], (dir_.path() / "r\\xe9po").string());
    fs::remove(root / "b\xff.py");
    ASSERT_EQ(invoke("reindex --wait " + at, env).code, 0);
    EXPECT_EQ(json::parse(invoke("search " + at + " odd_name", env).out)["count"], 0);
    brenloc::testing::write_file(root / "b\xff.py", "def odd_name():\n    pass\n");
  }
  invoke("daemon --stop", env);
}

TEST_F(Cli, TheDefaultDataDirectoryLiesUnderXdgDataHome) {
  const std::string xdg = "XDG_DATA_HOME=" + quote(xdg_);
  ASSERT_EQ(invoke("reindex --repo " + quote(repo_), xdg).code, 0);
  const std::vector<fs::path> made(fs::directory_iterator(xdg_ / "brenloc"), fs::directory_iterator{});
  ASSERT_EQ(made.size(), 1u);
  EXPECT_TRUE(std::regex_match(made[0].filename().string(), std::regex("repo-[0-9a-f]{8}")));
  EXPECT_TRUE(fs::exists(made[0] / "index.db"));
  // The same root gives the same directory again.
  ASSERT_EQ(invoke("status --repo " + quote(repo_), xdg).code, 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(xdg_ / "brenloc"), fs::directory_iterator()), 1);
}

// Run from a subdirectory with a pared-down environment, a command finds the repository's root and, through
// the daemon, the index the daemon keeps where its own environment says.
TEST_F(Cli, FromASubdirectoryTheRootAndTheDaemonsIndexAreFound) {
  fs::create_directories(repo_ / ".git");
  const fs::path runtime = dir_.path() / "rt";
  fs::create_directories(runtime);
  fs::permissions(runtime, fs::perms::owner_all);
  const std::string rt = "XDG_RUNTIME_DIR=" + quote(runtime);
  ASSERT_EQ(invoke("daemon --detach", rt + " XDG_DATA_HOME=" + quote(xdg_)).code, 0);
  const std::string scrubbed = "cd " + quote(repo_ / "pkg") + " && env -u XDG_DATA_HOME HOME=/nonexistent " + rt;
  Result r = invoke("reindex --quiet", scrubbed);
  EXPECT_EQ(r.code, 0) << r.err;
  r = invoke("status", scrubbed);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "brenloc: repository " + repo_.string() + " (found from " + (repo_ / "pkg").string() + ")\n");
  const json status = json::parse(r.out);
  EXPECT_EQ(status["repo_root"], repo_.string());
  EXPECT_EQ(fs::path(status["data_dir"].get<std::string>()).parent_path(), xdg_ / "brenloc");
  EXPECT_TRUE(fs::exists(fs::path(status["data_dir"].get<std::string>()) / "index.db"));
  EXPECT_EQ(json::parse(invoke("daemon --status", rt).out)["moved_by"],
            json::array({"XDG_RUNTIME_DIR", "XDG_DATA_HOME"}));
  invoke("daemon --stop", rt);
}

TEST_F(Cli, CtrlCDuringAReindexExits130AndSaysWhatBecameOfTheIndex) {
  const fs::path tree = dir_.path() / "tree";
  fs::copy("/usr/include/boost/asio", tree, fs::copy_options::recursive);  // long enough to interrupt
  const fs::path err = dir_.path() / "err";
  const pid_t child = ::fork();
  if (child == 0) {
    const std::string cmd = "exec " + quote(BRENLOC_BINARY) + " reindex --clear-existing --repo " + quote(tree) +
                            " --data-dir " + quote(data_) + " >/dev/null 2>" + quote(err) + " </dev/null";
    ::execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  const auto slurp = [&] {
    std::ifstream in(err);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  for (int i = 0; i < 2000 && slurp().find("progress: ") == std::string::npos; ++i) ::usleep(5000);
  ::kill(child, SIGINT);
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 130);
  const std::string text = slurp();
  EXPECT_TRUE(std::regex_search(text, std::regex("brenloc: interrupted(; the reindex was cancelled and the live index "
                                                 "kept| after the new index was swapped in.*)\n$")))
      << text;
}

// A first indexing killed outright (its uses kept in a table of its connection's own) starts again at the
// next command, which ends with every use: the references of an indexing never interrupted.
TEST_F(Cli, AFirstIndexingKilledIsDoneAgainWithEveryUse) {
  const fs::path tree = dir_.path() / "tree";
  fs::copy("/usr/include/boost/asio", tree, fs::copy_options::recursive);
  const fs::path killed = dir_.path() / "killed", err = dir_.path() / "err";
  const pid_t child = ::fork();
  if (child == 0) {
    const std::string cmd = "exec " + quote(BRENLOC_BINARY) + " reindex --repo " + quote(tree) + " --data-dir " +
                            quote(killed) + " >/dev/null 2>" + quote(err) + " </dev/null";
    ::execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  const std::regex stored("progress: ([1-9][0-9]+)/");  // some store transactions done
  const auto slurp = [&] {
    std::ifstream in(err);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  for (int i = 0; i < 4000 && !std::regex_search(slurp(), stored); ++i) ::usleep(5000);
  ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status)) << slurp();
  const std::string at_killed = "--repo " + quote(tree) + " --data-dir " + quote(killed);
  const std::string at_whole = "--repo " + quote(tree) + " --data-dir " + quote(dir_.path() / "whole");
  ASSERT_EQ(invoke("reindex -q " + at_killed).code, 0);
  ASSERT_EQ(invoke("reindex -q " + at_whole).code, 0);
  // Each use as path:line:column, and the total: all of them in one answer, since the files come in the
  // order they were stored in, which the two runs do not share.
  const auto uses = [&](const std::string& at, const std::string& name) {
    const json answer = json::parse(invoke("refs --json --limit 1000 --max-bytes 1048576 " + at + " " + name).out);
    std::vector<std::string> out{answer["total"].dump()};
    for (const json& file : answer["files"]) {
      for (const json& r : file["references"]) out.push_back(file["path"].get<std::string>() + ":" +
                                                     r["line"].dump() + ":" + r["column"].dump());
    }
    std::sort(out.begin() + 1, out.end());
    return out;
  };
  for (const char* name : {"async_write", "basic_socket", "io_context"}) {
    SCOPED_TRACE(name);
    const auto whole = uses(at_whole, name);
    EXPECT_GT(whole.size(), 10u);
    EXPECT_EQ(uses(at_killed, name), whole);
  }
}

}  // namespace
