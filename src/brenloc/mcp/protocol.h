// The MCP wire format as the server sees it: one JSON-RPC 2.0 message per line, classified into
// requests, notifications and client responses, and the messages the server writes back.
//
// Everything here is pure: no I/O, no event loop. The server (server.h) decides what to do with a
// message; this file only says what a line is and how an answer is spelt.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brenloc/json.h"

#include "brenloc/mcp/tool_host.h"

namespace brenloc::mcp {


// JSON-RPC error codes.
enum ErrorCode : int {
  kParseError = -32700,
  kInvalidRequest = -32600,
  kMethodNotFound = -32601,
  kInvalidParams = -32602,
  kInternalError = -32603,
};

// The protocol version answered to a client that asks for one this server does not speak.
inline constexpr std::string_view kLatestProtocolVersion = "2025-11-25";

// The protocol versions this server speaks, newest first.
const std::vector<std::string_view>& supported_protocol_versions();

// The version to answer in `initialize`: the client's when this server speaks it, else the latest.
std::string negotiate_protocol_version(const json& requested);

// MCP logging levels, in rising severity: debug, info, notice, warning, error, critical, alert,
// emergency. The rank of an unknown name is nullopt.
std::optional<int> level_rank(std::string_view level);

// Limits on a line's structure, checked before it is parsed: deeper nesting than this would make the
// recursive parts of JSON handling (copies, conversion, output) run out of stack.
struct ShapeLimits {
  std::size_t max_depth = 128;
};

// The reason to refuse `text` without parsing it, or nullopt. Looks only at brackets outside strings,
// so it is cheap and never fails on malformed input (the parser reports that).
std::optional<std::string> check_shape(std::string_view text, const ShapeLimits& limits);

// One line, classified.
struct Incoming {
  enum class Kind {
    request,       // has an id and a method: answered exactly once (unless cancelled)
    notification,  // a method and no id: never answered
    response,      // a client's answer to a server request: the server sends none, so it is dropped
    invalid,       // answered with `error_code` and `error_message`, under `id` (null when unknown)
  };
  Kind kind = Kind::invalid;
  json id;             // null when absent or unusable
  std::string method;  // request and notification
  json params;         // null when absent
  json result;         // a response's result; null for an error
  int error_code = 0;
  std::string error_message;
};

// Parses and classifies one line (without its newline). Never throws on bad input.
Incoming parse_message(std::string_view line, const ShapeLimits& limits = {});

// A string key for an id: ids 1 and "1" are different requests, and id 0 is an id like any other.
std::string id_key(const json& id);

// Outgoing messages.
json make_result(const json& id, json result);
json make_error(const json& id, int code, std::string message, json data = nullptr);
json make_notification(std::string method, json params);

// The result of `tools/call` for a tool's response dictionary: the dictionary itself as
// structuredContent, the same JSON as the one text item of content, and isError when the dictionary
// has an "error" key.
json tool_call_result(json dictionary);
// The result of `tools/call` when the tool failed with an error: its text, flagged as an error.
json tool_failure_result(const std::string& text);
// The result of `tools/list`.
json tool_listing(const std::vector<ToolDescriptor>& tools);
// The result of `initialize`, with `instructions` for the model when not empty.
json initialize_result(const json& params, const std::string& instructions = {});

// One line of output, without the newline: compact JSON, bytes that are not UTF-8 replaced.
std::string serialize(const json& message);

}  // namespace brenloc::mcp
