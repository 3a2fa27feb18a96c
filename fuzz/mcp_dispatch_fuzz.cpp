// Fuzz target: what an MCP client writes, through the server's real line reader and request dispatcher.
//
// The input bytes are the whole of the client's input (the last line may lack its newline). A stand-in tool
// host answers at once ("echo", the real argument binder under the schema names, "shout" broadcasting a
// status message) or fails ("fail"). Once the input has ended and no request is running, the server is
// stopped and its output must be well-formed JSON-RPC: one JSON object per line, status notifications aside
// every line an answer (an error, or a result under a request's id), and each input line that asks for an
// answer answered exactly once under its id, or under null when its id could not be read. A request the
// client cancelled is answered at most once. Nothing may crash, leak or hang.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "brenloc/aio/task.h"
#include "brenloc/aio/timer.h"
#include "brenloc/mcp/protocol.h"
#include "brenloc/mcp/server.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool_table.h"
#include "brenloc/utils/logging.h"
#include "fuzz_check.h"

namespace {

namespace mcp = brenloc::mcp;
namespace aio = brenloc::aio;
using OJson = nlohmann::ordered_json;
using Json = nlohmann::json;
using brenloc::fuzz::check;
using brenloc::fuzz::fail;
using brenloc::fuzz::shown;

// Small, so that the fuzzer's inputs reach the refusal of long lines.
constexpr std::size_t kMaxLine = 1024;
constexpr std::size_t kMaxDepth = 128;

constexpr std::string_view kLevels[] = {"debug", "info",     "notice", "warning",
                                        "error", "critical", "alert",  "emergency"};

// The argument lists of three of the worker's tools, by the names of the stand-in tools that bind them.
const brenloc::Arguments& arguments_of(std::string_view name) {
  if (name == "search") return brenloc::tools::find_tool("search_symbols").arguments;
  if (name == "none") return brenloc::tools::find_tool("index_status").arguments;
  return brenloc::argument_list("status");
}

class StandInHost final : public mcp::ToolHost {
 public:
  std::vector<mcp::ToolDescriptor> tools() const override {
    return {{"echo", "Returns its arguments", OJson{{"type", "object"}}},
            {"search", "Binds its arguments", brenloc::input_schema(arguments_of("search"))},
            {"status", "Binds its arguments", brenloc::input_schema(arguments_of("status"))},
            {"none", "Takes no arguments", brenloc::input_schema(arguments_of("none"))},
            {"shout", "Broadcasts its arguments", OJson()},
            {"fail", "Always fails", OJson()}};
  }

  aio::Task<OJson> call_tool(std::string name, OJson arguments) override {
    if (name == "echo") co_return arguments.is_null() ? OJson::object() : arguments;
    if (name == "search" || name == "status" || name == "none") co_return brenloc::bind_arguments(arguments_of(name), arguments);
    if (name == "shout") {
      std::string level = "info";
      if (arguments.is_object() && arguments.contains("level") && arguments["level"].is_string()) {
        level = arguments["level"].get<std::string>();
      }
      for (auto& [id, sink] : sinks_) sink(level, arguments);
      co_return OJson{{"shouted", true}};
    }
    if (name == "fail") throw std::runtime_error("the stand-in tool failed");
    throw mcp::UnknownTool(name);
  }

  int subscribe(mcp::BroadcastSink sink) override {
    sinks_[next_] = std::move(sink);
    return next_++;
  }
  void unsubscribe(int id) override { sinks_.erase(id); }

 private:
  std::map<int, mcp::BroadcastSink> sinks_;
  int next_ = 1;
};

// One client session: start, wait for the end of input and for every request to finish, stop.
aio::Task<void> session(mcp::McpServer* server) {
  server->start();
  co_await server->input_ended();
  while (server->running_requests() > 0) co_await aio::sleep_for(std::chrono::milliseconds(0));
  co_await server->stop();
}

int memory_file(const char* name) {
  const int fd = ::memfd_create(name, MFD_CLOEXEC);
  if (fd < 0) fail("memfd_create failed");
  return fd;
}

void write_all(int fd, const std::uint8_t* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n <= 0) fail("cannot write the input to a memory file");
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

std::string read_all(int fd) {
  std::string out;
  char chunk[65536];
  for (off_t at = 0;;) {
    const ssize_t n = ::pread(fd, chunk, sizeof chunk, at);
    if (n < 0) fail("cannot read the output back");
    if (n == 0) return out;
    out.append(chunk, static_cast<std::size_t>(n));
    at += n;
  }
}

// ---- What the input asks for ----

std::size_t depth(const Json& v) {
  if (!v.is_structured()) return 0;
  std::size_t deepest = 0;
  for (const auto& child : v) deepest = std::max(deepest, depth(child));
  return deepest + 1;
}

std::string key_of(const Json& id) { return id.dump(-1, ' ', false, Json::error_handler_t::replace); }

bool usable_id(const Json& id) { return id.is_string() || id.is_number_integer(); }

struct Asked {
  std::map<std::string, int> answers;  // answers each id must get ("null": lines whose id is unknown)
  std::map<std::string, int> firm;     // of those, the ones no cancellation can take away
  std::set<std::string> cancelled;     // ids the client named in a cancellation
};

// Adds what one input line (without its newline) asks for.
void classify(std::string_view raw, Asked& asked) {
  auto answer = [&](const Json& id, bool cancellable) {
    const std::string key = key_of(id);
    ++asked.answers[key];
    if (!cancellable) ++asked.firm[key];
  };
  if (raw.size() > kMaxLine) return answer(nullptr, false);
  if (raw.find_first_not_of(" \t\r") == std::string_view::npos) return;  // a blank line asks for nothing

  const Json msg = Json::parse(raw.begin(), raw.end(), nullptr, /*allow_exceptions=*/false);
  if (msg.is_discarded() || depth(msg) > kMaxDepth || !msg.is_object()) return answer(nullptr, false);
  Json id = nullptr;
  const bool has_id = msg.contains("id");
  if (has_id) {
    if (!usable_id(msg["id"])) return answer(nullptr, false);
    id = msg["id"];
  }
  if (!msg.contains("jsonrpc") || msg["jsonrpc"] != "2.0") return answer(id, false);
  if (!msg.contains("method")) {
    if (has_id && (msg.contains("result") || msg.contains("error"))) return;  // a response: nobody answers it
    return answer(id, false);
  }
  if (!msg["method"].is_string()) return answer(id, false);
  if (msg.contains("params") && !msg["params"].is_object() && !msg["params"].is_array() && !msg["params"].is_null()) {
    return answer(id, false);
  }
  const std::string method = msg["method"].get<std::string>();
  if (!has_id) {
    if (method == "notifications/cancelled" && msg.contains("params") && msg["params"].is_object() &&
        msg["params"].contains("requestId")) {
      asked.cancelled.insert(key_of(msg["params"]["requestId"]));
    }
    return;
  }
  answer(id, method != "initialize");
}

Asked what_is_asked(std::string_view input) {
  Asked asked;
  while (!input.empty()) {
    const auto nl = input.find('\n');
    classify(input.substr(0, nl), asked);
    if (nl == std::string_view::npos) break;
    input.remove_prefix(nl + 1);
  }
  return asked;
}

// ---- What the server wrote ----

void check_notification(const Json& m, const std::function<std::string()>& where) {
  check(!m.contains("id"), [&] { return where() + ": a notification with an id"; });
  check(m["method"] == "notifications/message", [&] { return where() + ": an unexpected notification"; });
  const Json& p = m.value("params", Json());
  check(p.is_object() && p.contains("data") && p.value("logger", Json()) == "brenloc",
        [&] { return where() + ": a status message without its data or logger"; });
  bool known = false;
  for (auto level : kLevels) known = known || p["level"] == level;
  check(known, [&] { return where() + ": a status message with a level the protocol does not have"; });
}

// Checks one answer and returns the key of its id.
std::string check_answer(const Json& m, const std::function<std::string()>& where) {
  check(m.contains("id"), [&] { return where() + ": an answer without an id"; });
  const Json& id = m["id"];
  check(id.is_null() || usable_id(id),
        [&] { return where() + ": an id that is neither null, a string nor an integer"; });
  check(m.contains("result") != m.contains("error"), [&] { return where() + ": not exactly one of result and error"; });
  check(m.size() == 3, [&] { return where() + ": members other than jsonrpc, id and result or error"; });
  if (m.contains("result")) {
    check(!id.is_null(), [&] { return where() + ": a result under a null id"; });
    check(m["result"].is_object(), [&] { return where() + ": a result that is not an object"; });
  } else {
    const Json& e = m["error"];
    check(e.is_object() && e.contains("code") && e["code"].is_number_integer(),
          [&] { return where() + ": an error without a code"; });
    const auto code = e["code"].get<std::int64_t>();
    check(code == mcp::kParseError || code == mcp::kInvalidRequest || code == mcp::kMethodNotFound ||
              code == mcp::kInvalidParams || code == mcp::kInternalError,
          [&] { return where() + ": an unknown error code"; });
    check(e.contains("message") && e["message"].is_string() && !e["message"].get<std::string>().empty(),
          [&] { return where() + ": an error without a message"; });
    for (const auto& [k, v] : e.items()) {
      check(k == "code" || k == "message" || k == "data", [&] { return where() + ": an error member " + shown(k); });
    }
  }
  return key_of(id);
}

void check_output(std::string_view input, const std::string& output) {
  check(output.empty() || output.back() == '\n', [&] { return "the output ends inside a line: " + shown(output); });
  std::map<std::string, int> got;
  std::string_view rest = output;
  while (!rest.empty()) {
    const auto nl = rest.find('\n');
    const std::string line(rest.substr(0, nl));
    rest.remove_prefix(nl + 1);
    const auto where = [&] { return "output line " + shown(line); };
    const Json m = Json::parse(line, nullptr, /*allow_exceptions=*/false);
    check(!m.is_discarded(), [&] { return where() + ": not JSON (or not UTF-8)"; });
    check(m.is_object() && m.value("jsonrpc", Json()) == "2.0",
          [&] { return where() + ": not a JSON-RPC 2.0 message"; });
    if (m.contains("method")) {
      check_notification(m, where);
    } else {
      ++got[check_answer(m, where)];
    }
  }

  const Asked asked = what_is_asked(input);
  std::set<std::string> keys;
  for (const auto& [k, n] : asked.answers) keys.insert(k);
  for (const auto& [k, n] : got) keys.insert(k);
  for (const auto& key : keys) {
    const int want = asked.answers.contains(key) ? asked.answers.at(key) : 0;
    const int have = got.contains(key) ? got.at(key) : 0;
    const int firm = asked.firm.contains(key) ? asked.firm.at(key) : 0;
    const std::string counts =
        "id " + shown(key) + ": " + std::to_string(have) + " answers for " + std::to_string(want) + " lines";
    if (asked.cancelled.contains(key)) {
      check(have >= firm && have <= want, [&] { return counts + " (" + std::to_string(firm) + " not cancellable)"; });
    } else {
      check(have == want, [&] { return counts; });
    }
  }
}

aio::EventLoop* loop = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Every refused line is logged; the fuzzer's output is no place for that.
  brenloc::utils::get_logger("brenloc.mcp")->set_level(spdlog::level::off);
  loop = new aio::EventLoop(1);  // lives as long as the process: requests may still post to it at exit
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int in = memory_file("mcp-input");
  const int out = memory_file("mcp-output");
  write_all(in, data, size);
  if (::lseek(in, 0, SEEK_SET) != 0) fail("cannot rewind the input");
  {
    StandInHost host;
    mcp::ServerOptions options;
    options.max_line_bytes = kMaxLine;
    mcp::McpServer server(*loop, host, in, out, options);
    aio::run_until_complete(*loop, session(&server));
  }
  const std::string output = read_all(out);
  ::close(in);
  ::close(out);
  check_output(std::string_view(reinterpret_cast<const char*>(data), size), output);
  return 0;
}
