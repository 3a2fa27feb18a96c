// What the MCP server needs from the daemon: the tools it offers, a way to call them, the status messages
// it is to pass on to every client, and where the client's roots go.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "brenloc/json.h"

#include "brenloc/aio/task.h"
#include "brenloc/tool_binding.h"

namespace brenloc::mcp {

// What a client is told of a tool in its listing.
struct ToolDescriptor {
  std::string name;
  std::string description;
  json input_schema;
  std::string title;                    // a human-readable name; left out when empty
  json output_schema;  // the schema of the tool's structuredContent; left out when null
  json annotations;    // hints such as readOnlyHint; left out when null
};

// A status message for the clients: `level` is an MCP logging level ("info", "error", ...), `data` the
// message as the daemon made it.
using BroadcastSink = std::function<void(const std::string& level, const json& data)>;

class ToolHost {
 public:
  virtual ~ToolHost() = default;
  virtual std::vector<ToolDescriptor> tools() const = 0;
  // What the server tells the model in its `initialize` result, about when and how to use the tools.
  virtual std::string instructions() const { return {}; }
  // Runs on the event loop. Throws brenloc::ArgumentError for arguments the binder rejects, and
  // UnknownTool for a name it does not serve; any other error is the tool's own failure.
  virtual aio::Task<json> call_tool(std::string name, json arguments) = 0;
  // Registers the sink that receives every broadcast; returns an id for unsubscribe().
  virtual int subscribe(BroadcastSink sink) = 0;
  virtual void unsubscribe(int id) = 0;
  // The client's roots, for a client that offers them: the server asks for them after the handshake and
  // whenever the client says they changed. `roots_asked` as it asks, `roots_known` with the answer's result
  // (null when the client answered with an error).
  virtual void roots_asked() {}
  virtual void roots_known(const json& /*result*/) {}
};

using brenloc::UnknownTool;

}  // namespace brenloc::mcp
