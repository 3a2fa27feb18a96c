// Fuzz target: the argument binder, for the argument list of every tool.
//
// The input is JSON text (anything else is skipped; nesting deeper than the MCP server lets through is skipped
// too). For each schema the value either binds to a mapping with exactly the schema's keys, in its order, each
// the given value or the default, or is refused with an ArgumentError naming an argument that really is wrong.
// Which values are wrong is judged from the JSON Schema the binder advertises to clients, so the binder and
// its advertised schema must agree on every input.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include "brenloc/json.h"
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool_table.h"
#include "fuzz_check.h"

namespace {

using brenloc::fuzz::check;
using brenloc::fuzz::fail;
using brenloc::fuzz::shown;
using brenloc::json;

constexpr std::size_t kMaxDepth = 128;  // what the MCP server lets through to a tool

std::size_t depth(const json& v) {
  if (!v.is_structured()) return 0;
  std::size_t deepest = 0;
  for (const auto& child : v) deepest = std::max(deepest, depth(child));
  return deepest + 1;
}

bool within(const json& value, const json& property) {
  const bool has_min = property.contains("minimum");
  const bool has_max = property.contains("maximum");
  if (value.is_number_unsigned()) {
    const auto n = value.get<std::uint64_t>();
    if (has_min && property["minimum"].get<std::int64_t>() > 0 &&
        n < static_cast<std::uint64_t>(property["minimum"].get<std::int64_t>())) {
      return false;
    }
    return !has_max || (property["maximum"].get<std::int64_t>() >= 0 &&
                        n <= static_cast<std::uint64_t>(property["maximum"].get<std::int64_t>()));
  }
  const auto n = value.get<std::int64_t>();
  return (!has_min || n >= property["minimum"].get<std::int64_t>()) &&
         (!has_max || n <= property["maximum"].get<std::int64_t>());
}

// Whether `value` is what the schema's `property` describes.
bool conforms(const json& value, const json& property) {
  const std::string type = property.at("type").get<std::string>();
  if (type == "string") {
    return value.is_string() &&
           (!property.contains("maxLength") || value.get_ref<const std::string&>().size() <= property["maxLength"].get<std::size_t>());
  }
  if (type == "boolean") return value.is_boolean();
  if (type == "integer") return value.is_number_integer() && within(value, property);
  if (type == "array") {
    if (!value.is_array()) return false;
    for (const auto& item : value) {
      if (!conforms(item, property.at("items"))) return false;
    }
    return true;
  }
  fail("the advertised schema has a type this check does not know: " + type);
}

// The arguments that make `params` wrong for `schema`: unknown, missing although required, or of the wrong
// type or range. Empty when the arguments are right.
std::set<std::string> wrong_arguments(const json& schema, const json& params) {
  std::set<std::string> wrong;
  const json& properties = schema.at("properties");
  const json required = schema.value("required", json::array());
  for (const auto& [key, value] : params.items()) {
    const bool optional = std::find(required.begin(), required.end(), json(key)) == required.end();
    if (value.is_null() && optional && properties.contains(key)) continue;  // null reads as absent
    if (!properties.contains(key)) {
      check(schema.value("additionalProperties", true) == false, "a schema that allows any argument");
      wrong.insert(key);
    } else if (!conforms(value, properties[key])) {
      wrong.insert(key);
    }
  }
  for (const auto& name : schema.value("required", json::array())) {
    if (!params.contains(name.get<std::string>())) wrong.insert(name.get<std::string>());
  }
  return wrong;
}

// An argument's name as a message must show it: in full, a NUL byte (which would end the message) as \0.
std::string as_shown(const std::string& name) {
  std::string out;
  for (char c : name) out += c == '\0' ? std::string("\\0") : std::string(1, c);
  return out;
}

void check_bound(std::string_view name, const json& schema, const json& params, const json& bound) {
  const auto where = [&] {
    return std::string(name) + " with " + shown(params.dump()) + ": bound " + shown(bound.dump());
  };
  check(bound.is_object(), [&] { return where() + " is not an object"; });
  const json& properties = schema.at("properties");
  check(bound.size() == properties.size(), [&] { return where() + " does not have exactly the schema's keys"; });
  auto it = bound.begin();
  for (const auto& [key, property] : properties.items()) {
    check(it.key() == key,
          [&] { return where() + ": key " + shown(it.key()) + " where the schema has " + shown(key); });
    const json& value = it.value();
    if (params.contains(key) && !params[key].is_null()) {
      check(value == params[key], [&] { return where() + ": argument '" + key + "' is not the value given"; });
    } else if (property.contains("default")) {
      check(value == property["default"], [&] { return where() + ": argument '" + key + "' is not its default"; });
    } else {
      check(value.is_null(),
            [&] { return where() + ": omitted argument '" + key + "' without a default is not null"; });
    }
    check(value.is_null() || conforms(value, property),
          [&] { return where() + ": argument '" + key + "' has the wrong type"; });
    ++it;
  }
}

void check_schema(std::string_view name, const brenloc::Arguments& arguments, const json& value) {
  const json schema = brenloc::input_schema(arguments);
  const bool is_arguments = value.is_null() || value.is_object();
  const json params = value.is_null() ? json::object() : value;
  const auto where = [&] { return std::string(name) + " with " + shown(value.dump()); };

  std::optional<json> bound;
  try {
    bound = brenloc::bind_arguments(arguments, value);
  } catch (const brenloc::ArgumentError& e) {
    const std::string message = e.what();
    if (!is_arguments) {
      check(e.argument().empty(), [&] { return where() + ": a value that is not an object blamed on an argument"; });
      return;
    }
    const auto wrong = wrong_arguments(schema, params);
    check(!wrong.empty(), [&] { return where() + ": refused arguments the schema accepts: " + shown(message); });
    check(wrong.contains(e.argument()), [&] {
      return where() + ": refused for argument " + shown(e.argument()) + ", which is right (" + shown(message) + ")";
    });
    check(message.find("'" + as_shown(e.argument()) + "'") != std::string::npos,
          [&] { return where() + ": the message " + shown(message) + " does not name the argument"; });
    return;
  } catch (const std::exception& e) {
    fail(where() + ": threw something other than ArgumentError: " + shown(e.what()));
  }
  check(is_arguments, [&] { return where() + ": a value that is not an object was bound"; });
  const auto wrong = wrong_arguments(schema, params);
  check(wrong.empty(), [&] {
    return where() + ": bound although argument " + shown(wrong.empty() ? "" : *wrong.begin()) + " is wrong";
  });
  check_bound(name, schema, params, *bound);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // A name no schema has is a programming error, not an argument error.
  try {
    brenloc::bind_arguments("no such schema", nullptr);
    fail("an unknown schema name was bound");
  } catch (const std::out_of_range&) {
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const json value = json::parse(data, data + size, nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded() || depth(value) > kMaxDepth) return -1;
  for (const auto* tool : brenloc::tools::worker_tools()) check_schema(tool->name, tool->arguments, value);
  return 0;
}
