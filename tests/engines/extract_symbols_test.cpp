// The definitions found in small sources of every language: names, kinds, positions and scopes,
// including the cases that stock tag queries get wrong and partial parses of broken sources; the same
// sources parsed by many threads at once; a parse over its time limit; a language without a parser; the
// blanking of the decoration macros that C and C++ headers wrap around their declarations.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <ranges>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fmt/format.h>

#include "brenloc/engines/annotation_macros.h"
#include "brenloc/engines/code_matchers.h"
#include "brenloc/engines/directive_ends.h"
#include "brenloc/engines/languages.h"
#include "brenloc/engines/symbols.h"

namespace brenloc::engines {
namespace {

using namespace std::chrono_literals;

struct Def {
  std::string name, kind;
  int line;
  std::string scope = {};
  // Checked when not 0. Positions are 1-based: a definition starts at its name and ends at its last
  // character, and one that takes its line's newline along (a macro) still ends on its own line.
  int column = 0, end_line = 0, end_column = 0;
  int start_line = 0;  // where the definition starts (above its name: a template header, a return type)
  bool specialization = false;  // of a template, or a member of one
  bool conditional = false;     // compiled only on an `#if`
};

struct Case {
  std::string label, language, source;
  std::vector<Def> expected;        // each must be found exactly so
  std::vector<std::string> absent;  // names that must not be found at all
  bool syntax_errors = false;       // the sample is not valid syntax
  std::string recorded = {};        // the language the file is taken to be in; empty: the one given
};

std::string describe(const std::vector<storage::SymbolRow>& rows) {
  std::string out;
  for (const auto& r : rows) {
    out += fmt::format("  {} {} {}:{}-{}:{} scope '{}'\n", r.name, r.kind, r.line, r.column, r.end_line, r.end_column,
                       r.scope);
  }
  return out;
}

void PrintTo(const Case& c, std::ostream* os) { *os << c.label; }

class ExtractSymbols : public ::testing::TestWithParam<Case> {};

// clang-format off
const Case cases[] = {
  {"python_functions_methods_classes", "python", R"(CONSTANT = 3
counter = 0
a, b = 1, 2

def top(x):
    local = x + 1
    def inner():
        pass
    return local

class Outer:
    attr = 1

    def method(self):
        self.value = 2
        temp = 3

    @staticmethod
    def static_one():
        pass

    class Inner:
        def deep(self):
            pass
)",
   {{"CONSTANT", "constant", 1}, {"counter", "variable", 2}, {"a", "variable", 3}, {"b", "variable", 3},
    {"top", "function", 5}, {"inner", "function", 7, "top"}, {"Outer", "class", 11},
    {"attr", "variable", 12, "Outer"}, {"method", "method", 14, "Outer"}, {"static_one", "method", 19, "Outer"},
    {"Inner", "class", 22, "Outer"}, {"deep", "method", 23, "Outer.Inner"}}, {"local", "temp", "value", "x"}},
  // Decoration macros around glibc-style declarations (the end) do not break the parse.
  {"c_macros_structs_enums_typedefs", "c", R"(#include <stdio.h>
#define MAX 10
#define SQUARE(x) ((x) * (x))
struct point {
    int x, y;
    struct point *next;
};
typedef struct {
    int a;
} anon_t;
union value { int i; float f; };
enum color { RED, GREEN = 2 };
typedef int (*callback_t)(int);
static int counter = 0;
int *pointer_var, array_var[4];
extern int declared_elsewhere;
int prototype(int a);
void (*handler)(int);
static inline int add(int a, int b) {
    int local = a + b;
    return local;
}
int *make(void) { return 0; }
#ifdef FEATURE
int feature_flag = 1;
#endif
void with_local_type(void) { typedef unsigned local_t; local_t v = 0; (void)v; }
__BEGIN_DECLS
enum status
{
  STATUS_OK,
  STATUS_BAD
};
extern int check (const char *__s) __THROW __nonnull ((1)) __wur;
__END_DECLS
)",
   {{"MAX", "macro", 2, "", 9, 2, 14}, {"SQUARE", "macro", 3}, {"point", "struct", 4}, {"x", "field", 5, "point"},
    {"y", "field", 5, "point"}, {"next", "field", 6, "point"}, {"a", "field", 9, "anon_t"}, {"anon_t", "type", 10},
    {"value", "union", 11}, {"i", "field", 11, "value"}, {"color", "enum", 12}, {"RED", "enumerator", 12, "color"},
    {"GREEN", "enumerator", 12, "color"}, {"callback_t", "type", 13}, {"counter", "variable", 14, "", 12},
    {"pointer_var", "variable", 15}, {"array_var", "variable", 15}, {"handler", "variable", 18},
    {"add", "function", 19, "", 19, 22, 1}, {"make", "function", 23}, {"feature_flag", "variable", 25, "", 0, 0, 0, 0, false, true},
    {"with_local_type", "function", 27}, {"local_t", "type", 27, "with_local_type"}, {"status", "enum", 29},
    {"STATUS_BAD", "enumerator", 32, "status"}, {"declared_elsewhere", "variable_declaration", 16},
    {"prototype", "function_declaration", 17, "", 5, 17, 21}, {"check", "function_declaration", 34}},
   {"local", "b", "__s"}},
  {"cpp_namespaces_classes_out_of_class", "cpp", R"(#define VERSION 3
namespace outer {
namespace inner {
class Widget : public Base {
 public:
  Widget();
  ~Widget();
  int size() const { return size_; }
  void draw();
  static int count;
 private:
  int size_ = 0;
};
struct Pod { int a; };
enum class Mode { fast, slow };
}  // namespace inner
Widget::Widget() {}
inner::Widget::~Widget() {}
void inner::Widget::draw() {
  int local = 0;
  auto lambda = [](int v) { int in_lambda = v; return in_lambda; };
}
int inner::Widget::count = 0;
void free_function() {}
void inner::helper() {}
using Alias = std::vector<int>;
template <typename T>
class Box { T value; };
}  // namespace outer
namespace a::b { int nested_value = 1; }
)",
   {{"VERSION", "macro", 1}, {"outer", "namespace", 2}, {"inner", "namespace", 3, "outer"},
    {"Widget", "class", 4, "outer::inner"}, {"size", "method", 8, "outer::inner::Widget"},
    {"size_", "field", 12, "outer::inner::Widget"}, {"count", "field", 10, "outer::inner::Widget"},
    {"Pod", "struct", 14, "outer::inner"}, {"a", "field", 14, "outer::inner::Pod"},
    {"Mode", "enum", 15, "outer::inner"}, {"fast", "enumerator", 15, "outer::inner::Mode"},
    {"Widget", "constructor", 17, "outer::Widget"}, {"~Widget", "method", 18, "outer::inner::Widget"},
    {"draw", "method", 19, "outer::inner::Widget"}, {"count", "variable", 23, "outer::inner::Widget"},
    {"free_function", "function", 24, "outer"}, {"helper", "function", 25, "outer::inner"},
    {"Alias", "type", 26, "outer"}, {"Box", "class", 28, "outer", 0, 0, 0, 27}, {"value", "field", 28, "outer::Box"},
    {"a::b", "namespace", 30}, {"nested_value", "variable", 30, "a::b"},
    {"Widget", "function_declaration", 6, "outer::inner::Widget"},
    {"~Widget", "function_declaration", 7, "outer::inner::Widget"},
    {"draw", "function_declaration", 9, "outer::inner::Widget"}}, {"local", "lambda", "in_lambda", "v"}},
  {"cpp_definitions_start_above_their_names", "cpp",
   "template <typename K,\n          typename V>\nstatic inline\nV lookup(K key) { return V(); }\nint\nplain() { return 0; }\n"
   "template <> struct Box<int> {};\nint template_free = 1;\n",
   {{"lookup", "function", 4, "", 0, 0, 0, 1}, {"plain", "function", 6, "", 0, 0, 0, 5},
    {"Box", "struct", 7, "", 0, 0, 0, 7, true}, {"template_free", "variable", 8, "", 0, 0, 0, 8}}},
  // An enum whose body is filled by the preprocessor is not valid syntax, yet its name is known.
  {"cpp_enum_filled_by_include", "cpp", R"(class Instruction {
 public:
  enum Ops {
#define HANDLE(N, NAME) NAME = N,
#include "ops.def"
  };
  int opcode;
};
)",
   {{"Instruction", "class", 1}, {"Ops", "enum", 3, "Instruction"}, {"opcode", "field", 7, "Instruction"}},
   {}, true},
  // A header named .h (given as C) that is really C++.
  {"cpp_header_given_as_c", "c", R"(#pragma once
namespace lib {
class Parser {
 public:
  bool parse(const char* text) { return text != nullptr; }
};
}
)",
   {{"lib", "namespace", 2}, {"Parser", "class", 3, "lib"}, {"parse", "method", 5, "lib::Parser"}}, {}, false,
   "cpp"},
  // A C++ header given as C that says what it is on its first line, and one with nothing else to tell it.
  {"cpp_header_given_as_c_says_so", "c", R"(// unique_ptr implementation -*- C++ -*-
#pragma once
struct default_delete { void operator()(int* p) const { delete p; } };
)",
   {{"default_delete", "struct", 3}}, {}, false, "cpp"},
  {"cpp_header_given_as_c_with_access_only", "c", "struct Pimpl {\n  virtual ~Pimpl();\n};\n",
   {{"Pimpl", "struct", 1}, {"~Pimpl", "function_declaration", 2, "Pimpl"}}, {}, false, "cpp"},
  // A C header with C++ only for C++ callers stays C.
  {"c_header_with_cpp_for_cpp_callers", "c", R"(#ifdef __cplusplus
extern "C" {
#endif
double cos_like(double x);
#ifdef __cplusplus
}
template <typename T> T cos_like(T x);
#endif
)",
   {{"cos_like", "function_declaration", 4}, {"cos_like", "function_declaration", 7}}, {"x"}},
  // C may use C++ keywords as names.
  {"c_names_that_are_cpp_keywords", "c", "int class, friend;\nvoid set(void) {\n  class = 3;\n  friend = 4;\n}\n",
   {{"class", "variable", 1}, {"set", "function", 2}}, {}},
  // Declarations of what is defined elsewhere: prototypes and extern variables, not those inside a body.
  {"c_declarations_of_what_is_defined_elsewhere", "c", R"(extern int errno_like;
extern const char *names[], *other;
int prototype(int a);
extern void *alloc(unsigned long n) __attribute__((malloc));
int (*signal_like(int sig, void (*fn)(int)))(int);
void (*handler)(int);
int defined(void) { int local_proto(void); extern int local_ext; return 0; }
)",
   {{"errno_like", "variable_declaration", 1}, {"names", "variable_declaration", 2},
    {"other", "variable_declaration", 2}, {"prototype", "function_declaration", 3},
    {"alloc", "function_declaration", 4}, {"signal_like", "function_declaration", 5}, {"handler", "variable", 6},
    {"defined", "function", 7}},
   {"local_proto", "local_ext", "sig", "fn", "a", "n"}},
  // Decorations the parser cannot expand leave the declared name, not a type keyword.
  {"c_unknown_decorations_around_a_return_type", "c",
   "XAPI void XCALL xfree (void *p);\nGLAPI int APIENTRY glIsList (unsigned list);\n",
   {{"xfree", "function_declaration", 1}, {"glIsList", "function_declaration", 2}}, {"void", "int", "p", "list"}, true},
  {"cpp_member_and_namespace_declarations", "cpp", R"(namespace net {
class Socket {
 public:
  Socket(int fd);
  virtual ~Socket();
  int send(const char* data, int size) const;
  virtual void close() = 0;
  friend bool operator==(const Socket&, const Socket&);
  friend void swap(Socket& a, Socket& b);
  static int open_count;
  explicit operator bool() const;
  operator int() const { return 1; }
};
extern "C" int c_entry(void);
template <typename T>
T parse(const char* text);
int connect(const char* host, int port);
template <typename T> wrap(T) -> wrap<T>;
}
)",
   {{"Socket", "function_declaration", 4, "net::Socket"}, {"~Socket", "function_declaration", 5, "net::Socket"},
    {"send", "function_declaration", 6, "net::Socket"}, {"close", "function_declaration", 7, "net::Socket"},
    {"open_count", "field", 10, "net::Socket"}, {"operator bool", "function_declaration", 11, "net::Socket"},
    {"operator int", "method", 12, "net::Socket"}, {"c_entry", "function_declaration", 14, "net"},
    {"parse", "function_declaration", 16, "net", 0, 0, 0, 15}, {"connect", "function_declaration", 17, "net"},
    {"wrap", "function_declaration", 18, "net", 0, 0, 0, 0, true}},
   {"operator==", "swap", "fd", "data", "text", "host", "a"}},
  // Export and attribute macros in the heads of classes and functions.
  {"cpp_export_macros_in_heads", "cpp", R"(class GTEST_API_ Test {
 public:
  GTEST_API_ static void SetUpTestSuite();
};
class BOOST_SYMBOL_VISIBLE LIB_DECL(cfg) error : public std::exception {
  int code_;
};
struct LIB_API final_type final {
  int x;
};
class holder {
  BOOST_FORCEINLINE BOOST_CONSTEXPR holder() BOOST_NOEXCEPT {}
  BOOST_FORCEINLINE ~holder() {}
  LIB_DECL impl_type& add_impl(impl_type* impl);
  GTEST_API_ std::string describe() const;
};
)",
   {{"Test", "class", 1}, {"SetUpTestSuite", "function_declaration", 3, "Test"}, {"error", "class", 5},
    {"code_", "field", 6, "error"}, {"final_type", "struct", 8}, {"x", "field", 9, "final_type"},
    {"holder", "class", 11}, {"holder", "constructor", 12, "holder"}, {"~holder", "method", 13, "holder"},
    {"add_impl", "function_declaration", 14, "holder"}, {"describe", "function_declaration", 15, "holder"}},
   {"GTEST_API_", "BOOST_SYMBOL_VISIBLE", "LIB_DECL", "LIB_API", "BOOST_CONSTEXPR", "impl"}},
  // An `#if` among a constructor's member initializers, or a call's arguments.
  {"cpp_if_in_member_initializers", "cpp", R"(namespace lib {
class buf {
 public:
  buf(const buf& o)
    : a_(o.a_),
#if !defined(NO_B)
      b_(o.b_),
#endif
      c_(o.c_) {}
  int size() const;
};
struct after {};
}
)",
   {{"buf", "class", 2, "lib"}, {"buf", "constructor", 4, "lib::buf"}, {"size", "function_declaration", 10, "lib::buf"},
    {"after", "struct", 12, "lib"}}, {"b_"}},
  // Code compiled only on an `#if` (fallbacks, alternatives) is told from the rest; an include guard and
  // a group on `__cplusplus` are no condition.
  {"cpp_conditional_code", "cpp", R"(/* types */
#ifndef LIB_TYPES_H
#define LIB_TYPES_H
#ifdef __cplusplus
extern "C" {
#endif
#if defined(_MSC_VER)
typedef unsigned __int64 u64;
#else
typedef unsigned long long u64;
#endif
typedef int always_t;
#ifndef LIB_MAX
#define LIB_MAX 10
#endif
int api(void);
#ifdef __cplusplus
}
#endif
#if __cplusplus >= 201103L
class modern {};
#endif
#endif /* LIB_TYPES_H */
)",
   {{"LIB_TYPES_H", "macro", 3}, {"u64", "type", 8, "", 0, 0, 0, 0, false, true},
    {"u64", "type", 10, "", 0, 0, 0, 0, false, true}, {"always_t", "type", 12},
    {"LIB_MAX", "macro", 14, "", 0, 0, 0, 0, false, true}, {"api", "function_declaration", 16},
    {"modern", "class", 21}}, {}},
  {"c_conditional_code_at_the_top", "c",
   "#ifdef FEATURE\nint feature_only(void);\n#endif\nint after(void);\n#ifdef __USE_GNU\nint gnu_api(void);\n#endif\n",
   {{"feature_only", "function_declaration", 2, "", 0, 0, 0, 0, false, true}, {"after", "function_declaration", 4},
    {"gnu_api", "function_declaration", 6}}, {}},
  // A specialization and its members are told from the template's.
  {"cpp_template_specialization", "cpp", R"(template <typename T, typename A> class vec { void push(T x); };
template <typename A> class vec<bool, A> { void push(bool x); struct ref { int bit; }; };
)",
   {{"vec", "class", 1}, {"push", "function_declaration", 1, "vec"},
    {"vec", "class", 2, "", 0, 0, 0, 0, true}, {"push", "function_declaration", 2, "vec", 0, 0, 0, 0, true},
    {"bit", "field", 2, "vec::ref", 0, 0, 0, 0, true}}},
  // `#if` sections that each hold a piece of one declaration: one of them is read.
  {"cpp_if_sections_that_split_a_declaration", "cpp", R"(class io_context
  : public execution_context
{
public:
  template <typename Handler>
#if defined(GENERATING_DOCUMENTATION)
  unspecified
#else
  detail::wrapped_handler<io_context&, Handler>
#endif
  wrap(Handler handler);
#if defined(LEGACY)
  void run() {
#else
  void run() noexcept {
#endif
    poll();
  }
  int count() const { return 0; }
};
#if defined(_WIN32)
class endpoint : public win_base
#else
class endpoint : public posix_base
#endif
{
  int port;
};
enum flags {
  read_flag,
#if defined(HAS_WRITE)
  write_flag,
#else
  no_write_flag,
#endif
  last_flag
};
)",
   {{"io_context", "class", 1}, {"wrap", "function_declaration", 11, "io_context"},
    {"run", "method", 13, "io_context", 0, 0, 0, 0, false, true}, {"count", "method", 19, "io_context"},
    {"endpoint", "class", 22, "", 0, 0, 0, 0, false, true}, {"port", "field", 27, "endpoint"}, {"flags", "enum", 29},
    {"read_flag", "enumerator", 30, "flags"}, {"write_flag", "enumerator", 32, "flags", 0, 0, 0, 0, false, true},
    {"no_write_flag", "enumerator", 34, "flags", 0, 0, 0, 0, false, true},
    {"last_flag", "enumerator", 36, "flags"}},
   {"handler", "poll"}},
  {"javascript_functions_classes_consts", "javascript", R"(const LIMIT = 5;
let mutable = 1;
var old = 2;
function plain(a) { const inside = a; return inside; }
function* gen() {}
const arrow = (x) => { let y = x; return y; };
class Shape {
  static count = 0;
  constructor(n) { this.n = n; }
  area() { return 0; }
  #secret() {}
}
)",
   {{"LIMIT", "constant", 1}, {"mutable", "variable", 2}, {"old", "variable", 3}, {"plain", "function", 4},
    {"gen", "function", 5}, {"arrow", "function", 6}, {"Shape", "class", 7}, {"count", "field", 8, "Shape"},
    {"constructor", "constructor", 9, "Shape"}, {"area", "method", 10, "Shape"}, {"#secret", "method", 11, "Shape"}},
   {"inside", "y", "a", "x"}},
  {"typescript_enums_aliases_interfaces", "typescript", R"(export enum Direction { Up, Down = 2 }
type Id = string | number;
interface Named {
  name: string;
  greet(): void;
}
abstract class Base {
  abstract run(): void;
  protected value: number = 0;
}
namespace Space { export const inSpace = 1; }
declare function external(x: number): void;
export function make(): Named { return { name: "", greet() {} }; }
)",
   {{"Direction", "enum", 1}, {"Up", "enumerator", 1, "Direction"}, {"Down", "enumerator", 1, "Direction"},
    {"Id", "type", 2}, {"Named", "interface", 3}, {"name", "property", 4, "Named"}, {"greet", "method", 5, "Named"},
    {"Base", "class", 7}, {"run", "method", 8, "Base"}, {"value", "field", 9, "Base"}, {"Space", "namespace", 11},
    {"inSpace", "constant", 11, "Space"}, {"external", "function", 12}, {"make", "function", 13}}, {}},
  {"tsx_component", "tsx", R"(interface Props { title: string }
export const Title = (p: Props) => <h1>{p.title}</h1>;
export default class Page extends Component<Props> {
  render() { return <div />; }
}
)",
   {{"Props", "interface", 1}, {"title", "property", 1, "Props"}, {"Title", "function", 2}, {"Page", "class", 3},
    {"render", "method", 4, "Page"}}, {}},
  // A module's names exported under another name: of the kind of what they name when the module defines it.
  {"typescript_export_aliases", "typescript", R"(type TypeOf<T> = T;
function enumType() {}
export type { TypeOf as infer };
export { enumType as enum, outside as renamed, plain };
export { default as Button } from "./button";
export { plain as default };
)",
   {{"infer", "type", 3}, {"enum", "function", 4}, {"renamed", "variable", 4}, {"Button", "variable", 5}},
   {"plain", "outside", "default"}},
  {"go_consts_vars_methods", "go", R"(package shapes

const Pi = 3.14
const (
	A = iota
	B
)
var Global, Other int

type Point struct {
	X, Y int
}
type Shape interface {
	Area() float64
}
type Celsius float64

func New() *Point { v := 1; var local int; _ = v; return &Point{} }
func (p *Point) Move(dx int) {}
func (p Point) Area() float64 { return 0 }
func (s *Stack[T]) Push(v T) {}
)",
   {{"shapes", "module", 1}, {"Pi", "constant", 3}, {"A", "constant", 5}, {"B", "constant", 6},
    {"Global", "variable", 8}, {"Other", "variable", 8}, {"Point", "struct", 10}, {"X", "field", 11, "Point"},
    {"Y", "field", 11, "Point"}, {"Shape", "interface", 13}, {"Area", "method", 14, "Shape"}, {"Celsius", "type", 16},
    {"New", "function", 18}, {"Move", "method", 19, "Point"}, {"Area", "method", 20, "Point"},
    {"Push", "method", 21, "Stack"}},
   {"local", "v", "dx"}},
  {"rust_impls_traits_enums", "rust", R"(mod geometry {
    pub struct Point { pub x: i32, y: i32 }
    pub enum Shape { Circle(f64), Square { side: f64 } }
    pub trait Area {
        fn area(&self) -> f64;
        fn describe(&self) -> String { String::new() }
    }
    impl Area for Point {
        fn area(&self) -> f64 { let local = 0.0; local }
    }
    impl<T> Wrapper<T> {
        pub fn new() -> Self { todo!() }
        const LIMIT: usize = 3;
    }
}
const MAX: u32 = 10;
static mut COUNTER: u32 = 0;
type Pair = (i32, i32);
macro_rules! square { ($x:expr) => { $x * $x }; }
union Bits { i: u32, f: f32 }
fn main() { let closure = |v: i32| v + 1; }
)",
   {{"geometry", "module", 1}, {"Point", "struct", 2, "geometry"}, {"x", "field", 2, "geometry::Point"},
    {"Shape", "enum", 3, "geometry"}, {"Circle", "enumerator", 3, "geometry::Shape"},
    {"Area", "trait", 4, "geometry"}, {"area", "method", 5, "geometry::Area"},
    {"describe", "method", 6, "geometry::Area"}, {"area", "method", 9, "geometry::Point"},
    {"new", "method", 12, "geometry::Wrapper"}, {"LIMIT", "constant", 13, "geometry::Wrapper"},
    {"MAX", "constant", 16}, {"COUNTER", "variable", 17}, {"Pair", "type", 18}, {"square", "macro", 19},
    {"Bits", "union", 20}, {"i", "field", 20, "Bits"}, {"main", "function", 21}}, {"local", "closure", "v"}},
  {"java_enums_constructors_fields", "java", R"(package app;
public class Account {
    private static final int LIMIT = 5;
    private int balance, overdraft;
    public Account(int start) { int local = start; balance = local; }
    public void deposit(int amount) {}
    enum Status { OPEN, CLOSED; boolean open() { return this == OPEN; } }
    interface Listener { int VERSION = 1; void changed(); }
    record Entry(int id) {}
}
@interface Marker {}
)",
   {{"Account", "class", 2}, {"LIMIT", "field", 3, "Account"}, {"balance", "field", 4, "Account"},
    {"overdraft", "field", 4, "Account"}, {"Account", "constructor", 5, "Account"},
    {"deposit", "method", 6, "Account"}, {"Status", "enum", 7, "Account"},
    {"OPEN", "enumerator", 7, "Account.Status"}, {"CLOSED", "enumerator", 7, "Account.Status"},
    {"open", "method", 7, "Account.Status"}, {"Listener", "interface", 8, "Account"},
    {"VERSION", "constant", 8, "Account.Listener"}, {"changed", "method", 8, "Account.Listener"},
    {"Entry", "class", 9, "Account"}, {"Marker", "interface", 11}}, {"local", "amount", "start"}},
  // White space after a directive (a header guard's name, a stray #endif, CRLF lines) does not hide the
  // line after it.
  {"c_directives_ending_in_white_space", "c",
   "#define GUARD \nint after_guard(void) { return 0; }\n#endif \t\nint after_endif(void) { return 1; }\n"
   "#define VALUE 1  \nint after_value(void) { return 2; }\r\n#define CR \r\nint after_cr(void) { return 3; }\r\n",
   {{"GUARD", "macro", 1}, {"after_guard", "function", 2}, {"after_endif", "function", 4}, {"VALUE", "macro", 5},
    {"after_value", "function", 6}, {"CR", "macro", 7}, {"after_cr", "function", 8}}},
  // Broken sources: the definitions around the error still come from the partial parse.
  {"python_syntax_error", "python", "def before():\n    pass\n\ndef broken(:\n    pass\n\nclass After:\n    def m(self):\n        pass\n",
   {{"before", "function", 1}, {"After", "class", 7}, {"m", "method", 8, "After"}}, {}, true},
  {"c_syntax_error", "c", "int before(void) { return 0; }\nint broken( { ;\nstruct after { int x; };\n#define LATE 1\n",
   {{"before", "function", 1}, {"after", "struct", 3}, {"LATE", "macro", 4}}, {}, true},
  {"cpp_syntax_error", "cpp", "namespace n {\nclass A { int f() { return 1 } };\nvoid g() {}\n}\n",
   {{"n", "namespace", 1}, {"A", "class", 2, "n"}, {"g", "function", 3, "n"}}, {}, true},
  {"go_syntax_error", "go", "package p\nfunc A() {}\nfunc B( {\n}\ntype T struct{}\n",
   {{"A", "function", 2}, {"T", "struct", 5}}, {}, true},
  {"rust_syntax_error", "rust", "fn a() {}\nfn b( -> {}\nstruct S;\n", {{"a", "function", 1}, {"S", "struct", 3}}, {},
   true},
  {"java_syntax_error", "java", "class K {\n  void a() {}\n  void b( {}\n  int c;\n}\n",
   {{"K", "class", 1}, {"a", "method", 2, "K"}}, {}, true},
};
// clang-format on

TEST_P(ExtractSymbols, FindsTheDefinitions) {
  const Case& c = GetParam();
  const ParseResult r = extract_symbols(c.language, c.source);
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(r.syntax_errors, c.syntax_errors);
  EXPECT_EQ(r.language, c.recorded.empty() ? c.language : c.recorded);
  for (const Def& d : c.expected) {
    EXPECT_TRUE(std::any_of(r.symbols.begin(), r.symbols.end(), [&](const storage::SymbolRow& s) {
      return s.name == d.name && s.kind == d.kind && s.line == d.line && s.scope == d.scope &&
             (d.column == 0 || s.column == d.column) && (d.end_line == 0 || s.end_line == d.end_line) &&
             (d.end_column == 0 || s.end_column == d.end_column) && (d.start_line == 0 || s.start_line == d.start_line) &&
             s.specialization == d.specialization && s.conditional == d.conditional;
    })) << "missing " << d.name << " " << d.kind << " line " << d.line << " scope '" << d.scope << "'; found:\n"
        << describe(r.symbols);
  }
  std::set<std::tuple<std::string, int, int>> seen;
  for (const auto& s : r.symbols) {
    EXPECT_FALSE(std::find(c.absent.begin(), c.absent.end(), s.name) != c.absent.end())
        << s.name << " must not be a definition; found:\n" << describe(r.symbols);
    EXPECT_TRUE(seen.emplace(s.name, s.line, s.column).second) << "tagged twice: " << s.name;
  }
}

INSTANTIATE_TEST_SUITE_P(Languages, ExtractSymbols, ::testing::ValuesIn(cases),
                         [](const auto& info) { return info.param.label; });

// The matchers written in code for C, C++ and Python find exactly what the definition queries find, file
// by file: the samples above and every 61st C, C++ and Python file of the system's headers and Python
// modules, or every file of the trees in BRENLOC_MATCHER_TREES (colon-separated) when it is set.
TEST(CodeMatchers, FindWhatTheQueriesFind) {
  std::vector<std::tuple<std::string, std::string, std::string>> sources;  // label, language, text
  for (const Case& c : cases) sources.emplace_back(c.label, c.language, c.source);
  const char* trees_env = std::getenv("BRENLOC_MATCHER_TREES");
  const std::string trees = trees_env ? trees_env : "/usr/include:/usr/lib/python3";
  const std::size_t stride = trees_env ? 1 : 61;
  std::size_t n = 0;
  for (const auto& tree : fmt::format("{}", trees) | std::views::split(':')) {
    std::vector<std::filesystem::path> files;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(
             std::string_view(tree.begin(), tree.end()), std::filesystem::directory_options::skip_permission_denied, ec);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
      const auto lang = language_for_path(it->path());
      if (lang && (*lang == "c" || *lang == "cpp" || *lang == "python") && it->is_regular_file(ec) &&
          !it->is_symlink(ec) && it->file_size(ec) <= (1u << 20)) {
        files.push_back(it->path());
      }
    }
    std::sort(files.begin(), files.end());
    for (const auto& f : files) {
      if (n++ % stride != 0) continue;
      std::ifstream in(f, std::ios::binary);
      sources.emplace_back(f.string(), std::string(*language_for_path(f)),
                           std::string(std::istreambuf_iterator<char>(in), {}));
    }
  }
  ASSERT_GT(sources.size(), std::size(cases) + 100) << "the system trees are missing";
  // Each of these languages has a matcher (else the comparison below would compare the queries with themselves).
  for (const char* language : {"c", "cpp", "python"}) EXPECT_TRUE(CodeMatcher::exists_for(language)) << language;
  for (const auto& [label, language, text] : sources) {
    const ParseResult code = extract_symbols(language, text, 0ms);
    const ParseResult queries = extract_symbols(language, text, 0ms, Matching::queries);
    ASSERT_EQ(code.ok, queries.ok) << label;
    ASSERT_EQ(describe(code.symbols), describe(queries.symbols)) << label;
  }
}

TEST(TimeLimit, FailsTheParseAndLeavesTheParserUsable) {
  std::string big;  // far more than a millisecond of parsing
  for (int i = 0; i < 20000; ++i) {
    big += "namespace n" + std::to_string(i) + " { struct S { int a; int f(int x) { return x * a + " +
           std::to_string(i) + "; } }; }\n";
  }
  const ParseResult slow = extract_symbols("cpp", big, 1ms);
  EXPECT_FALSE(slow.ok);
  EXPECT_NE(slow.error.find("time limit"), std::string::npos) << slow.error;
  EXPECT_TRUE(slow.symbols.empty());
  // The next parse on this thread starts afresh rather than resuming the cancelled one.
  const ParseResult next = extract_symbols("cpp", "struct Fresh { int a; };\n");
  ASSERT_TRUE(next.ok) << next.error;
  EXPECT_FALSE(next.syntax_errors);
  EXPECT_EQ(describe(next.symbols), "  Fresh struct 1:8-1:23 scope ''\n  a field 1:20-1:21 scope 'Fresh'\n");
}

// Many threads parse at once, eight per core. Each gets the same definitions as a lone parse, whatever the
// others parse meanwhile; and a file whose whole extraction alone needs a third of the limit in CPU time
// makes it, though on the clock each parse takes several limits: the limit counts the parsing thread's CPU time.
TEST(TimeLimit, ManyThreadsGetTheSameResultsAndTheLimitCountsTheirCpuTime) {
  std::string src;
  for (int i = 0; i < 1500; ++i) src += "namespace n" + std::to_string(i) + " { struct S { int f(int x) { return x; } }; }\n";
  const auto cpu_now = [] {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
  };
  ASSERT_TRUE(extract_symbols("cpp", src, 0ms).ok);  // warm up; 0: no limit
  std::vector<std::chrono::nanoseconds> alone;
  for (int i = 0; i < 3; ++i) {
    const auto t0 = cpu_now();
    ASSERT_TRUE(extract_symbols("cpp", src, 0ms).ok);
    alone.push_back(cpu_now() - t0);
  }
  std::sort(alone.begin(), alone.end());
  // A third of the limit alone: sixteen threads on two cores share caches and the sanitizers' locks, which
  // costs each some CPU time of its own (half the limit was too little under ASan on a loaded machine).
  const auto limit = std::max(20ms, std::chrono::ceil<std::chrono::milliseconds>(alone[1] * 3));
  std::vector<std::string> expected;
  for (const auto& c : cases) expected.push_back(describe(extract_symbols(c.language, c.source).symbols));

  const std::size_t threads = 8 * std::max(1u, std::thread::hardware_concurrency()), n = std::size(cases);
  std::vector<int> failed(threads, 0), mismatches(threads, 0);
  std::vector<std::chrono::steady_clock::duration> wall(threads);
  std::vector<std::thread> pool;
  for (std::size_t t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      if (!extract_symbols("cpp", src, 0ms).ok) ++failed[t];  // this thread's parser, warmed up
      for (int round = 0; round < 2; ++round) {
        const auto t0 = std::chrono::steady_clock::now();
        if (!extract_symbols("cpp", src, limit).ok) ++failed[t];
        wall[t] = std::max(wall[t], std::chrono::steady_clock::now() - t0);
        for (std::size_t i = 0; i < 5 * n; ++i) {
          const std::size_t k = (i + t * 5) % n;  // different orders
          const ParseResult r = extract_symbols(cases[k].language, cases[k].source);
          if (!r.ok || describe(r.symbols) != expected[k]) ++mismatches[t];
        }
      }
    });
  }
  for (auto& th : pool) th.join();
  for (std::size_t t = 0; t < threads; ++t) {
    EXPECT_EQ(failed[t], 0) << "thread " << t << ", limit " << limit.count() << " ms";
    EXPECT_EQ(mismatches[t], 0) << "thread " << t;
  }
  // The machine was busy: on the clock, extractions took several limits.
  std::sort(wall.begin(), wall.end());
  EXPECT_GT(wall[threads / 2], 2 * limit);
}

TEST(Languages, EveryLanguageOfTheTableHasAParser) {
  for (const auto& entry : LANGUAGE_EXTENSIONS) {
    EXPECT_TRUE(extract_symbols(entry.language, "").ok) << entry.language;
    EXPECT_TRUE(parse_only(entry.language, "")) << entry.language;
  }
  const ParseResult r = extract_symbols("cobol", "IDENTIFICATION DIVISION.");
  EXPECT_FALSE(r.ok);
  EXPECT_NE(r.error.find("cobol"), std::string::npos) << r.error;
  EXPECT_FALSE(parse_only("cobol", "x"));
}

TEST(BlankAnnotationMacros, BlanksOnlyTheDecorations) {
  // `expected`: the same text with the decorations turned into spaces; empty: unchanged.
  const struct {
    std::string label, input, expected = {};
  } cases[] = {
    // clang-format off
    {"glibc declaration block",
     "#include <features.h>\n__BEGIN_DECLS\nextern int f (int __x) __THROW __wur __nonnull ((1));\n__END_DECLS\n",
     "#include <features.h>\n             \nextern int f (int __x)                              ;\n           \n"},
    {"glibc access attributes of fortified functions",
     "extern long read (int __fd, void *__buf) __wur\n    __fortified_attr_access (__write_only__, 2, 3);\n"
     "extern int g (void) __attr_access_none (1) __attribute_nonnull__ ((1));\n",
     "extern long read (int __fd, void *__buf)      \n                                                  ;\n"
     "extern int g (void)                                                   ;\n"},
    {"directive lines are left alone", "#define __THROW\n#ifdef __BEGIN_DECLS\n#endif\n"},
    {"libstdc++ namespace",
     "namespace std _GLIBCXX_VISIBILITY(default)\n{\n_GLIBCXX_BEGIN_NAMESPACE_VERSION\n}\n",
     "namespace std                             \n{\n                                \n}\n"},
    {"export macro between class and name",
     "class BOOST_SYMBOL_VISIBLE error : public base {};\n",
     "class                      error : public base {};\n"},
    {"struct tag in a typedef is kept", "typedef struct FOO_BAR foo_t;\n"},
    {"trailing macro after parameters",
     "  int size() const BOOST_NOEXCEPT { return 0; }\n",
     "  int size() const                { return 0; }\n"},
    {"name declared after a macro type is kept", "typedef STACK_OF(X509_NAME) NAME_STACK;\n"},
    {"leading macro before a declaration",
     "BOOST_ASIO_DECL static int f();\nMY_EXPORT_API int g();\n",
     "                static int f();\n              int g();\n"},
    {"lone macro line between declarations", "int a;\nG_BEGIN_DECLS\nint b;\n", "int a;\n             \nint b;\n"},
    {"a lone macro call over two lines before a member",
     "  void a();\n  V8_DEPRECATE_SOON(\n      \"Use b().\")\n  bool c(double d);\n  LIST_OF(\n   x) y;\n",
     "  void a();\n" + std::string(20, ' ') + "\n" + std::string(17, ' ') + "\n  bool c(double d);\n  LIST_OF(\n   x) y;\n"},
    {"zlib's linkage macros, and an old-style prototype macro with its outer parentheses",
     "ZEXTERN int ZEXPORT deflate OF((z_streamp strm,\n    int flush));\nint OF(int x);\n",
     "        int         deflate    (z_streamp strm,\n    int flush) ;\nint OF(int x);\n"},
    {"enumerators on their own lines are kept", "enum e {\n  FIRST_VALUE,\n  LAST_VALUE\n};\n"},
    {"plain code is untouched", "int main(void) { return MAX_SIZE; }\n"},
    {"export macros ending in an underscore, chained, with arguments",
     "class GTEST_API_ Test {};\nclass A_API B_DECL(x) Name : public Base {};\n",
     "class            Test {};\nclass                 Name : public Base {};\n"},
    {"macros before a type, a constructor, a destructor",
     "  LIB_DECL impl_type& add();\n  static A_CONSTEXPR ns::type q();\n  A_CONSTEXPR state(int s) : s_(s) {}\n"
     "  A_INLINE ~state() {}\n",
     "           impl_type& add();\n  static             ns::type q();\n              state(int s) : s_(s) {}\n"
     "           ~state() {}\n"},
    {"a macro that makes a parameter's type keeps its argument",
     "void f(BOOST_ASIO_MOVE_ARG(T) t,\n       BOOST_FWD_REF(U) u = U());\n",
     "void f(                    T  t,\n                     U  u = U());\n"},
    {"a type spelled like a macro is kept", "EFI_STATUS EfiMain(int a);\nMY_TYPE_T value = 0;\n"},
    {"the last of a run of macros before a name is its type", "CONSTEXPR_OR_CONST DWORD_ DELETE_ = 1;\n",
     "                   DWORD_ DELETE_ = 1;\n"},
    {"a suffix macro's arguments over lines",
     "  auto f(int a)\n    RESULT_SUFFIX((\n      decltype(a)))\n  { return a; }\n",
     "  auto f(int a)\n" + std::string(19, ' ') + "\n" + std::string(19, ' ') + "\n  { return a; }\n"},
    // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const std::string& expected = c.expected.empty() ? c.input : c.expected;
    ASSERT_EQ(c.input.size(), expected.size()) << "the table must keep lengths";
    std::string text = c.input;
    EXPECT_EQ(blank_annotation_macros(text), !c.expected.empty());
    EXPECT_EQ(text, expected);
  }
}

// Of an `#if` group whose sections each hold a piece of a declaration, one section is kept; the others and
// the group's directives become spaces. Groups of whole declarations or list items are left alone.
TEST(SplitGroups, KeepOneSectionOfAGroupThatSplitsADeclaration) {
  // Each line, and whether it stays (false: it becomes spaces).
  using Lines = std::vector<std::pair<std::string, bool>>;
  const struct {
    std::string label;
    Lines lines;
  } cases[] = {
    // clang-format off
    {"sections of whole declarations", {{"#ifdef A", true}, {"int a;", true}, {"#else", true}, {"long a;", true},
                                        {"#endif", true}}},
    {"a return type in two sections", {{"#if DOC", false}, {"unspecified", true}, {"#else", false},
                                       {"handler<T>", false}, {"#endif", false}, {"wrap(T);", true}}},
    {"a function head opened in both", {{"#if LEGACY", false}, {"void run() {", true}, {"#elif X", false},
                                        {"void run() noexcept {", false}, {"#endif", false}, {"}", true}}},
    {"the section under #if 0 is passed over", {{"#if 0", false}, {"old(", false}, {"#else", false}, {"new(", true},
                                                {"#endif", false}, {"int x);", true}}},
    {"code under #if 0 goes whole", {{"#if 0", false}, {"TEST_F(Fixture, Case) {", false}, {"}", false},
                                     {"#endif", false}, {"int x;", true}}},
    {"of #if 0 and #else the #else stays", {{"#if 0", false}, {"int old;", false}, {"#else", false},
                                            {"int current;", true}, {"#endif", false}}},
    {"a lone attribute goes", {{"#if defined(_MSC_VER)", false}, {"__declspec(deprecated(\"no\"))", false},
                               {"#endif", false}, {"void f();", true}}},
    {"a lone base class goes", {{"class X", true}, {"#ifdef HAS_BASE", false}, {"  : public Base", false},
                                {"#endif", false}, {"{};", true}}},
    {"extern C braces stay", {{"#ifdef __cplusplus", false}, {"extern \"C\" {", true}, {"#endif", false},
                              {"int f(void);", true}, {"#ifdef __cplusplus", false}, {"}", true}, {"#endif", false}}},
    {"enumerators", {{"enum e {", true}, {"#ifdef A", true}, {"  a,", true}, {"#else", true}, {"  b,", true},
                     {"#endif", true}, {"  c", true}, {"};", true}}},
    {"a split group inside a whole one", {{"#if A", true}, {"#if B", false}, {"int f(", true}, {"#else", false},
                                          {"int g(", false}, {"#endif", false}, {"int x);", true}, {"#endif", true}}},
    {"a comment opened on a directive's line", {{"#ifndef GUARD_H", true}, {"#define A 1 /* runs", true},
                                                 {"   on. */", true}, {"#endif", true}}},
    {"the macros of a section not kept stay", {{"#if X", false}, {"#define M 1", true}, {"int f(", true},
                                               {"#else", false}, {"#define M 2", true}, {"int g(", false},
                                               {"#endif", false}, {"int x);", true}}},
    {"braces in comments and literals count for nothing",
     {{"#ifdef A", true}, {"char c = '{'; /* { */", true}, {"#else", true}, {"const char* s = \"}\"; // }", true},
      {"#endif", true}}},
    // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    std::string input, expected;
    for (const auto& [line, stays] : c.lines) {
      input += line + "\n";
      expected += (stays ? line : std::string(line.size(), ' ')) + "\n";
    }
    std::string text = input;
    EXPECT_EQ(keep_one_section_of_split_groups(text), input != expected);
    EXPECT_EQ(text, expected);
  }
}

}  // namespace
}  // namespace brenloc::engines
