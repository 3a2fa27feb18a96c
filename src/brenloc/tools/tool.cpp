#include "brenloc/tools/tool.h"

#include "brenloc/utils/path_text.h"

namespace brenloc::tools {

json object_schema(json properties, json required) {
  return json{{"type", "object"}, {"properties", std::move(properties)}, {"required", std::move(required)},
              {"additionalProperties", false}};
}

json string_schema() { return json{{"type", "string"}}; }

json count_schema() { return json{{"type", "integer"}, {"minimum", 0}}; }

json string_or_null_schema() { return json{{"type", {"string", "null"}}}; }

json refusal_schema() {
  return object_schema({{"error", string_schema()}, {"status", {{"const", "failed"}}}}, {"error", "status"});
}

json refusal_json(const daemon::Refusal& refusal) { return json{{"error", refusal.error}, {"status", "failed"}}; }

std::optional<std::string> path_filter_within(const std::filesystem::path& root, const std::string& path) {
  if (path.empty()) return path;
  std::filesystem::path p = std::filesystem::path(utils::path_bytes(path)).lexically_normal();
  if (p.is_absolute()) p = p.lexically_relative(root);
  if (p.empty() || *p.begin() == "..") return std::nullopt;
  return p == "." ? std::string() : utils::path_text(p.generic_string());
}

json read_only() { return json{{"readOnlyHint", true}, {"openWorldHint", false}}; }

}  // namespace brenloc::tools
