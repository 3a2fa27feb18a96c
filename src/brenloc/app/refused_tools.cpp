#include "brenloc/app/refused_tools.h"

#include <algorithm>
#include <stdexcept>

#include "brenloc/app/session_tools.h"

namespace brenloc::app {

std::vector<mcp::ToolDescriptor> RefusedTools::tools() const { return session_tool_descriptors(); }

std::string RefusedTools::instructions() const { return session_instructions(); }

aio::Task<nlohmann::ordered_json> RefusedTools::call_tool(std::string name, nlohmann::ordered_json) {
  // An unknown name is the protocol's error, as from a serving worker.
  const auto listed = tools();
  if (std::none_of(listed.begin(), listed.end(), [&](const auto& t) { return t.name == name; })) throw UnknownTool(name);
  throw std::runtime_error(reason_);
  co_return nlohmann::ordered_json();
}

}  // namespace brenloc::app
