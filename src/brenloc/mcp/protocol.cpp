#include "brenloc/mcp/protocol.h"

#include <array>

namespace brenloc::mcp {

namespace {

constexpr std::array<std::string_view, 8> kLevels = {"debug",    "info",  "notice", "warning",
                                                    "error",    "critical", "alert", "emergency"};

// Parser messages quote what they last read, which for an unterminated string is the rest of the line.
constexpr std::size_t kMaxDetail = 200;

Incoming invalid(json id, int code, std::string message) {
  Incoming m;
  m.kind = Incoming::Kind::invalid;
  m.id = std::move(id);
  m.error_code = code;
  m.error_message = std::move(message);
  return m;
}

bool usable_id(const json& id) { return id.is_string() || id.is_number_integer(); }

// "[json.exception.parse_error.101] parse error at ...": the part after the tag, shortened.
std::string parser_detail(const char* what) {
  std::string_view text(what);
  if (!text.empty() && text.front() == '[') {
    auto close = text.find("] ");
    if (close != std::string_view::npos) text.remove_prefix(close + 2);
  }
  std::string out(text.substr(0, kMaxDetail));
  if (text.size() > kMaxDetail) out += "...";
  return out;
}

}  // namespace

const std::vector<std::string_view>& supported_protocol_versions() {
  static const std::vector<std::string_view> versions = {kLatestProtocolVersion, "2025-06-18", "2025-03-26",
                                                         "2024-11-05"};
  return versions;
}

std::string negotiate_protocol_version(const json& requested) {
  if (requested.is_string()) {
    const auto& wanted = requested.get_ref<const std::string&>();
    for (auto v : supported_protocol_versions()) {
      if (v == wanted) return wanted;
    }
  }
  return std::string(kLatestProtocolVersion);
}

std::optional<int> level_rank(std::string_view level) {
  for (std::size_t i = 0; i < kLevels.size(); ++i) {
    if (kLevels[i] == level) return static_cast<int>(i);
  }
  return std::nullopt;
}

std::optional<std::string> check_shape(std::string_view text, const ShapeLimits& limits) {
  std::size_t depth = 0;
  bool in_string = false;
  bool escaped = false;
  for (char c : text) {
    if (in_string) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        in_string = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        in_string = true;
        break;
      case '[':
      case '{':
        if (++depth > limits.max_depth) {
          return "nesting deeper than " + std::to_string(limits.max_depth) + " levels";
        }
        break;
      case ']':
      case '}':
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return std::nullopt;
}

Incoming parse_message(std::string_view line, const ShapeLimits& limits) {
  if (auto why = check_shape(line, limits)) return invalid(nullptr, kInvalidRequest, "Invalid Request: " + *why);

  // Parsed into std::map objects and converted: an insertion-ordered object looks each new key up
  // linearly, which a line of a million keys would turn into minutes of work.
  json msg;
  try {
    msg = json(nlohmann::json::parse(line.begin(), line.end()));
  } catch (const nlohmann::json::exception& e) {
    return invalid(nullptr, kParseError, "Parse error: " + parser_detail(e.what()));
  }

  if (msg.is_array()) return invalid(nullptr, kInvalidRequest, "Invalid Request: batches are not supported");
  if (!msg.is_object()) return invalid(nullptr, kInvalidRequest, "Invalid Request: a message must be a JSON object");

  json id = nullptr;
  bool has_id = msg.contains("id");
  if (has_id) {
    if (!usable_id(msg["id"])) {
      return invalid(nullptr, kInvalidRequest, "Invalid Request: \"id\" must be a string or an integer");
    }
    id = msg["id"];
  }
  auto version = msg.find("jsonrpc");
  if (version == msg.end() || *version != "2.0") {
    return invalid(id, kInvalidRequest, "Invalid Request: \"jsonrpc\" must be \"2.0\"");
  }
  auto method = msg.find("method");
  if (method == msg.end()) {
    if (has_id && (msg.contains("result") || msg.contains("error"))) {
      Incoming m;
      m.kind = Incoming::Kind::response;
      m.id = std::move(id);
      if (msg.contains("result")) m.result = std::move(msg["result"]);
      return m;
    }
    return invalid(id, kInvalidRequest, "Invalid Request: \"method\" must be a string");
  }
  if (!method->is_string()) return invalid(id, kInvalidRequest, "Invalid Request: \"method\" must be a string");

  json params = nullptr;
  if (auto p = msg.find("params"); p != msg.end()) {
    if (!p->is_object() && !p->is_array() && !p->is_null()) {
      return invalid(id, kInvalidRequest, "Invalid Request: \"params\" must be an object");
    }
    params = std::move(*p);
  }

  Incoming m;
  m.kind = has_id ? Incoming::Kind::request : Incoming::Kind::notification;
  m.id = std::move(id);
  m.method = method->get<std::string>();
  m.params = std::move(params);
  return m;
}

std::string id_key(const json& id) { return serialize(id); }

json make_result(const json& id, json result) {
  json m = json::object();
  m["jsonrpc"] = "2.0";
  m["id"] = id;
  m["result"] = std::move(result);
  return m;
}

json make_error(const json& id, int code, std::string message, json data) {
  json error = json::object();
  error["code"] = code;
  error["message"] = std::move(message);
  if (!data.is_null()) error["data"] = std::move(data);
  json m = json::object();
  m["jsonrpc"] = "2.0";
  m["id"] = id;
  m["error"] = std::move(error);
  return m;
}

json make_notification(std::string method, json params) {
  json m = json::object();
  m["jsonrpc"] = "2.0";
  m["method"] = std::move(method);
  m["params"] = std::move(params);
  return m;
}

json tool_call_result(json dictionary) {
  json text = json::object();
  text["type"] = "text";
  text["text"] = serialize(dictionary);
  json r = json::object();
  r["content"] = json::array({std::move(text)});
  bool is_error = false;
  if (dictionary.is_object()) {
    is_error = dictionary.contains("error");
    r["structuredContent"] = std::move(dictionary);
  }
  r["isError"] = is_error;
  return r;
}

json tool_failure_result(const std::string& text) {
  json item = json::object();
  item["type"] = "text";
  item["text"] = text;
  json r = json::object();
  r["content"] = json::array({std::move(item)});
  r["isError"] = true;
  return r;
}

json tool_listing(const std::vector<ToolDescriptor>& tools) {
  json list = json::array();
  for (const auto& t : tools) {
    json entry = json::object();
    entry["name"] = t.name;
    if (!t.title.empty()) entry["title"] = t.title;
    entry["description"] = t.description;
    entry["inputSchema"] = t.input_schema.is_object() ? t.input_schema : json{{"type", "object"}};
    if (t.output_schema.is_object()) entry["outputSchema"] = t.output_schema;
    if (t.annotations.is_object()) entry["annotations"] = t.annotations;
    list.push_back(std::move(entry));
  }
  json r = json::object();
  r["tools"] = std::move(list);
  return r;
}

json initialize_result(const json& params, const std::string& instructions) {
  json requested = params.is_object() && params.contains("protocolVersion") ? params["protocolVersion"] : json();
  json capabilities = json::object();
  capabilities["tools"] = json::object();
  capabilities["logging"] = json::object();
  json info = json::object();
  info["name"] = "brenloc";
  info["version"] = BRENLOC_VERSION;
  json r = json::object();
  r["protocolVersion"] = negotiate_protocol_version(requested);
  r["capabilities"] = std::move(capabilities);
  r["serverInfo"] = std::move(info);
  if (!instructions.empty()) r["instructions"] = instructions;
  return r;
}

std::string serialize(const json& message) { return message.dump(-1, ' ', false, json::error_handler_t::replace); }

}  // namespace brenloc::mcp
