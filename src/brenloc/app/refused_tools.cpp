#include "brenloc/app/refused_tools.h"

#include <stdexcept>

#include "brenloc/app/worker_tools.h"
#include "brenloc/tools/tool_table.h"

namespace brenloc::app {

std::vector<mcp::ToolDescriptor> RefusedTools::tools() const { return worker_tool_descriptors(); }

std::string RefusedTools::instructions() const { return worker_instructions(); }

aio::Task<nlohmann::ordered_json> RefusedTools::call_tool(std::string name, nlohmann::ordered_json) {
  tools::find_tool(name);  // an unknown name is the protocol's error, as from a serving worker
  throw std::runtime_error(reason_);
  co_return nlohmann::ordered_json();
}

}  // namespace brenloc::app
