// Binding of tool arguments against their argument lists.
//
// An argument list names typed, optional arguments with defaults. bind_arguments(list, params) checks
// `params` against it and returns the bound mapping: every argument of the list, in list order, with its
// default where omitted (or given as null). An unknown argument, a wrong type, a string holding a NUL byte
// or a missing required one is an ArgumentError whose message names the argument. A string argument with
// a list of values ("match", "kind", "language") takes any case of one of them, is bound in lower case,
// and otherwise is an error that lists them; the input schema lists them as an enum.
//
// A Binding<Args> binds into a tool's own argument struct: the same checks, then each field set from its
// bound value. Each tool's file holds its list (tools/). One list has a name of its own, "status": the
// force_reindex request's ("paths", an array of strings, default empty; "clear_existing", a boolean,
// default false), which the reindex handler binds by that name.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

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

enum class ArgumentType { string, boolean, integer, string_array };

struct Argument {
  std::string_view name;
  ArgumentType type;
  bool required;
  json default_value;  // null: absent when omitted
  std::string_view description;
  std::optional<std::int64_t> min = {}, max = {};  // an integer's range, a string's largest length
  // A string argument that must be one of these, compared ignoring ASCII case and bound in lower case.
  std::span<const std::string_view> one_of = {};
};

using Arguments = std::vector<Argument>;

// Throws ArgumentError for bad arguments. `params` may be null (no arguments given).
json bind_arguments(const Arguments& arguments, const json& params);
// The same for the list called `name`; std::out_of_range for a name that no list has.
json bind_arguments(std::string_view name, const json& params);
// The list called `name`; std::out_of_range for a name that no list has.
const Arguments& argument_list(std::string_view name);

// The JSON Schema ("type": "object", "properties", "required", "additionalProperties": false) of an
// argument list, for a tool listing.
json input_schema(const Arguments& arguments);
json input_schema(std::string_view name);

// A tool's arguments as a struct: each argument with the setter of its field, given the bound value
// (null for an omitted argument without a default).
template <class Args>
class Binding {
 public:
  struct Field {
    Argument argument;
    std::function<void(Args&, const json&)> set;
  };

  Binding() = default;
  Binding(std::initializer_list<Field> fields) : fields_(fields) {
    for (const auto& f : fields_) arguments_.push_back(f.argument);
  }

  const Arguments& arguments() const { return arguments_; }

  // Throws ArgumentError for bad arguments.
  Args bind(const json& params) const {
    const json bound = bind_arguments(arguments_, params);
    Args args{};
    for (const auto& f : fields_) f.set(args, bound.at(std::string(f.argument.name)));
    return args;
  }

 private:
  std::vector<Field> fields_;
  Arguments arguments_;
};

template <class T>
inline constexpr bool is_optional = false;
template <class T>
inline constexpr bool is_optional<std::optional<T>> = true;

// The setter of a plain field: an absent value leaves an optional field empty.
template <class Args, class T>
std::function<void(Args&, const json&)> into(T Args::*field) {
  return [field](Args& args, const json& v) {
    if constexpr (is_optional<T>) {
      if (v.is_null()) {
        (args.*field).reset();
      } else {
        args.*field = v.get<typename T::value_type>();
      }
    } else {
      args.*field = v.get<T>();
    }
  };
}

}  // namespace brenloc
