// Latency and throughput of the MCP server over pipes: 10,000 pipelined requests per batch, written
// by one thread as fast as the pipe takes them while the main thread reads the answers.
//
// Runs side by side, so that their ratios mean something on a shared machine:
//   RawPipeEcho  a thread copying the request lines straight back: the floor of the pipe round trip
//   Ping         the server answering `ping`
//   ToolCall     the server answering `tools/call` of a cheap tool (a fixed status dictionary)
//   *Lockstep    the same, one request at a time: round-trip latency without queueing
// Counters: p50_us and p99_us (per request, from its write to its answer's arrival) and req_per_s
// (requests over the span from the first write to the last answer), each the median of the batches.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "brenloc/aio/task.h"
#include "brenloc/mcp/server.h"
#include "brenloc/utils/logging.h"

namespace {

using Clock = std::chrono::steady_clock;
using brenloc::json;
namespace aio = brenloc::aio;
namespace mcp = brenloc::mcp;

constexpr int kRequests = 10'000;

struct Pipe {
  Pipe() {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe");
    r = fds[0];
    w = fds[1];
  }
  ~Pipe() {
    if (r >= 0) ::close(r);
    if (w >= 0) ::close(w);
  }
  int r = -1, w = -1;
};

void write_all(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n <= 0) throw std::runtime_error("write failed");
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

class CheapHost : public mcp::ToolHost {
 public:
  std::vector<mcp::ToolDescriptor> tools() const override { return {{"index_status", "status", json{{"type", "object"}}}}; }
  aio::Task<json> call_tool(std::string name, json arguments) override {
    co_return json{{"repo_root", "/src/project"}, {"data_dir", "/data/project-0badf00d"}, {"indexing", false},
                   {"last_reindex_error", nullptr}, {"rebuild_refusal", nullptr}, {"files", 1234},
                   {"symbols", 56789}, {"last_index", nullptr}};
  }
  int subscribe(mcp::BroadcastSink) override { return 1; }
  void unsubscribe(int) override {}
};

// Something that answers lines written to `in.w` with lines readable from `out.r`.
class Responder {
 public:
  virtual ~Responder() = default;
  Pipe in, out;
};

class ServerResponder : public Responder {
 public:
  ServerResponder() : server_(loop_, host_, in.r, out.w) {
    thread_ = std::thread([this] { loop_.run(); });
    loop_.post([this] { server_.start(); });
  }
  ~ServerResponder() override {
    std::promise<void> done;
    loop_.post([&] { aio::spawn(stop(&server_, &done), &loop_); });
    done.get_future().wait();
    loop_.stop();
    thread_.join();
  }

 private:
  static aio::Task<void> stop(mcp::McpServer* server, std::promise<void>* done) {
    co_await server->stop();
    done->set_value();
  }
  aio::EventLoop loop_{2};
  CheapHost host_;
  mcp::McpServer server_;
  std::thread thread_;
};

class EchoResponder : public Responder {
 public:
  EchoResponder() {
    thread_ = std::thread([this] {
      char buf[65536];
      for (;;) {
        ssize_t n = ::read(in.r, buf, sizeof buf);
        if (n <= 0) return;
        write_all(out.w, buf, static_cast<std::size_t>(n));
      }
    });
  }
  ~EchoResponder() override {
    ::close(std::exchange(in.w, -1));  // end of input ends the thread
    thread_.join();
  }

 private:
  std::thread thread_;
};

struct Batch {
  double p50_us, p99_us, req_per_s;
};

// The number after "id": in a line that starts {"jsonrpc":"2.0","id":N
long id_of(const std::string& buf, std::size_t begin) {
  auto at = buf.find("\"id\":", begin);
  return std::strtol(buf.c_str() + at + 5, nullptr, 10);
}

Batch run_batch(Responder& r, const std::vector<std::string>& lines) {
  std::vector<Clock::time_point> sent(lines.size()), received(lines.size());
  std::thread writer([&] {
    for (std::size_t i = 0; i < lines.size(); ++i) {
      sent[i] = Clock::now();
      write_all(r.in.w, lines[i].data(), lines[i].size());
    }
  });
  std::string buf;
  std::size_t answered = 0;
  std::size_t scan = 0;
  char chunk[65536];
  while (answered < lines.size()) {
    ssize_t n = ::read(r.out.r, chunk, sizeof chunk);
    if (n <= 0) throw std::runtime_error("read failed");
    auto now = Clock::now();
    buf.append(chunk, static_cast<std::size_t>(n));
    for (std::size_t nl; (nl = buf.find('\n', scan)) != std::string::npos; scan = nl + 1) {
      received[static_cast<std::size_t>(id_of(buf, scan))] = now;
      ++answered;
    }
    buf.erase(0, scan);
    scan = 0;
  }
  writer.join();

  std::vector<double> latency(lines.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    latency[i] = std::chrono::duration<double, std::micro>(received[i] - sent[i]).count();
  }
  std::sort(latency.begin(), latency.end());
  auto last = *std::max_element(received.begin(), received.end());
  double span = std::chrono::duration<double>(last - sent.front()).count();
  return {latency[latency.size() / 2], latency[latency.size() * 99 / 100], static_cast<double>(lines.size()) / span};
}

// One request at a time: each is written once the previous answer has arrived, so the latencies are
// round trips without queueing.
Batch run_lockstep(Responder& r, const std::vector<std::string>& lines) {
  std::vector<double> latency;
  std::string buf;
  char chunk[65536];
  auto start = Clock::now();
  for (const auto& line : lines) {
    auto sent = Clock::now();
    write_all(r.in.w, line.data(), line.size());
    std::size_t nl;
    while ((nl = buf.find('\n')) == std::string::npos) {
      ssize_t n = ::read(r.out.r, chunk, sizeof chunk);
      if (n <= 0) throw std::runtime_error("read failed");
      buf.append(chunk, static_cast<std::size_t>(n));
    }
    latency.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
    buf.erase(0, nl + 1);
  }
  double span = std::chrono::duration<double>(Clock::now() - start).count();
  std::sort(latency.begin(), latency.end());
  return {latency[latency.size() / 2], latency[latency.size() * 99 / 100], static_cast<double>(lines.size()) / span};
}

std::vector<std::string> requests(const std::string& method, const json& params) {
  std::vector<std::string> out;
  for (int i = 0; i < kRequests; ++i) {
    json m = {{"jsonrpc", "2.0"}, {"id", i}, {"method", method}};
    if (!params.is_null()) m["params"] = params;
    out.push_back(m.dump() + "\n");
  }
  return out;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

template <class R>
void measure(benchmark::State& state, const std::vector<std::string>& lines, bool lockstep = false) {
  brenloc::utils::get_logger("brenloc.mcp")->set_level(spdlog::level::warn);
  R responder;
  std::vector<double> p50, p99, rate;
  for (auto _ : state) {
    Batch b = lockstep ? run_lockstep(responder, lines) : run_batch(responder, lines);
    p50.push_back(b.p50_us);
    p99.push_back(b.p99_us);
    rate.push_back(b.req_per_s);
  }
  state.counters["p50_us"] = median(p50);
  state.counters["p99_us"] = median(p99);
  state.counters["req_per_s"] = median(rate);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(lines.size()));
}

std::vector<std::string> tool_calls() {
  return requests("tools/call", {{"name", "index_status"}, {"arguments", json::object()}});
}

void RawPipeEcho(benchmark::State& state) { measure<EchoResponder>(state, requests("ping", nullptr)); }
void Ping(benchmark::State& state) { measure<ServerResponder>(state, requests("ping", nullptr)); }
void ToolCall(benchmark::State& state) { measure<ServerResponder>(state, tool_calls()); }
void RawPipeEchoLockstep(benchmark::State& state) { measure<EchoResponder>(state, requests("ping", nullptr), true); }
void ToolCallLockstep(benchmark::State& state) { measure<ServerResponder>(state, tool_calls(), true); }

BENCHMARK(RawPipeEcho)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Ping)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ToolCall)->Iterations(5)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(RawPipeEchoLockstep)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ToolCallLockstep)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
