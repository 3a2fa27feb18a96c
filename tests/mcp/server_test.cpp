// The MCP server over pipes: bad input and its exact answers, the exact answers to good requests,
// calls side by side and their cancellation, broadcasts, overlong lines, a client that does not read,
// end of input and stopping.
#include "server_harness.h"

namespace brenloc::mcp::testing {
namespace {

Json error_reply(const Json& id, int code, const std::string& message, const Json& data = nullptr) {
  Json error = {{"code", code}, {"message", message}};
  if (!data.is_null()) error["data"] = data;
  return Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", error}};
}

Json result_reply(const Json& id, const Json& result) { return Json{{"jsonrpc", "2.0"}, {"id", id}, {"result", result}}; }

Json call(const std::string& tool, const Json& arguments = nullptr) {
  Json params = {{"name", tool}};
  if (!arguments.is_null()) params["arguments"] = arguments;
  return params;
}

TEST(McpServer, AnswersEachBadLineExactlyAndGoesOnSilentlyPastTheRest) {
  struct Case {
    std::string line;
    Json id;
    int code;
    std::string message;
    Json data = nullptr;
  };
  const std::string bad_id = "Invalid Request: \"id\" must be a string or an integer";
  const std::string no_method = "Invalid Request: \"method\" must be a string";
  const std::string bad_version = "Invalid Request: \"jsonrpc\" must be \"2.0\"";
  const std::vector<Case> cases = {
      {"hello", nullptr, kParseError,
       "Parse error: parse error at line 1, column 1: syntax error while parsing value - invalid literal; last read: 'h'"},
      {"{\"a\":\"\xff\"}", nullptr, kParseError,  // not UTF-8
       "Parse error: parse error at line 1, column 7: syntax error while parsing value - invalid string: ill-formed "
       "UTF-8 byte; last read: '\"\xef\xbf\xbd'"},
      {R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])", nullptr, kInvalidRequest,
       "Invalid Request: batches are not supported"},
      {"42", nullptr, kInvalidRequest, "Invalid Request: a message must be a JSON object"},
      {std::string(129, '[') + std::string(129, ']'), nullptr, kInvalidRequest,
       "Invalid Request: nesting deeper than 128 levels"},
      {R"({"jsonrpc":"1.0","id":1,"method":"ping"})", 1, kInvalidRequest, bad_version},
      {R"({"id":"a","method":"ping"})", "a", kInvalidRequest, bad_version},
      {R"({"jsonrpc":"2.0","id":1.5,"method":"ping"})", nullptr, kInvalidRequest, bad_id},
      {R"({"jsonrpc":"2.0","id":null,"method":"ping"})", nullptr, kInvalidRequest, bad_id},
      {R"({"jsonrpc":"2.0","id":2,"method":7})", 2, kInvalidRequest, no_method},
      {R"({"jsonrpc":"2.0","id":3})", 3, kInvalidRequest, no_method},
      {R"({"jsonrpc":"2.0","params":{}})", nullptr, kInvalidRequest, no_method},
      {R"({"jsonrpc":"2.0","id":4,"method":"ping","params":"x"})", 4, kInvalidRequest,
       "Invalid Request: \"params\" must be an object"},
      {R"({"jsonrpc":"2.0","id":5,"method":"resources/list"})", 5, kMethodNotFound, "Method not found: resources/list"},
      {Harness::request(6, "tools/call", call("drop_tables")), 6, kInvalidParams,
       "Invalid params: unknown tool 'drop_tables'"},
      {Harness::request(7, "tools/call", Json::object()), 7, kInvalidParams,
       "Invalid params: \"name\" must be a string"},
      {Harness::request(8, "tools/call", call("echo", {1, 2})), 8, kInvalidParams,
       "Invalid params: \"arguments\" must be an object"},
      {Harness::request(9, "logging/setLevel", {{"level", "loud"}}), 9, kInvalidParams,
       "Invalid params: \"level\" must be one of debug, info, notice, warning, error, critical, alert, emergency"},
      {Harness::request(10, "tools/call", call("strict")), 10, kInvalidParams,
       "Invalid params: argument 'limit' must be an integer", {{"argument", "limit"}}},
  };
  Harness h;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    h.send(c.line);
    EXPECT_EQ(h.next(), error_reply(c.id, c.code, c.message, c.data));
  }
  // Notifications, responses and blank lines are not answered.
  for (const std::string line : {"", "   \r", R"({"jsonrpc":"2.0","id":77,"result":{}})"}) h.send(line);
  h.send(Harness::notification("notifications/initialized", Json::object()));
  h.send(Harness::notification("notifications/whatever", Json::object()));
  h.send(Harness::notification("notifications/cancelled", {{"requestId", 12345}}));
  h.expect_alive();
}

TEST(McpServer, AnswersEachRequestExactly) {
  struct Case {
    std::string method;
    Json params;
    Json result;
  };
  std::vector<Case> cases;
  const std::vector<std::pair<Json, std::string>> versions = {
      {"2025-11-25", "2025-11-25"}, {"2025-06-18", "2025-06-18"}, {"2025-03-26", "2025-03-26"},
      {"2024-11-05", "2024-11-05"}, {"2024-10-07", "2025-11-25"}, {42, "2025-11-25"},
      {nullptr, "2025-11-25"},
  };
  for (const auto& [asked, answered] : versions) {
    Json params = {{"capabilities", Json::object()}, {"clientInfo", {{"name", "t"}, {"version", "1"}}}};
    if (!asked.is_null()) params["protocolVersion"] = asked;
    cases.push_back({"initialize", params,
                     {{"protocolVersion", answered},
                      {"capabilities", {{"tools", Json::object()}, {"logging", Json::object()}}},
                      {"serverInfo", {{"name", "brenloc"}, {"version", BRENLOC_VERSION}}}}});
  }
  const Json object_schema = {{"type", "object"}};  // also for "wait", which has no schema of its own
  cases.push_back({"tools/list", nullptr,
                   {{"tools", Json::array({{{"name", "echo"}, {"description", "Returns its arguments"},
                                            {"inputSchema", object_schema}},
                                           {{"name", "wait"}, {"description", "Waits for the test"},
                                            {"inputSchema", object_schema}}})}}});
  // A tool's dictionary keeps its key order; one with an "error" key is an error.
  const auto text = [](const std::string& s) { return Json::array({{{"type", "text"}, {"text", s}}}); };
  const Json accepted = {{"status", "accepted"}, {"message", "started"}, {"clear_existing", false}};
  const Json refused = {{"error", "Path outside repository"}, {"status", "failed"}};
  cases.push_back({"tools/call", call("ordered"),
                   {{"content", text(accepted.dump())}, {"structuredContent", accepted}, {"isError", false}}});
  cases.push_back({"tools/call", call("refuse"),
                   {{"content", text(refused.dump())}, {"structuredContent", refused}, {"isError", true}}});
  cases.push_back({"tools/call", call("fail"), {{"content", text("the index is on fire")}, {"isError", true}}});
  cases.push_back(
      {"tools/call", call("echo"), {{"content", text("{}")}, {"structuredContent", Json::object()}, {"isError", false}}});
  cases.push_back({"logging/setLevel", {{"level", "warning"}}, Json::object()});
  Harness h;
  int id = 0;  // 0 first: an id like any other
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method + " " + c.params.dump());
    h.send(Harness::request(id, c.method, c.params));
    EXPECT_EQ(h.next(), result_reply(id, c.result));
    ++id;
  }
}

TEST(McpServer, RunsCallsSideBySideAndCancelsOnlyTheNamedOne) {
  Harness h;
  h.send(Harness::request(0, "tools/call", call("wait")));
  h.send(Harness::request("0", "tools/call", call("wait")));
  h.send(Harness::request(2, "tools/call", call("echo", {{"q", "x"}})));
  Json echo = h.next();  // while both wait
  EXPECT_EQ(echo["id"], 2);
  EXPECT_EQ(echo["result"]["structuredContent"], (Json{{"q", "x"}}));
  h.expect_alive();
  ASSERT_EQ(h.host().started.load(), 2);

  // An id still in use is refused; the running request is not disturbed.
  h.send(Harness::request(0, "ping"));
  EXPECT_EQ(h.next(), error_reply(0, kInvalidRequest, "Invalid Request: id 0 is already in use by a running request"));
  EXPECT_EQ(h.running(), 2u);

  h.send(Harness::notification("notifications/cancelled", {{"requestId", 0}, {"reason", "user"}}));
  h.expect_alive();
  EXPECT_EQ(h.host().cancelled.load(), 1);
  EXPECT_EQ(h.running(), 1u);
  h.on_loop([&] { h.host().open_gate(); });
  Json reply = h.next();  // the cancelled request is never answered, the other one is
  EXPECT_EQ(reply["id"], "0");
  EXPECT_EQ(reply["result"]["structuredContent"], (Json{{"waited", true}}));
  h.expect_alive(0);  // both ids are free again
  h.expect_alive("0");
}

TEST(McpServer, CancellingBeforeTheRequestRunsLeavesNoTrace) {
  Harness h;
  // Both lines usually reach the loop in one go, before the request's task has taken its first step.
  h.in.write(Harness::request(5, "tools/call", call("wait")) + "\n" +
              Harness::notification("notifications/cancelled", {{"requestId", 5}}) + "\n");
  h.expect_alive();
  EXPECT_EQ(h.running(), 0u);
  EXPECT_EQ(h.host().started.load(), h.host().cancelled.load());
  h.expect_alive(5);  // the id is free again
}

TEST(McpServer, ForwardsBroadcastsFilteredByTheClientsLevel) {
  Harness h;
  const Json done = {{"type", "reindex_complete"}, {"files_processed", 3}, {"symbols_added", 9}, {"errors", 0}};
  const Json failed = {{"type", "reindex_failed"}, {"error", "disk full"}};
  const auto message = [](const std::string& level, const Json& data) {
    return Json{{"jsonrpc", "2.0"},
                {"method", "notifications/message"},
                {"params", {{"level", level}, {"logger", "brenloc"}, {"data", data}}}};
  };
  const auto broadcast = [&](const std::string& level, const Json& data) {
    h.on_loop([&] { h.host().broadcast(level, data); });
  };
  broadcast("info", done);
  EXPECT_EQ(h.next(), message("info", done));
  broadcast("debug", done);     // below the default level
  broadcast("shouting", done);  // unknown: goes out as info
  EXPECT_EQ(h.next(), message("info", done));

  for (const std::string level : {"error", "debug"}) {
    h.send(Harness::request(level, "logging/setLevel", {{"level", level}}));
    EXPECT_EQ(h.next(), result_reply(level, Json::object()));
    broadcast("info", done);
    broadcast(level, failed);
    if (level == "debug") EXPECT_EQ(h.next(), message("info", done));
    EXPECT_EQ(h.next(), message(level, failed));
  }
}

TEST(McpServer, RefusesOverlongLinesAndReadsOn) {
  ServerOptions options;
  options.max_line_bytes = 100 * 1024;
  Harness h(options);
  const std::string big = Harness::request(1, "ping", {{"pad", std::string(300 * 1024, 'x')}});
  std::string at_limit = Harness::request(2, "ping", {{"pad", ""}});
  at_limit.insert(at_limit.find("\"\"") + 1, options.max_line_bytes - at_limit.size(), 'y');
  // The pipe holds less than these lines: write them from another thread while the server reads.
  std::thread writer([&] { h.in.write(big + "\n" + at_limit + "\n"); });
  EXPECT_EQ(h.next(), error_reply(nullptr, kInvalidRequest,
                                  "Invalid Request: line of " + std::to_string(big.size()) +
                                      " bytes is longer than the limit of 102400 bytes"));
  EXPECT_EQ(h.next(), result_reply(2, Json::object()));
  writer.join();
}

TEST(McpServer, KeepsServingWhileTheClientDoesNotRead) {
  ServerOptions options;
  options.max_queued_output_bytes = 256 * 1024;
  Harness h(options);
  // Far more output than a pipe holds, with nobody reading it.
  const std::string pad(16 * 1024, 'p');
  const int calls = 64;
  for (int i = 0; i < calls; ++i) h.send(Harness::request(i, "tools/call", call("echo", {{"pad", pad}})));
  // The loop still runs and takes broadcasts: past the limit they are dropped, not queued.
  for (int i = 0; i < 100; ++i) h.on_loop([&] { h.host().broadcast("info", {{"pad", pad}}); });

  int answers = 0, notes = 0;
  while (auto line = h.out.next_line(1000ms)) {
    const Json m = Json::parse(*line);
    if (m.contains("id")) EXPECT_EQ(m["id"], answers++);  // in order, none lost
    else ++notes;
  }
  EXPECT_EQ(answers, calls);
  EXPECT_LT(notes, 100);
}

TEST(McpServer, ReportsTheEndOfInputAndStillAnswers) {
  Harness h;
  h.send(Harness::request(1, "tools/call", call("wait")));
  h.expect_alive();
  h.in.close_write();
  const auto ended = [&] { return h.on_loop([&] { return h.server().input_ended().done(); }); };
  for (int i = 0; i < 200 && !ended(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(ended());
  h.on_loop([&] { h.host().open_gate(); });
  EXPECT_EQ(h.next()["id"], 1);
}

TEST(McpServer, StopCancelsRunningRequestsAndUnsubscribes) {
  Harness h;
  h.send(Harness::request(1, "tools/call", call("wait")));
  h.expect_alive();
  EXPECT_EQ(h.on_loop([&] { return h.host().sinks.size(); }), 1u);
  h.stop();
  EXPECT_EQ(h.host().cancelled.load(), 1);
  EXPECT_EQ(h.on_loop([&] { return h.host().sinks.size(); }), 0u);
  EXPECT_EQ(h.out.next_line(200ms), std::nullopt);  // no answer for the cancelled request
}

}  // namespace
}  // namespace brenloc::mcp::testing
