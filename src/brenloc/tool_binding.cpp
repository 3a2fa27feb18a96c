#include "brenloc/tool_binding.h"

#include <algorithm>
#include <vector>

#include "brenloc/utils/path_text.h"

namespace brenloc {

namespace {

using Type = ArgumentType;

// The force_reindex request's arguments: the reindex handler binds them by this list's name.
const Arguments& status_arguments() {
  static const Arguments list = {
      {"paths", Type::string_array, false, json::array(),
       "Files or directories to reindex, absolute or relative to the repository root; empty means the whole "
       "repository"},
      {"clear_existing", Type::boolean, false, false,
       "Rebuild the whole index from scratch (only when no paths are given)"},
  };
  return list;
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

// Whether a string, or a string of an array, holds a NUL byte: no name, path or query has one.
bool holds_nul(const json& v) {
  if (v.is_string()) return v.get_ref<const std::string&>().find('\0') != std::string::npos;
  return v.is_array() && std::ranges::any_of(v, [](const json& e) { return holds_nul(e); });
}

}  // namespace

const Arguments& argument_list(std::string_view name) {
  if (name == "status") return status_arguments();
  throw std::out_of_range("no argument schema called '" + std::string(name) + "'");
}

json bind_arguments(std::string_view name, const json& params) { return bind_arguments(argument_list(name), params); }

json bind_arguments(const Arguments& arguments, const json& params) {
  if (!params.is_null() && !params.is_object()) {
    throw ArgumentError("", "arguments must be an object");
  }
  if (params.is_object()) {
    for (const auto& [key, value] : params.items()) {
      bool known = false;
      for (const auto& a : arguments) known = known || a.name == key;
      if (!known) throw ArgumentError(key, "unknown argument '" + utils::nul_spelt(key) + "'");
    }
  }
  json bound = json::object();
  for (const auto& a : arguments) {
    std::string key(a.name);
    // An optional argument given as null reads as absent (clients spell "not given" both ways).
    if (!params.is_object() || !params.contains(key) || (params.at(key).is_null() && !a.required)) {
      if (a.required) throw ArgumentError(key, "missing required argument '" + key + "'");
      bound[key] = a.default_value;
      continue;
    }
    const json& v = params.at(key);
    if (!has_type(v, a.type)) {
      throw ArgumentError(key, "argument '" + key + "' must be " + std::string(type_name(a.type)));
    }
    if (holds_nul(v)) throw ArgumentError(key, "argument '" + key + "' must not hold a NUL byte");
    if (a.type == Type::string && a.max && static_cast<std::int64_t>(v.get_ref<const std::string&>().size()) > *a.max) {
      throw ArgumentError(key, "argument '" + key + "' must be at most " + std::to_string(*a.max) + " bytes long");
    }
    if (!a.one_of.empty()) {
      std::string folded = v.get<std::string>();
      for (char& c : folded) c = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
      if (std::ranges::find(a.one_of, folded) == a.one_of.end()) {
        std::string listed;
        for (auto option : a.one_of) listed += (listed.empty() ? "" : ", ") + std::string(option);
        throw ArgumentError(key, "argument '" + key + "' must be one of: " + listed);
      }
      bound[key] = folded;
      continue;
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

json input_schema(std::string_view name) { return input_schema(argument_list(name)); }

json input_schema(const Arguments& arguments) {
  json properties = json::object();
  json required = json::array();
  for (const auto& a : arguments) {
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
    if (!a.one_of.empty()) p["enum"] = json(std::vector<std::string>(a.one_of.begin(), a.one_of.end()));
    if (a.type == Type::string) {
      if (a.max) p["maxLength"] = *a.max;
    } else {
      if (a.min) p["minimum"] = *a.min;
      if (a.max) p["maximum"] = *a.max;
    }
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
