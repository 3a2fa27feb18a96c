#include "brenloc/tool_binding.h"

#include <optional>
#include <vector>

namespace brenloc {

namespace {

using json = nlohmann::ordered_json;

enum class Type { string, boolean, integer, string_array };

struct Argument {
  std::string_view name;
  Type type;
  bool required;
  json default_value;  // null: absent when omitted
  std::string_view description;
  std::optional<std::int64_t> min, max;
};

struct Schema {
  std::string_view name;
  std::vector<Argument> arguments;
};

const std::vector<Schema>& schemas() {
  static const std::vector<Schema> all = {
      {"status",
       {{"paths", Type::string_array, false, json::array(),
         "Files or directories to reindex, absolute or relative to the repository root; empty means the "
         "whole repository",
         {}, {}},
        {"clear_existing", Type::boolean, false, false,
         "Rebuild the whole index from scratch (only when no paths are given)", {}, {}}}},
      {"search",
       {{"query", Type::string, true, nullptr, "Symbol name, prefix or substring to look for", {}, {}},
        {"kind", Type::string, false, nullptr, "Only symbols of this kind (function, class, method, ...)", {}, {}},
        {"limit", Type::integer, false, 20, "Largest number of results", 1, 1000}}},
      {"none", {}},
  };
  return all;
}

const Schema& schema(std::string_view name) {
  for (const auto& s : schemas()) {
    if (s.name == name) return s;
  }
  throw std::out_of_range("no argument schema called '" + std::string(name) + "'");
}

std::string_view type_name(Type t) {
  switch (t) {
    case Type::string: return "a string";
    case Type::boolean: return "a boolean";
    case Type::integer: return "an integer";
    case Type::string_array: return "an array of strings";
  }
  return "";
}

bool has_type(const json& v, Type t) {
  switch (t) {
    case Type::string: return v.is_string();
    case Type::boolean: return v.is_boolean();
    case Type::integer: return v.is_number_integer();
    case Type::string_array:
      if (!v.is_array()) return false;
      for (const auto& e : v) {
        if (!e.is_string()) return false;
      }
      return true;
  }
  return false;
}

// A client's name for an argument as an error message shows it: a NUL byte would end the message early
// (what() is a C string), so it is spelt \0.
std::string shown_name(const std::string& name) {
  std::string shown;
  for (char c : name) {
    if (c == '\0') {
      shown += "\\0";
    } else {
      shown += c;
    }
  }
  return shown;
}

}  // namespace

json bind_arguments(std::string_view name, const json& params) {
  const Schema& s = schema(name);
  if (!params.is_null() && !params.is_object()) {
    throw ArgumentError("", "arguments must be an object");
  }
  if (params.is_object()) {
    for (const auto& [key, value] : params.items()) {
      bool known = false;
      for (const auto& a : s.arguments) known = known || a.name == key;
      if (!known) throw ArgumentError(key, "unknown argument '" + shown_name(key) + "'");
    }
  }
  json bound = json::object();
  for (const auto& a : s.arguments) {
    std::string key(a.name);
    if (!params.is_object() || !params.contains(key)) {
      if (a.required) throw ArgumentError(key, "missing required argument '" + key + "'");
      bound[key] = a.default_value;
      continue;
    }
    const json& v = params.at(key);
    if (!has_type(v, a.type)) {
      throw ArgumentError(key, "argument '" + key + "' must be " + std::string(type_name(a.type)));
    }
    if (a.type == Type::integer) {
      auto n = v.get<std::int64_t>();
      if ((a.min && n < *a.min) || (a.max && n > *a.max)) {
        throw ArgumentError(key, "argument '" + key + "' must be between " + std::to_string(*a.min) + " and " +
                                     std::to_string(*a.max));
      }
    }
    bound[key] = v;
  }
  return bound;
}

json input_schema(std::string_view name) {
  const Schema& s = schema(name);
  json properties = json::object();
  json required = json::array();
  for (const auto& a : s.arguments) {
    json p = json::object();
    switch (a.type) {
      case Type::string: p["type"] = "string"; break;
      case Type::boolean: p["type"] = "boolean"; break;
      case Type::integer: p["type"] = "integer"; break;
      case Type::string_array:
        p["type"] = "array";
        p["items"] = json{{"type", "string"}};
        break;
    }
    p["description"] = a.description;
    if (a.min) p["minimum"] = *a.min;
    if (a.max) p["maximum"] = *a.max;
    if (!a.default_value.is_null()) p["default"] = a.default_value;
    properties[std::string(a.name)] = p;
    if (a.required) required.push_back(a.name);
  }
  json out = {{"type", "object"}, {"properties", properties}};
  if (!required.empty()) out["required"] = required;
  out["additionalProperties"] = false;
  return out;
}

}  // namespace brenloc
