#include "brenloc/tools/tool.h"

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

json read_only() { return json{{"readOnlyHint", true}, {"openWorldHint", false}}; }

}  // namespace brenloc::tools
