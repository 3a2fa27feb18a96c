// A server on pipes, its event loop on a thread of its own, and a tool host whose tools the tests
// steer: the test writes lines as a client would and reads what the server writes back.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "brenloc/aio/task.h"
#include "brenloc/mcp/protocol.h"
#include "brenloc/mcp/server.h"
#include "brenloc/tool_binding.h"

namespace brenloc::mcp::testing {

using namespace std::chrono_literals;

// Tools: "echo" returns its arguments; "ordered" a dictionary whose keys are not in sorted order;
// "refuse" a dictionary with an "error" key; "fail" throws; "strict" rejects its arguments; "wait"
// waits until the test opens its gate, counting starts and cancellations.
class TestHost : public ToolHost {
 public:
  std::vector<ToolSpec> tools() const override {
    return {{"echo", "Returns its arguments", Json{{"type", "object"}}},
            {"wait", "Waits for the test", Json()}};
  }

  aio::Task<Json> call_tool(std::string name, Json arguments) override {
    if (name == "echo") co_return arguments.is_null() ? Json::object() : arguments;
    if (name == "ordered") co_return Json{{"status", "accepted"}, {"message", "started"}, {"clear_existing", false}};
    if (name == "refuse") co_return Json{{"error", "Path outside repository"}, {"status", "failed"}};
    if (name == "fail") throw std::runtime_error("the index is on fire");
    if (name == "strict") throw ArgumentError("limit", "argument 'limit' must be an integer");
    if (name != "wait") throw UnknownTool(name);
    ++started;
    try {
      co_await aio::shield(gate);
    } catch (const aio::Cancelled&) {
      ++cancelled;
      throw;
    }
    co_return Json{{"waited", true}};
  }

  int subscribe(BroadcastSink sink) override {
    sinks[next_id] = std::move(sink);
    return next_id++;
  }
  void unsubscribe(int id) override { sinks.erase(id); }

  void broadcast(const std::string& level, const Json& data) {
    for (auto& [id, sink] : sinks) sink(level, data);
  }

  void open_gate() { gate_state->set_result(); }

  std::atomic<int> started{0};
  std::atomic<int> cancelled{0};
  std::map<int, BroadcastSink> sinks;
  int next_id = 1;
  std::shared_ptr<aio::FutureState<void>> gate_state = std::make_shared<aio::FutureState<void>>();
  aio::Future<void> gate{gate_state};
};

class Harness {
 public:
  explicit Harness(ServerOptions options = {}) {
    int in[2], out[2];
    if (::pipe(in) != 0 || ::pipe(out) != 0) throw std::runtime_error("pipe");
    server_in_ = in[0];
    client_out_ = in[1];
    client_in_ = out[0];
    server_out_ = out[1];
    server_ = std::make_unique<McpServer>(loop_, host_, server_in_, server_out_, options);
    thread_ = std::thread([this] { loop_.run(); });
    on_loop([this] { server_->start(); });
  }

  ~Harness() {
    stop();
    loop_.stop();
    thread_.join();
    server_.reset();
    for (int fd : {server_in_, client_out_, client_in_, server_out_}) {
      if (fd >= 0) ::close(fd);
    }
  }

  TestHost& host() { return host_; }
  McpServer& server() { return *server_; }

  // Runs `fn` on the loop thread and returns its result.
  template <class F>
  auto on_loop(F fn) -> decltype(fn()) {
    std::packaged_task<decltype(fn())()> task(std::move(fn));
    auto result = task.get_future();
    loop_.post([&task] { task(); });
    if (result.wait_for(10s) != std::future_status::ready) throw std::runtime_error("the event loop is stuck");
    return result.get();
  }

  void stop() {
    if (stopped_) return;
    stopped_ = true;
    std::promise<void> done;
    loop_.post([&] { aio::spawn(signal_when_stopped(server_.get(), &done), &loop_); });
    done.get_future().wait();
  }

  void send(const std::string& line) { write_raw(line + "\n"); }

  void write_raw(const std::string& bytes) {
    std::size_t off = 0;
    while (off < bytes.size()) {
      ssize_t n = ::write(client_out_, bytes.data() + off, bytes.size() - off);
      if (n <= 0) throw std::runtime_error("write to the server failed");
      off += static_cast<std::size_t>(n);
    }
  }

  void close_input() {
    ::close(client_out_);
    client_out_ = -1;
  }

  // The next line the server wrote, or nullopt when none came within `timeout`.
  std::optional<std::string> next_line(std::chrono::milliseconds timeout = 5000ms) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      if (auto nl = buffer_.find('\n'); nl != std::string::npos) {
        std::string line = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return line;
      }
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return std::nullopt;
      pollfd p{client_in_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char chunk[65536];
      ssize_t n = ::read(client_in_, chunk, sizeof chunk);
      if (n <= 0) return std::nullopt;
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }

  // The next message, which must come within five seconds.
  Json next() {
    auto line = next_line();
    if (!line) throw std::runtime_error("no message from the server");
    return Json::parse(*line);
  }

  // A request line.
  static std::string request(const Json& id, const std::string& method, const Json& params = nullptr) {
    Json m = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
    if (!params.is_null()) m["params"] = params;
    return m.dump();
  }

  static std::string notification(const std::string& method, const Json& params) {
    return Json{{"jsonrpc", "2.0"}, {"method", method}, {"params", params}}.dump();
  }

  // Checks that the server still answers, and that nothing else was waiting before the answer.
  void expect_alive(int id = 999) {
    send(request(id, "ping"));
    EXPECT_EQ(next(), (Json{{"jsonrpc", "2.0"}, {"id", id}, {"result", Json::object()}}));
  }

 private:
  static aio::Task<void> signal_when_stopped(McpServer* server, std::promise<void>* done) {
    co_await server->stop();
    done->set_value();
  }

  aio::EventLoop loop_{2};
  TestHost host_;
  int server_in_ = -1, client_out_ = -1, client_in_ = -1, server_out_ = -1;
  std::unique_ptr<McpServer> server_;
  std::thread thread_;
  std::string buffer_;
  bool stopped_ = false;
};

}  // namespace brenloc::mcp::testing
