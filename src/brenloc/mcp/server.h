// The MCP server: newline-delimited JSON-RPC 2.0 on a pair of file descriptors (stdin and stdout for
// `brenloc serve`), answered on the event loop from a ToolHost.
//
// A reader thread hands each input line to the loop; every request then runs as a task of its own, so
// a slow tool call never holds up a ping or a second call. Everything written goes through one writer
// thread, and the output carries nothing but protocol messages. Status broadcasts of the host reach
// the client as `notifications/message`, filtered by the level the client set.
//
// A client has at most `max_in_flight` requests in flight: taken in and not yet answered, or answered and
// not yet written to it. Beyond that the server reads nothing more from it until an answer has gone out,
// so a client that writes faster than it is answered, or does not read its answers, fills its own pipe
// or socket, never the server's memory. Tool calls of all the servers that share a FairTurns take turns
// in rotation, so one client's flood delays another's call by at most a turn.
//
// Lifetime: construct and start() on the loop thread (or before the loop runs); await stop() before
// the server and its host go away. Destroying a server that was not stopped drops its output at once
// and cancels its requests without waiting for them.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>

#include "brenloc/aio/fair_turns.h"
#include "brenloc/aio/future.h"
#include "brenloc/aio/task.h"
#include "brenloc/mcp/tool_host.h"

namespace brenloc::mcp {

// The requests a client may have in flight. A JSON-RPC batch counts each of its messages that is answered,
// and may hold no more messages than this.
inline constexpr std::size_t kMaxRequestsInFlight = 16;

struct ServerOptions {
  // A longer input line is refused with an error; the stream goes on after it.
  std::size_t max_line_bytes = 8 * 1024 * 1024;
  // Input read ahead of the loop's handling before the reader waits.
  std::size_t max_pending_input_bytes = 32 * 1024 * 1024;
  std::size_t max_in_flight = kMaxRequestsInFlight;
  // Shared with the other sessions of the daemon; null: tool calls run as they come.
  std::shared_ptr<aio::FairTurns> turns;
  // Output waiting for the client beyond which notifications are dropped (answers never are).
  std::size_t max_queued_output_bytes = 64 * 1024 * 1024;
  // How long stop() waits for the client to take the last answers.
  std::chrono::milliseconds flush_timeout{2000};
};

class McpServer {
 public:
  McpServer(aio::EventLoop& loop, ToolHost& host, int input_fd, int output_fd, ServerOptions options = {});
  ~McpServer();
  McpServer(const McpServer&) = delete;
  McpServer& operator=(const McpServer&) = delete;

  // Subscribes to the host's broadcasts and starts reading and writing.
  void start();

  // Completes on the loop when the input has ended (the client closed it, or reading failed) and every
  // line of it has been taken in (at once when the client hung up a socket: nobody is left to answer);
  // the answers to requests still running go on being written. This is the daemon's cue to stop.
  aio::Future<void> input_ended() const;

  // Stops reading, cancels the requests still running (their clients hear nothing more of them) and
  // waits for them, unsubscribes from the host, then waits up to `flush_timeout` for the client to
  // take what is queued. Idempotent.
  aio::Task<void> stop();

  // Requests running now (for tests and the daemon's status).
  std::size_t running_requests() const;
  // Requests taken in and not yet answered, or answered and not yet written.
  std::size_t requests_in_flight() const;

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

}  // namespace brenloc::mcp
