// The MCP server over pipes: the exact answers to bad input and to good requests, calls side by side and
// their cancellation, broadcasts, overlong lines, a client that does not read, end of input and stopping.
#include <sys/socket.h>

#include "server_harness.h"

namespace brenloc::mcp::testing {
namespace {

json error_reply(const json& id, int code, const std::string& message, const json& data = nullptr) {
  json error = {{"code", code}, {"message", message}};
  if (!data.is_null()) error["data"] = data;
  return json{{"jsonrpc", "2.0"}, {"id", id}, {"error", error}};
}

json result_reply(const json& id, const json& result) { return json{{"jsonrpc", "2.0"}, {"id", id}, {"result", result}}; }

json call(const std::string& tool, const json& arguments = nullptr) {
  json params = {{"name", tool}};
  if (!arguments.is_null()) params["arguments"] = arguments;
  return params;
}

TEST(McpServer, AnswersEachLineExactlyAndGoesOnSilentlyPastTheRest) {
  const auto invalid = [](const json& id, const std::string& why) {
    return error_reply(id, kInvalidRequest, "Invalid Request: " + why);
  };
  const auto invalid_params = [](const json& id, const std::string& why, const json& data = nullptr) {
    return error_reply(id, kInvalidParams, "Invalid params: " + why, data);
  };
  const std::string bad_id = "\"id\" must be a string or an integer", no_method = "\"method\" must be a string";
  const std::string bad_version = "\"jsonrpc\" must be \"2.0\"";
  std::vector<std::pair<std::string, json>> cases = {
      {R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])", invalid(nullptr, "batches are not supported")},
      {"42", invalid(nullptr, "a message must be a JSON object")},
      {std::string(129, '[') + std::string(129, ']'), invalid(nullptr, "nesting deeper than 128 levels")},
      {R"({"id":"a","method":"ping"})", invalid("a", bad_version)},
      {R"({"jsonrpc":"2.0","id":1.5,"method":"ping"})", invalid(nullptr, bad_id)},
      {R"({"jsonrpc":"2.0","id":null,"method":"ping"})", invalid(nullptr, bad_id)},
      {R"({"jsonrpc":"2.0","id":2,"method":7})", invalid(2, no_method)},
      {R"({"jsonrpc":"2.0","id":3})", invalid(3, no_method)},
      {R"({"jsonrpc":"2.0","params":{}})", invalid(nullptr, no_method)},
      {R"({"jsonrpc":"2.0","id":4,"method":"ping","params":"x"})", invalid(4, "\"params\" must be an object")},
      {R"({"jsonrpc":"2.0","id":5,"method":"resources/list"})",
       error_reply(5, kMethodNotFound, "Method not found: resources/list")},
      {request(7, "tools/call", json::object()), invalid_params(7, "\"name\" must be a string")},
      {request(8, "tools/call", call("echo", {1, 2})), invalid_params(8, "\"arguments\" must be an object")},
      {request(9, "logging/setLevel", {{"level", "loud"}}),
       invalid_params(9, "\"level\" must be one of debug, info, notice, warning, error, critical, alert, emergency")},
      // Bad arguments are the tool's answer, for the model to read and correct.
      {request(10, "tools/call", call("strict")),
       result_reply(10, {{"content", {{{"type", "text"}, {"text", "Invalid arguments for strict: argument 'limit' must be an integer"}}}},
                         {"isError", true}})},
  };
  // Good requests, with ids from 0 (an id like any other) up.
  int id = 0;
  const auto good = [&](const std::string& method, const json& params, const json& result) {
    cases.emplace_back(request(id, method, params), result_reply(id, result));
    ++id;
  };
  const std::vector<std::pair<json, std::string>> versions = {
      {"2025-11-25", "2025-11-25"}, {"2025-06-18", "2025-06-18"}, {"2025-03-26", "2025-03-26"},
      {"2024-11-05", "2024-11-05"}, {"2024-10-07", "2025-11-25"}, {42, "2025-11-25"},
      {nullptr, "2025-11-25"},
  };
  for (const auto& [asked, answered] : versions) {
    json params = {{"capabilities", json::object()}, {"clientInfo", {{"name", "t"}, {"version", "1"}}}};
    if (!asked.is_null()) params["protocolVersion"] = asked;
    good("initialize", params,
         {{"protocolVersion", answered},
          {"capabilities", {{"tools", json::object()}, {"logging", json::object()}}},
          {"serverInfo", {{"name", "brenloc"}, {"version", BRENLOC_VERSION}}}});
  }
  const auto tool = [](const std::string& name, const std::string& description) {
    return json{{"name", name}, {"description", description}, {"inputSchema", {{"type", "object"}}}};
  };
  // "wait", which has no schema of its own, gets the object schema too.
  good("tools/list", nullptr,
       {{"tools", json::array({tool("echo", "Returns its arguments"), tool("wait", "Waits for the test")})}});
  // A tool's dictionary with an "error" key is an error (that it keeps its key order, the end-to-end tests see).
  const auto text = [](const std::string& s) { return json::array({{{"type", "text"}, {"text", s}}}); };
  const auto dictionary = [&](const json& d, bool error) {
    return json{{"content", text(d.dump())}, {"structuredContent", d}, {"isError", error}};
  };
  const json refused = {{"error", "Path outside repository"}, {"status", "failed"}};
  good("tools/call", call("echo", refused), dictionary(refused, true));
  good("tools/call", call("fail"), {{"content", text("the index is on fire")}, {"isError", true}});
  good("tools/call", call("echo"), dictionary(json::object(), false));
  good("logging/setLevel", {{"level", "warning"}}, json::object());

  Harness h;
  h.send("{\"a\":\"\xff\"}");  // not UTF-8; the parser's own words follow the prefix
  const json parse_error = h.next();
  EXPECT_EQ(parse_error["id"], nullptr);
  EXPECT_EQ(parse_error["error"]["code"], kParseError);
  EXPECT_TRUE(parse_error["error"]["message"].get<std::string>().starts_with("Parse error: ")) << parse_error;
  for (const auto& [line, reply] : cases) {
    SCOPED_TRACE(line);
    h.send(line);
    EXPECT_EQ(h.next(), reply);
  }
  // Notifications, responses and blank lines are not answered.
  for (const std::string line : {"", "   \r", R"({"jsonrpc":"2.0","id":77,"result":{}})"}) h.send(line);
  h.send(notification("notifications/initialized", json::object()));
  h.send(notification("notifications/whatever", json::object()));
  h.send(notification("notifications/cancelled", {{"requestId", 12345}}));
  h.expect_alive();
}

TEST(McpServer, RunsCallsSideBySideAndCancelsOnlyTheNamedOne) {
  Harness h;
  // Cancelled before its task has taken a first step (both lines usually reach the loop in one go): no trace.
  h.in.write(request(5, "tools/call", call("wait")) + "\n" +
             notification("notifications/cancelled", {{"requestId", 5}}) + "\n");
  h.expect_alive();
  EXPECT_EQ(h.running(), 0u);
  const int before = h.host.started;
  EXPECT_EQ(before, h.host.cancelled.load());
  h.expect_alive(5);  // the id is free again

  h.send(request(0, "tools/call", call("wait")));
  h.send(request("0", "tools/call", call("wait")));
  h.send(request(2, "tools/call", call("echo", {{"q", "x"}})));
  json echo = h.next();  // while both wait
  EXPECT_EQ(echo["id"], 2);
  EXPECT_EQ(echo["result"]["structuredContent"], (json{{"q", "x"}}));
  h.expect_alive();
  ASSERT_EQ(h.host.started.load(), before + 2);

  // An id still in use is refused; the running request is not disturbed.
  h.send(request(0, "ping"));
  EXPECT_EQ(h.next(), error_reply(0, kInvalidRequest, "Invalid Request: id 0 is already in use by a running request"));
  EXPECT_EQ(h.running(), 2u);

  h.send(notification("notifications/cancelled", {{"requestId", 0}, {"reason", "user"}}));
  h.expect_alive();
  EXPECT_EQ(h.host.cancelled.load(), before + 1);
  EXPECT_EQ(h.running(), 1u);
  h.on_loop([&] { h.host.gate_state->set_result(); });
  json reply = h.next();  // the cancelled request is never answered, the other one is
  EXPECT_EQ(reply["id"], "0");
  EXPECT_EQ(reply["result"]["structuredContent"], (json{{"waited", true}}));
  h.expect_alive(0);  // both ids are free again
  h.expect_alive("0");
}

TEST(McpServer, RefusesOverlongLinesAndKeepsServingAClientThatDoesNotRead) {
  ServerOptions options;
  options.max_line_bytes = 100 * 1024;
  options.max_queued_output_bytes = 256 * 1024;
  Harness h(options);
  const std::string big = request(1, "ping", {{"pad", std::string(300 * 1024, 'x')}});
  std::string at_limit = request(2, "ping", {{"pad", ""}});
  at_limit.insert(at_limit.find("\"\"") + 1, options.max_line_bytes - at_limit.size(), 'y');
  // The pipe holds less than these lines: write them from another thread while the server reads.
  std::thread writer([&] { h.in.write(big + "\n" + at_limit + "\n"); });
  EXPECT_EQ(h.next(), error_reply(nullptr, kInvalidRequest,
                                  "Invalid Request: line of " + std::to_string(big.size()) +
                                      " bytes is longer than the limit of 102400 bytes"));
  EXPECT_EQ(h.next(), result_reply(2, json::object()));
  writer.join();

  // Far more output than a pipe holds, with nobody reading it: the server takes in no more requests than
  // its limit, and the rest wait in the client's pipe.
  const std::string pad(16 * 1024, 'p');
  const int calls = 64;
  std::thread flood([&] {
    for (int i = 0; i < calls; ++i) h.send(request(i, "tools/call", call("echo", {{"pad", pad}})));
  });
  for (int i = 0; i < 200 && h.in_flight() < kMaxRequestsInFlight; ++i) std::this_thread::sleep_for(5ms);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(h.in_flight(), kMaxRequestsInFlight);
  // The loop still runs and takes broadcasts: past the limit they are dropped, not queued.
  for (int i = 0; i < 100; ++i) h.on_loop([&] { h.host.broadcast("info", {{"pad", pad}}); });

  int answers = 0, notes = 0;
  while (auto line = h.out.next_line(1000ms)) {
    const json m = json::parse(*line);
    if (m.contains("id")) EXPECT_EQ(m["id"], answers++);  // in order, none lost
    else ++notes;
  }
  flood.join();
  EXPECT_EQ(answers, calls);
  EXPECT_LT(notes, 100);
  EXPECT_EQ(h.in_flight(), 0u);
}

// A client on a socket that hangs up while its requests wait: the input ends at once, though the socket
// still holds requests that were never read, and stopping cancels only what was taken in.
TEST(McpServer, TakesInAtMostItsLimitAndDropsAHungUpClientAtOnce) {
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
  Harness h({}, sv[1]);
  std::string lines;
  for (int i = 0; i < 100; ++i) lines += request(i, "tools/call", call("wait", {{"forever", true}})) + "\n";
  ASSERT_EQ(::write(sv[0], lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
  for (int i = 0; i < 200 && h.host.started < static_cast<int>(kMaxRequestsInFlight); ++i) {
    std::this_thread::sleep_for(5ms);
  }
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(h.host.started.load(), static_cast<int>(kMaxRequestsInFlight));
  ::close(sv[0]);
  const auto ended = [&] { return h.on_loop([&] { return h.server.input_ended().done(); }); };
  for (int i = 0; i < 200 && !ended(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(ended());
  h.stop();
  EXPECT_EQ(h.host.cancelled.load(), static_cast<int>(kMaxRequestsInFlight));
  ::close(sv[1]);
}

// The host's broadcasts reach the client, filtered by the level it sets, until the server stops.
TEST(McpServer, ForwardsBroadcastsAnswersAfterTheEndOfInputAndStopCancelsWhatStillRuns) {
  Harness h;
  const json done = {{"type", "reindex_complete"}, {"files_processed", 3}, {"symbols_added", 9}, {"errors", 0}};
  const json failed = {{"type", "reindex_failed"}, {"error", "disk full"}};
  const auto message = [](const std::string& level, const json& data) {
    return json{{"jsonrpc", "2.0"},
                {"method", "notifications/message"},
                {"params", {{"level", level}, {"logger", "brenloc"}, {"data", data}}}};
  };
  const auto broadcast = [&](const std::string& level, const json& data) {
    h.on_loop([&] { h.host.broadcast(level, data); });
  };
  broadcast("info", done);
  EXPECT_EQ(h.next(), message("info", done));
  broadcast("debug", done);     // below the default level
  broadcast("shouting", done);  // unknown: goes out as info
  EXPECT_EQ(h.next(), message("info", done));

  for (const std::string level : {"error", "debug"}) {
    h.send(request(level, "logging/setLevel", {{"level", level}}));
    EXPECT_EQ(h.next(), result_reply(level, json::object()));
    broadcast("info", done);
    broadcast(level, failed);
    if (level == "debug") EXPECT_EQ(h.next(), message("info", done));
    EXPECT_EQ(h.next(), message(level, failed));
  }

  h.send(request(1, "tools/call", call("wait")));
  h.send(request(2, "tools/call", call("wait", {{"forever", true}})));
  h.expect_alive();
  h.in.close_write();
  const auto ended = [&] { return h.on_loop([&] { return h.server.input_ended().done(); }); };
  for (int i = 0; i < 200 && !ended(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(ended());
  h.on_loop([&] { h.host.gate_state->set_result(); });
  EXPECT_EQ(h.next()["id"], 1);

  h.stop();
  EXPECT_EQ(h.host.cancelled.load(), 1);
  EXPECT_EQ(h.on_loop([&] { return h.host.sinks.size(); }), 0u);
  EXPECT_EQ(h.out.next_line(200ms), std::nullopt);  // no answer for the cancelled request
}

}  // namespace
}  // namespace brenloc::mcp::testing
