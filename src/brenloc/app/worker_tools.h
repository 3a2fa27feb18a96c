// The tools of a repository worker as the MCP server sees them (the table of tools/tool_table.h), what the
// model is told about them, and the worker's status messages as MCP log levels ("error" for a failed
// reindex, "info" otherwise).
#pragma once

#include "brenloc/daemon/worker.h"
#include "brenloc/mcp/tool_host.h"

namespace brenloc::app {

// The descriptors of a worker's tools (the same for every worker).
std::vector<mcp::ToolDescriptor> worker_tool_descriptors();
// What the model is told about the tools in the `initialize` result.
std::string worker_instructions();

class WorkerTools final : public mcp::ToolHost {
 public:
  explicit WorkerTools(daemon::RepoWorker& worker) : worker_(worker) {}

  std::vector<mcp::ToolDescriptor> tools() const override;
  std::string instructions() const override;
  aio::Task<json> call_tool(std::string name, json arguments) override;
  int subscribe(mcp::BroadcastSink sink) override;
  void unsubscribe(int id) override;

  // The MCP log level of a status message.
  static std::string level_of(const json& message);

 private:
  daemon::RepoWorker& worker_;
};

}  // namespace brenloc::app
