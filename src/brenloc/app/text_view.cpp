#include "brenloc/app/text_view.h"

#include <fmt/format.h>

namespace brenloc::app {

namespace {

using json = nlohmann::ordered_json;

std::string text_of(const json& j, const char* key) {
  auto it = j.find(key);
  return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

long number_of(const json& j, const char* key) {
  auto it = j.find(key);
  return it != j.end() && it->is_number_integer() ? it->get<long>() : 0;
}

// A name with its scope, joined as its language writes it.
std::string qualified(const json& hit) {
  const std::string scope = text_of(hit, "scope"), language = text_of(hit, "language");
  if (scope.empty()) return text_of(hit, "name");
  const bool colons = language == "c" || language == "cpp" || language == "rust";
  return scope + (colons ? "::" : ".") + text_of(hit, "name");
}

std::string one_line(std::string s) {
  for (char& c : s) c = c == '\n' || c == '\r' || c == '\t' ? ' ' : c;
  return s;
}

void outline_lines(const std::string& path, const json& symbols, int depth, std::string& out) {
  for (const auto& s : symbols) {
    out += fmt::format("{}:{}: {}{} {}\n", path, number_of(s, "line"), std::string(2 * depth, ' '), text_of(s, "kind"),
                       text_of(s, "name"));
    if (s.contains("children")) outline_lines(path, s["children"], depth + 1, out);
  }
}

}  // namespace

TextView search_text(const json& answer) {
  TextView view;
  for (const auto& hit : answer.value("results", json::array())) {
    std::string line = fmt::format("{}:{}: {} {}", text_of(hit, "path"), number_of(hit, "line"), text_of(hit, "kind"),
                                   qualified(hit));
    if (const std::string signature = text_of(hit, "signature"); !signature.empty()) line += "  " + one_line(signature);
    view.lines += line + "\n";
  }
  const long count = number_of(answer, "count"), total = number_of(answer, "total");
  if (count < total || answer.value("more", false) || answer.value("truncated", false)) {
    view.notes.push_back(fmt::format("{} of {}{} shown (--limit and --max-bytes show more)", count, total,
                                     answer.value("more", false) ? "+" : ""));
  }
  if (const std::string note = text_of(answer, "note"); !note.empty()) view.notes.push_back(note);
  return view;
}

TextView outline_text(const json& answer) {
  TextView view;
  outline_lines(text_of(answer, "path"), answer.value("symbols", json::array()), 0, view.lines);
  if (answer.value("truncated", false)) {
    view.notes.push_back(fmt::format("{} of {} definitions shown", number_of(answer, "count"), number_of(answer, "total")));
  }
  return view;
}

TextView source_text(const json& answer) {
  TextView view;
  view.lines = fmt::format("{}:{}-{}: {} {}\n", text_of(answer, "path"), number_of(answer, "start_line"),
                           number_of(answer, "end_line"), text_of(answer, "kind"), qualified(answer));
  std::string source = text_of(answer, "source");
  if (!source.empty() && source.back() != '\n') source += '\n';
  view.lines += source;
  if (answer.value("truncated", false)) view.notes.push_back("the source is cut (--max-lines shows more)");
  if (const long others = number_of(answer, "other_matches"); others > 0) {
    view.notes.push_back(fmt::format("{} other definition{} of that name (--path, --kind or --line choose)", others,
                                     others == 1 ? "" : "s"));
  }
  return view;
}

TextView references_text(const json& answer) {
  TextView view;
  for (const auto& file : answer.value("files", json::array())) {
    for (const auto& use : file.value("references", json::array())) {
      view.lines += fmt::format("{}:{}:{}: {}\n", text_of(file, "path"), number_of(use, "line"), number_of(use, "column"),
                                one_line(text_of(use, "text")));
    }
  }
  const long count = number_of(answer, "count"), total = number_of(answer, "total");
  if (const std::string next = text_of(answer, "next_cursor"); !next.empty()) {
    view.notes.push_back(fmt::format("{} of {}{} shown (--cursor {} shows the next)", count, total,
                                     answer.value("more", false) ? "+" : "", next));
  }
  if (const std::string note = text_of(answer, "note"); !note.empty()) view.notes.push_back(note);
  return view;
}

TextView importers_text(const json& answer) {
  TextView view;
  for (const auto& row : answer.value("importers", json::array())) {
    view.lines += fmt::format("{}:{}: {}\n", text_of(row, "path"), number_of(row, "line"), text_of(row, "import"));
  }
  if (answer.value("truncated", false)) {
    view.notes.push_back(fmt::format("{} of {} shown (--limit and --max-bytes show more)", number_of(answer, "count"),
                                     number_of(answer, "total")));
  }
  if (const std::string note = text_of(answer, "note"); !note.empty()) view.notes.push_back(note);
  return view;
}

}  // namespace brenloc::app
