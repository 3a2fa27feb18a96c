// Pipes the tests write to or read from, and a server on two of them with its event loop on a thread of
// its own and a tool host whose tools the tests steer.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "brenloc/aio/task.h"
#include "brenloc/mcp/protocol.h"
#include "brenloc/mcp/server.h"
#include "brenloc/tool_binding.h"

namespace brenloc::mcp::testing {

using namespace std::chrono_literals;

struct Pipe {
  Pipe() {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe");
    r = fds[0];
    w = fds[1];
  }
  ~Pipe() {
    close_read();
    close_write();
  }
  void close_read() { ::close(std::exchange(r, -1)); }
  void close_write() { ::close(std::exchange(w, -1)); }
  void write(const std::string& s) const {
    for (std::size_t off = 0; off < s.size();) {
      const ssize_t n = ::write(w, s.data() + off, s.size() - off);
      if (n <= 0) throw std::runtime_error("write to the pipe failed");
      off += static_cast<std::size_t>(n);
    }
  }
  // The next line, or nullopt at end of file or when none came within `timeout`.
  std::optional<std::string> next_line(std::chrono::milliseconds timeout = 5000ms) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    char chunk[65536];
    while (buffer.find('\n') == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd p{r, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
      const ssize_t n = ::read(r, chunk, sizeof chunk);
      if (n <= 0) return std::nullopt;
      buffer.append(chunk, static_cast<std::size_t>(n));
    }
    std::string line = buffer.substr(0, buffer.find('\n'));
    buffer.erase(0, line.size() + 1);
    return line;
  }
  int r = -1, w = -1;
  std::string buffer;
};

// Tools: "echo" returns its arguments; "fail" throws; "strict" rejects its arguments; "wait" waits until
// the test opens its gate (or, with the argument "forever", for ever), counting starts and cancellations.
struct TestHost : ToolHost {
  std::vector<ToolDescriptor> tools() const override {
    return {{"echo", "Returns its arguments", json{{"type", "object"}}}, {"wait", "Waits for the test", json()}};
  }

  aio::Task<json> call_tool(std::string name, json arguments) override {
    if (name == "echo") co_return arguments.is_null() ? json::object() : arguments;
    if (name == "fail") throw std::runtime_error("the index is on fire");
    if (name == "strict") throw ArgumentError("limit", "argument 'limit' must be an integer");
    if (name != "wait") throw UnknownTool(name);
    ++started;
    try {
      co_await aio::shield(arguments.contains("forever") ? never : gate);
    } catch (const aio::Cancelled&) {
      ++cancelled;
      throw;
    }
    co_return json{{"waited", true}};
  }

  int subscribe(BroadcastSink sink) override {
    sinks[next_id] = std::move(sink);
    return next_id++;
  }
  void unsubscribe(int id) override { sinks.erase(id); }
  void broadcast(const std::string& level, const json& data) {
    for (auto& [id, sink] : sinks) sink(level, data);
  }

  std::atomic<int> started{0}, cancelled{0};
  std::map<int, BroadcastSink> sinks;
  int next_id = 1;
  std::shared_ptr<aio::FutureState<void>> gate_state = std::make_shared<aio::FutureState<void>>();
  aio::Future<void> gate{gate_state}, never{std::make_shared<aio::FutureState<void>>()};
};

inline std::string request(const json& id, const std::string& method, const json& params = nullptr) {
  json m = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
  if (!params.is_null()) m["params"] = params;
  return m.dump();
}

inline std::string notification(const std::string& method, const json& params) {
  return json{{"jsonrpc", "2.0"}, {"method", method}, {"params", params}}.dump();
}

struct Harness {
  // On two pipes; or, with `socket_fd`, on that one socket both ways (the pipes then go unused).
  explicit Harness(ServerOptions options = {}, int socket_fd = -1)
      : server(loop, host, socket_fd >= 0 ? socket_fd : in.r, socket_fd >= 0 ? socket_fd : out.w, options),
        thread([this] { loop.run(); }) {
    on_loop([this] { server.start(); });
  }
  ~Harness() {
    stop();
    loop.stop();
    thread.join();
  }

  // Runs `fn` on the loop thread and returns its result.
  template <class F>
  auto on_loop(F fn) -> decltype(fn()) {
    std::packaged_task<decltype(fn())()> task(std::move(fn));
    auto result = task.get_future();
    loop.post([&task] { task(); });
    if (result.wait_for(10s) != std::future_status::ready) throw std::runtime_error("the event loop is stuck");
    return result.get();
  }
  std::size_t running() { return on_loop([this] { return server.running_requests(); }); }
  std::size_t in_flight() { return on_loop([this] { return server.requests_in_flight(); }); }

  void stop() {
    if (std::exchange(stopped, true)) return;
    std::promise<void> done;
    on_loop([&] { aio::spawn(signal_when_stopped(&server, &done)); });
    done.get_future().wait();
  }
  static aio::Task<void> signal_when_stopped(McpServer* server, std::promise<void>* done) {
    co_await server->stop();
    done->set_value();
  }

  void send(const std::string& line) { in.write(line + "\n"); }
  // The next message, which must come within five seconds.
  json next() {
    auto line = out.next_line();
    if (!line) throw std::runtime_error("no message from the server");
    return json::parse(*line);
  }
  // Checks that the server still answers, and that nothing else was waiting before the answer.
  void expect_alive(const json& id = 999) {
    send(request(id, "ping"));
    EXPECT_EQ(next(), (json{{"jsonrpc", "2.0"}, {"id", id}, {"result", json::object()}}));
  }

  Pipe in, out;  // client to server, server to client
  aio::EventLoop loop{2};
  TestHost host;
  McpServer server;
  std::thread thread;
  bool stopped = false;
};

}  // namespace brenloc::mcp::testing
