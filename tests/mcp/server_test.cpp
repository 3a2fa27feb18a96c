// The MCP server over pipes: bad input and its exact answers, the handshake and tool calls,
// cancellation, concurrent requests, broadcasts, end of input and stopping.
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "server_harness.h"

namespace brenloc::mcp::testing {
namespace {

Json error_reply(const Json& id, int code, const std::string& message) {
  return Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", Json{{"code", code}, {"message", message}}}};
}

Json result_reply(const Json& id, const Json& result) {
  return Json{{"jsonrpc", "2.0"}, {"id", id}, {"result", result}};
}

std::string nested(int depth) { return std::string(depth, '[') + std::string(depth, ']'); }

struct BadInput {
  const char* name;
  std::string line;
  Json reply;
};

TEST(McpServer, AnswersEachBadLineExactlyAndGoesOn) {
  const std::vector<BadInput> cases = {
      {"not json", "hello",
       error_reply(nullptr, kParseError,
                   "Parse error: parse error at line 1, column 1: syntax error while parsing value - invalid "
                   "literal; last read: 'h'")},
      {"truncated", R"({"jsonrpc":"2.0","id":1,)",
       error_reply(nullptr, kParseError,
                   "Parse error: parse error at line 1, column 25: syntax error while parsing object key - "
                   "unexpected end of input; expected string literal")},
      {"bytes that are not UTF-8", "{\"a\":\"\xff\"}",
       error_reply(nullptr, kParseError,
                   "Parse error: parse error at line 1, column 7: syntax error while parsing value - invalid "
                   "string: ill-formed UTF-8 byte; last read: '\"\xef\xbf\xbd'")},
      {"batch", R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])",
       error_reply(nullptr, kInvalidRequest, "Invalid Request: batches are not supported")},
      {"scalar", "42", error_reply(nullptr, kInvalidRequest, "Invalid Request: a message must be a JSON object")},
      {"too deep", nested(129),
       error_reply(nullptr, kInvalidRequest, "Invalid Request: nesting deeper than 128 levels")},
      {"old jsonrpc", R"({"jsonrpc":"1.0","id":1,"method":"ping"})",
       error_reply(1, kInvalidRequest, "Invalid Request: \"jsonrpc\" must be \"2.0\"")},
      {"no jsonrpc", R"({"id":"a","method":"ping"})",
       error_reply("a", kInvalidRequest, "Invalid Request: \"jsonrpc\" must be \"2.0\"")},
      {"object id", R"({"jsonrpc":"2.0","id":{"x":1},"method":"ping"})",
       error_reply(nullptr, kInvalidRequest, "Invalid Request: \"id\" must be a string or an integer")},
      {"fractional id", R"({"jsonrpc":"2.0","id":1.5,"method":"ping"})",
       error_reply(nullptr, kInvalidRequest, "Invalid Request: \"id\" must be a string or an integer")},
      {"null id", R"({"jsonrpc":"2.0","id":null,"method":"ping"})",
       error_reply(nullptr, kInvalidRequest, "Invalid Request: \"id\" must be a string or an integer")},
      {"method not a string", R"({"jsonrpc":"2.0","id":2,"method":7})",
       error_reply(2, kInvalidRequest, "Invalid Request: \"method\" must be a string")},
      {"no method", R"({"jsonrpc":"2.0","id":3})",
       error_reply(3, kInvalidRequest, "Invalid Request: \"method\" must be a string")},
      {"notification without a method", R"({"jsonrpc":"2.0","params":{}})",
       error_reply(nullptr, kInvalidRequest, "Invalid Request: \"method\" must be a string")},
      {"string params", R"({"jsonrpc":"2.0","id":4,"method":"ping","params":"x"})",
       error_reply(4, kInvalidRequest, "Invalid Request: \"params\" must be an object")},
      {"unknown method", R"({"jsonrpc":"2.0","id":5,"method":"resources/list"})",
       error_reply(5, kMethodNotFound, "Method not found: resources/list")},
      {"unknown tool", Harness::request(6, "tools/call", {{"name", "drop_tables"}}),
       error_reply(6, kInvalidParams, "Invalid params: unknown tool 'drop_tables'")},
      {"tool call without a name", Harness::request(7, "tools/call", Json::object()),
       error_reply(7, kInvalidParams, "Invalid params: \"name\" must be a string")},
      {"tool arguments not an object", Harness::request(8, "tools/call", {{"name", "echo"}, {"arguments", {1, 2}}}),
       error_reply(8, kInvalidParams, "Invalid params: \"arguments\" must be an object")},
      {"unknown logging level", Harness::request(9, "logging/setLevel", {{"level", "loud"}}),
       error_reply(9, kInvalidParams,
                   "Invalid params: \"level\" must be one of debug, info, notice, warning, error, critical, alert, "
                   "emergency")},
      {"arguments the tool rejects", Harness::request(10, "tools/call", {{"name", "strict"}}),
       Json{{"jsonrpc", "2.0"},
            {"id", 10},
            {"error",
             {{"code", kInvalidParams},
              {"message", "Invalid params: argument 'limit' must be an integer"},
              {"data", {{"argument", "limit"}}}}}}},
  };
  Harness h;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    h.send(c.line);
    EXPECT_EQ(h.next(), c.reply);
  }
  h.expect_alive();
}

TEST(McpServer, SendsNothingForNotificationsResponsesAndBlankLines) {
  Harness h;
  h.send("");
  h.send("   \r");
  h.send(Harness::notification("notifications/initialized", Json::object()));
  h.send(Harness::notification("notifications/whatever", Json::object()));
  h.send(R"({"jsonrpc":"2.0","id":77,"result":{}})");
  h.send(Harness::notification("notifications/cancelled", {{"requestId", 12345}}));
  h.expect_alive();
}

TEST(McpServer, NegotiatesTheProtocolVersion) {
  const std::vector<std::pair<Json, std::string>> cases = {
      {"2025-11-25", "2025-11-25"}, {"2025-06-18", "2025-06-18"}, {"2025-03-26", "2025-03-26"},
      {"2024-11-05", "2024-11-05"}, {"2024-10-07", "2025-11-25"}, {"1999-01-01", "2025-11-25"},
      {42, "2025-11-25"},           {nullptr, "2025-11-25"},
  };
  Harness h;
  int id = 0;  // 0 first: an id like any other
  for (const auto& [asked, answered] : cases) {
    SCOPED_TRACE(asked.dump());
    Json params = {{"capabilities", Json::object()}, {"clientInfo", {{"name", "t"}, {"version", "1"}}}};
    if (!asked.is_null()) params["protocolVersion"] = asked;
    h.send(Harness::request(id, "initialize", params));
    Json expected = {{"protocolVersion", answered},
                     {"capabilities", {{"tools", Json::object()}, {"logging", Json::object()}}},
                     {"serverInfo", {{"name", "brenloc"}, {"version", BRENLOC_VERSION}}}};
    EXPECT_EQ(h.next(), result_reply(id, expected));
    ++id;
  }
}

TEST(McpServer, ListsTheHostsTools) {
  Harness h;
  h.send(Harness::request(0, "tools/list"));
  // "wait" has no schema of its own: it is listed as taking an object.
  const Json object_schema = {{"type", "object"}};
  Json tools = Json::array(
      {{{"name", "echo"}, {"description", "Returns its arguments"}, {"inputSchema", object_schema}},
       {{"name", "wait"}, {"description", "Waits for the test"}, {"inputSchema", object_schema}}});
  EXPECT_EQ(h.next(), result_reply(0, {{"tools", tools}}));
}

TEST(McpServer, WrapsEachToolOutcome) {
  auto text = [](const std::string& s) { return Json::array({{{"type", "text"}, {"text", s}}}); };
  const Json accepted = {{"status", "accepted"}, {"message", "started"}, {"clear_existing", false}};
  const Json refused = {{"error", "Path outside repository"}, {"status", "failed"}};
  struct Case {
    const char* tool;
    Json result;
  };
  const std::vector<Case> cases = {
      {"ordered", {{"content", text(accepted.dump())}, {"structuredContent", accepted}, {"isError", false}}},
      {"refuse", {{"content", text(refused.dump())}, {"structuredContent", refused}, {"isError", true}}},
      {"fail", {{"content", text("the index is on fire")}, {"isError", true}}},
      {"echo", {{"content", text("{}")}, {"structuredContent", Json::object()}, {"isError", false}}},
  };
  Harness h;
  int id = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tool);
    h.send(Harness::request(id, "tools/call", {{"name", c.tool}}));
    EXPECT_EQ(h.next(), result_reply(id, c.result));
    ++id;
  }
}

TEST(McpServer, RunsASecondCallWhileTheFirstWaits) {
  Harness h;
  h.send(Harness::request(1, "tools/call", {{"name", "wait"}}));
  h.send(Harness::request(2, "tools/call", {{"name", "echo"}, {"arguments", {{"q", "x"}}}}));
  Json second = h.next();
  EXPECT_EQ(second["id"], 2);
  EXPECT_EQ(second["result"]["structuredContent"], (Json{{"q", "x"}}));

  // An id still in use is refused; the running request is not disturbed.
  h.send(Harness::request(1, "ping"));
  EXPECT_EQ(h.next(), error_reply(1, kInvalidRequest, "Invalid Request: id 1 is already in use by a running request"));
  EXPECT_EQ(h.on_loop([&] { return h.server().running_requests(); }), 1u);

  h.on_loop([&] { h.host().open_gate(); });
  Json first = h.next();
  EXPECT_EQ(first["id"], 1);
  EXPECT_EQ(first["result"]["structuredContent"], (Json{{"waited", true}}));
  // Once answered, the id is free again.
  h.expect_alive(1);
}

TEST(McpServer, CancelsOnlyTheNamedRequest) {
  Harness h;
  h.send(Harness::request(0, "tools/call", {{"name", "wait"}}));
  h.send(Harness::request("0", "tools/call", {{"name", "wait"}}));
  h.expect_alive();  // both calls have started by now
  ASSERT_EQ(h.host().started.load(), 2);

  h.send(Harness::notification("notifications/cancelled", {{"requestId", 0}, {"reason", "user"}}));
  h.expect_alive();
  EXPECT_EQ(h.host().cancelled.load(), 1);
  EXPECT_EQ(h.on_loop([&] { return h.server().running_requests(); }), 1u);

  h.on_loop([&] { h.host().open_gate(); });
  Json reply = h.next();  // the cancelled request is never answered, the other one is
  EXPECT_EQ(reply["id"], "0");
  h.expect_alive();
}

TEST(McpServer, CancellingBeforeTheRequestRunsLeavesNoTrace) {
  Harness h;
  // Both lines usually reach the loop in one go, before the request's task has taken its first step.
  h.write_raw(Harness::request(5, "tools/call", {{"name", "wait"}}) + "\n" +
              Harness::notification("notifications/cancelled", {{"requestId", 5}}) + "\n");
  h.expect_alive();
  EXPECT_EQ(h.on_loop([&] { return h.server().running_requests(); }), 0u);
  EXPECT_EQ(h.host().started.load(), h.host().cancelled.load());
  h.expect_alive(5);  // the id is free again
}

TEST(McpServer, ForwardsBroadcastsFilteredByTheClientsLevel) {
  Harness h;
  const Json done = {{"type", "reindex_complete"}, {"files_processed", 3}, {"symbols_added", 9}, {"errors", 0}};
  const Json failed = {{"type", "reindex_failed"}, {"error", "disk full"}};
  auto message = [](const std::string& level, const Json& data) {
    return Json{{"jsonrpc", "2.0"},
                {"method", "notifications/message"},
                {"params", {{"level", level}, {"logger", "brenloc"}, {"data", data}}}};
  };

  h.on_loop([&] { h.host().broadcast("info", done); });
  EXPECT_EQ(h.next(), message("info", done));
  h.on_loop([&] { h.host().broadcast("debug", done); });  // below the default level
  h.on_loop([&] { h.host().broadcast("shouting", done); });  // unknown: goes out as info
  EXPECT_EQ(h.next(), message("info", done));

  h.send(Harness::request(1, "logging/setLevel", {{"level", "error"}}));
  EXPECT_EQ(h.next(), result_reply(1, Json::object()));
  h.on_loop([&] {
    h.host().broadcast("info", done);
    h.host().broadcast("error", failed);
  });
  EXPECT_EQ(h.next(), message("error", failed));

  h.send(Harness::request(2, "logging/setLevel", {{"level", "debug"}}));
  EXPECT_EQ(h.next(), result_reply(2, Json::object()));
  h.on_loop([&] { h.host().broadcast("debug", done); });
  EXPECT_EQ(h.next(), message("debug", done));
}

TEST(McpServer, RefusesOverlongLinesAndReadsOn) {
  ServerOptions options;
  options.max_line_bytes = 100 * 1024;
  Harness h(options);
  std::string big = Harness::request(1, "ping", {{"pad", std::string(300 * 1024, 'x')}});
  // The pipe holds less than the line: write it from another thread while the server reads.
  std::thread writer([&] { h.send(big); });
  EXPECT_EQ(h.next(), error_reply(nullptr, kInvalidRequest,
                                  "Invalid Request: line of " + std::to_string(big.size()) +
                                      " bytes is longer than the limit of 102400 bytes"));
  writer.join();
  h.expect_alive();

  std::string at_limit = Harness::request(2, "ping", {{"pad", ""}});
  at_limit.insert(at_limit.find("\"\"") + 1, options.max_line_bytes - at_limit.size(), 'y');
  ASSERT_EQ(at_limit.size(), options.max_line_bytes);
  std::thread writer2([&] { h.send(at_limit); });
  EXPECT_EQ(h.next(), result_reply(2, Json::object()));
  writer2.join();
}

TEST(McpServer, KeepsServingWhileTheClientDoesNotRead) {
  ServerOptions options;
  options.max_queued_output_bytes = 256 * 1024;
  Harness h(options);
  // Far more output than a pipe holds, with nobody reading it.
  const std::string pad(16 * 1024, 'p');
  const int calls = 64;
  std::thread writer([&] {
    for (int i = 0; i < calls; ++i) {
      h.send(Harness::request(i, "tools/call", {{"name", "echo"}, {"arguments", {{"pad", pad}}}}));
    }
  });
  writer.join();
  // The loop still runs and takes broadcasts: past the limit they are dropped, not queued.
  for (int i = 0; i < 100; ++i) h.on_loop([&] { h.host().broadcast("info", {{"pad", pad}}); });

  int answers = 0;
  int notes = 0;
  while (auto line = h.next_line(1000ms)) {
    Json m = Json::parse(*line);
    if (m.contains("id")) {
      EXPECT_EQ(m["id"], answers);  // in order, none lost
      ++answers;
    } else {
      ++notes;
    }
  }
  EXPECT_EQ(answers, calls);
  EXPECT_LT(notes, 100);
}

TEST(McpServer, ReportsTheEndOfInputAndStillAnswers) {
  Harness h;
  h.send(Harness::request(1, "tools/call", {{"name", "wait"}}));
  h.expect_alive();
  h.close_input();
  for (int i = 0; i < 200 && !h.on_loop([&] { return h.server().input_ended().done(); }); ++i) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_TRUE(h.on_loop([&] { return h.server().input_ended().done(); }));
  h.on_loop([&] { h.host().open_gate(); });
  EXPECT_EQ(h.next()["id"], 1);
}

TEST(McpServer, StopCancelsRunningRequestsAndUnsubscribes) {
  Harness h;
  h.send(Harness::request(1, "tools/call", {{"name", "wait"}}));
  h.expect_alive();
  EXPECT_EQ(h.on_loop([&] { return h.host().sinks.size(); }), 1u);
  h.stop();
  EXPECT_EQ(h.host().cancelled.load(), 1);
  EXPECT_EQ(h.on_loop([&] { return h.host().sinks.size(); }), 0u);
  EXPECT_EQ(h.next_line(200ms), std::nullopt);  // no answer for the cancelled request
}

}  // namespace
}  // namespace brenloc::mcp::testing
