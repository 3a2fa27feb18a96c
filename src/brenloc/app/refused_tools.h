// The worker's tools as listed, each call answered with one reason why none can run: what a server
// that may not open the repository (another process owns its data directory) offers, so that its
// client completes the handshake and reads the reason instead of losing the connection.
#pragma once

#include <string>

#include "brenloc/mcp/tool_host.h"

namespace brenloc::app {

class RefusedTools final : public mcp::ToolHost {
 public:
  explicit RefusedTools(std::string reason) : reason_(std::move(reason)) {}

  std::vector<mcp::ToolDescriptor> tools() const override;
  std::string instructions() const override;
  aio::Task<nlohmann::ordered_json> call_tool(std::string name, nlohmann::ordered_json arguments) override;
  int subscribe(mcp::BroadcastSink) override { return 0; }
  void unsubscribe(int) override {}

 private:
  std::string reason_;
};

}  // namespace brenloc::app
