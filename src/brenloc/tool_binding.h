// Binding of tool arguments against the argument schemas of the daemon's tools.
//
// Each schema is a list of named, typed, optional arguments with defaults. bind_arguments(name, params)
// checks `params` against the schema called `name` and returns the bound mapping: every argument of the
// schema, in schema order, with its default where omitted (or given as null). An unknown argument, a wrong type,
// a string holding a NUL byte or a missing required one is an ArgumentError whose message names the argument.
//
// Schemas: "status" (the arguments of a reindex request answered with a status: "paths", an array of
// strings, default empty; "clear_existing", a boolean, default false), "search" ("query" string,
// required; "match", "kind", "path", "language", "limit", "max_bytes"), "outline" ("path", required),
// "source" ("name", "path", "kind", "line", "max_lines") and "none" (no arguments). A string argument
// with a list of values ("match", "kind", "language") takes any case of one of them, is bound in lower
// case, and otherwise is an error that lists them; the input schema lists them as an enum.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "brenloc/json.h"

namespace brenloc {

class ArgumentError : public std::invalid_argument {
 public:
  ArgumentError(std::string argument, const std::string& message)
      : std::invalid_argument(message), argument_(std::move(argument)) {}
  const std::string& argument() const { return argument_; }

 private:
  std::string argument_;
};

// A tool name that nobody serves.
class UnknownTool : public std::runtime_error {
 public:
  explicit UnknownTool(const std::string& name) : std::runtime_error("unknown tool '" + name + "'") {}
};

// Throws ArgumentError for bad arguments, std::out_of_range for an unknown schema name. `params` may be
// null (no arguments given).
json bind_arguments(std::string_view name, const json& params);

// The JSON Schema ("type": "object", "properties", "required", "additionalProperties": false) of a
// binding, for a tool listing.
json input_schema(std::string_view name);

}  // namespace brenloc
