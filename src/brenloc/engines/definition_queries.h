// The definition queries of each language: tree-sitter query patterns whose captures say what a
// definition is and where its name and scope come from.
//
// Capture names:
//   @def.<kind>        the whole definition (its range is the symbol's range); <kind> is one of the
//                      symbol kinds (function, method, class, ...)
//   @name              the node whose text is the symbol's name
//   @name.declarator   a C/C++ declarator: the name is found by descending through its declarators
//                      (pointers, arrays, functions, references, qualified names)
//   @qualifier         text naming the scope explicitly (a Go method's receiver type)
//   @scope             a node that names a scope without being a symbol itself (a Rust impl block,
//                      a typedef'd anonymous struct), its name given by @scope.name
//   @local             a nameless function (lambda, closure, arrow function): variables inside it
//                      are locals and left out
//
// When several patterns capture the same name, the pattern written first wins, so the specific
// patterns come before the general ones. Predicates #eq?, #not-eq?, #match? and #not-match? may be
// used.
//
// A language may also list its outline: the node types that hold definitions (files, blocks,
// namespaces, class bodies, preprocessor sections...). The query then runs only on those nodes and
// their children, never inside expressions or C function bodies, which most of a tree is made of;
// every pattern must therefore start at an outline node or at a child of one. Error nodes always
// belong to the outline. A language without an outline is queried over its whole tree.
#pragma once

#include <string_view>

namespace brenloc::engines::queries {

inline constexpr std::string_view python = R"scm(
((expression_statement (assignment left: (identifier) @name)) @def.constant
  (#match? @name "^[A-Z][A-Z0-9_]*$"))
(expression_statement (assignment left: (identifier) @name)) @def.variable
(expression_statement (assignment left: (pattern_list (identifier) @name))) @def.variable
(expression_statement (assignment left: (tuple_pattern (identifier) @name))) @def.variable
(class_definition name: (identifier) @name) @def.class
(function_definition name: (identifier) @name) @def.function
(lambda) @local
)scm";

inline constexpr std::string_view python_outline[] = {
    "module", "block", "class_definition", "function_definition", "decorated_definition", "if_statement",
    "elif_clause", "else_clause", "for_statement", "while_statement", "try_statement", "except_clause",
    "except_group_clause", "finally_clause", "with_statement", "match_statement", "case_clause"};

inline constexpr std::string_view c = R"scm(
(function_definition declarator: (_) @name.declarator) @def.function
(declaration declarator: (_) @name.declarator) @def.variable
(type_definition declarator: (_) @name.declarator) @def.type
(struct_specifier name: (type_identifier) @name body: (field_declaration_list)) @def.struct
(union_specifier name: (type_identifier) @name body: (field_declaration_list)) @def.union
(enum_specifier name: (type_identifier) @name body: (enumerator_list)) @def.enum
(ERROR "enum" . (type_identifier) @name . "{") @def.enum
(enumerator name: (identifier) @name) @def.enumerator
(field_declaration declarator: (_) @name.declarator) @def.field
(preproc_def name: (identifier) @name) @def.macro
(preproc_function_def name: (identifier) @name) @def.macro
(type_definition
  type: [(struct_specifier !name body: (_)) (union_specifier !name body: (_))
         (enum_specifier !name body: (_))] @scope
  declarator: (type_identifier) @scope.name)
)scm";

inline constexpr std::string_view c_outline[] = {
    "translation_unit", "preproc_if", "preproc_ifdef", "preproc_else", "preproc_elif", "preproc_elifdef",
    "linkage_specification", "declaration_list", "declaration", "type_definition", "field_declaration",
    "struct_specifier", "union_specifier", "enum_specifier", "field_declaration_list", "enumerator_list",
    "function_definition", "compound_statement"};

inline constexpr std::string_view cpp = R"scm(
(function_definition declarator: (_) @name.declarator) @def.function
(declaration declarator: (_) @name.declarator) @def.variable
(type_definition declarator: (_) @name.declarator) @def.type
(alias_declaration name: (type_identifier) @name) @def.type
(class_specifier name: (_) @name body: (field_declaration_list)) @def.class
(struct_specifier name: (_) @name body: (field_declaration_list)) @def.struct
(union_specifier name: (_) @name body: (field_declaration_list)) @def.union
(enum_specifier name: (_) @name body: (enumerator_list)) @def.enum
(ERROR "enum" . "class"? . (type_identifier) @name . "{") @def.enum
(enumerator name: (identifier) @name) @def.enumerator
(field_declaration declarator: (_) @name.declarator) @def.field
(namespace_definition name: (_) @name) @def.namespace
(concept_definition name: (identifier) @name) @def.type
(preproc_def name: (identifier) @name) @def.macro
(preproc_function_def name: (identifier) @name) @def.macro
(type_definition
  type: [(struct_specifier !name body: (_)) (union_specifier !name body: (_))
         (class_specifier !name body: (_)) (enum_specifier !name body: (_))] @scope
  declarator: (type_identifier) @scope.name)
(lambda_expression) @local
)scm";

inline constexpr std::string_view cpp_outline[] = {
    "translation_unit", "preproc_if", "preproc_ifdef", "preproc_else", "preproc_elif", "preproc_elifdef",
    "linkage_specification", "declaration_list", "declaration", "type_definition", "field_declaration",
    "struct_specifier", "union_specifier", "enum_specifier", "class_specifier", "field_declaration_list",
    "enumerator_list", "namespace_definition", "template_declaration", "friend_declaration",
    "function_definition", "compound_statement"};

// Shared by JavaScript, TypeScript and TSX.
#define BRENLOC_JS_COMMON_QUERIES                                                                  \
  "(function_declaration name: (identifier) @name) @def.function\n"                               \
  "(generator_function_declaration name: (identifier) @name) @def.function\n"                     \
  "(method_definition name: [(property_identifier) (private_property_identifier)] @name) "         \
  "@def.method\n"                                                                                  \
  "(variable_declarator name: (identifier) @name\n"                                                \
  "  value: [(arrow_function) (function_expression) (generator_function)]) @def.function\n"        \
  "(lexical_declaration kind: \"const\" (variable_declarator name: (identifier) @name) "           \
  "@def.constant)\n"                                                                               \
  "(variable_declarator name: (identifier) @name) @def.variable\n"                                 \
  "(arrow_function) @local\n"                                                                      \
  "(function_expression) @local\n"                                                                 \
  "(generator_function) @local\n"                                                                  \
  "(export_specifier alias: (identifier) @name) @def.variable\n"

inline constexpr std::string_view javascript = BRENLOC_JS_COMMON_QUERIES R"scm(
(class_declaration name: (identifier) @name) @def.class
(field_definition property: [(property_identifier) (private_property_identifier)] @name) @def.field
)scm";

inline constexpr std::string_view typescript = BRENLOC_JS_COMMON_QUERIES R"scm(
(function_signature name: (identifier) @name) @def.function
(class_declaration name: (type_identifier) @name) @def.class
(abstract_class_declaration name: (type_identifier) @name) @def.class
(interface_declaration name: (type_identifier) @name) @def.interface
(type_alias_declaration name: (type_identifier) @name) @def.type
(enum_declaration name: (identifier) @name) @def.enum
(enum_body (property_identifier) @name @def.enumerator)
(enum_assignment name: (property_identifier) @name) @def.enumerator
(public_field_definition name: [(property_identifier) (private_property_identifier)] @name) @def.field
(method_signature name: (property_identifier) @name) @def.method
(abstract_method_signature name: (property_identifier) @name) @def.method
(property_signature name: (property_identifier) @name) @def.property
(internal_module name: (_) @name) @def.namespace
(module name: (_) @name) @def.module
)scm";

#undef BRENLOC_JS_COMMON_QUERIES

inline constexpr std::string_view go = R"scm(
(function_declaration name: (identifier) @name) @def.function
(method_declaration
  receiver: (parameter_list
    (parameter_declaration
      type: [(type_identifier) @qualifier
             (pointer_type (type_identifier) @qualifier)
             (generic_type type: (type_identifier) @qualifier)
             (pointer_type (generic_type type: (type_identifier) @qualifier))]))
  name: (field_identifier) @name) @def.method
(type_spec name: (type_identifier) @name type: (struct_type)) @def.struct
(type_spec name: (type_identifier) @name type: (interface_type)) @def.interface
(type_spec name: (type_identifier) @name) @def.type
(type_alias name: (type_identifier) @name) @def.type
(field_declaration name: (field_identifier) @name) @def.field
(method_elem name: (field_identifier) @name) @def.method
(const_spec name: (identifier) @name) @def.constant
(var_spec name: (identifier) @name) @def.variable
(package_clause (package_identifier) @name) @def.module
(func_literal) @local
)scm";

inline constexpr std::string_view go_outline[] = {
    "source_file", "type_declaration", "type_spec", "struct_type", "field_declaration_list", "interface_type",
    "const_declaration", "var_declaration", "var_spec_list"};

inline constexpr std::string_view rust = R"scm(
(function_item name: (identifier) @name) @def.function
(function_signature_item name: (identifier) @name) @def.method
(struct_item name: (type_identifier) @name) @def.struct
(union_item name: (type_identifier) @name) @def.union
(enum_item name: (type_identifier) @name) @def.enum
(enum_variant name: (identifier) @name) @def.enumerator
(trait_item name: (type_identifier) @name) @def.trait
(type_item name: (type_identifier) @name) @def.type
(associated_type name: (type_identifier) @name) @def.type
(const_item name: (identifier) @name) @def.constant
(static_item name: (identifier) @name) @def.variable
(mod_item name: (identifier) @name) @def.module
(macro_definition name: (identifier) @name) @def.macro
(field_declaration name: (field_identifier) @name) @def.field
(impl_item type: (_) @scope.name) @scope
(closure_expression) @local
)scm";

inline constexpr std::string_view rust_outline[] = {
    "source_file", "mod_item", "declaration_list", "impl_item", "trait_item", "enum_item", "enum_variant_list",
    "enum_variant", "struct_item", "union_item", "field_declaration_list"};

inline constexpr std::string_view java = R"scm(
(class_declaration name: (identifier) @name) @def.class
(record_declaration name: (identifier) @name) @def.class
(interface_declaration name: (identifier) @name) @def.interface
(annotation_type_declaration name: (identifier) @name) @def.interface
(enum_declaration name: (identifier) @name) @def.enum
(enum_constant name: (identifier) @name) @def.enumerator
(method_declaration name: (identifier) @name) @def.method
(constructor_declaration name: (identifier) @name) @def.constructor
(compact_constructor_declaration name: (identifier) @name) @def.constructor
(field_declaration declarator: (variable_declarator name: (identifier) @name)) @def.field
(constant_declaration declarator: (variable_declarator name: (identifier) @name)) @def.constant
(lambda_expression) @local
)scm";

inline constexpr std::string_view java_outline[] = {
    "program", "class_declaration", "class_body", "interface_declaration", "interface_body", "enum_declaration",
    "enum_body", "enum_body_declarations", "record_declaration", "annotation_type_declaration",
    "annotation_type_body"};

}  // namespace brenloc::engines::queries
