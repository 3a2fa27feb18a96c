#include "brenloc/mcp/server.h"

#include <atomic>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "brenloc/aio/outcome.h"
#include "brenloc/aio/thread.h"
#include "brenloc/mcp/line_io.h"
#include "brenloc/mcp/protocol.h"
#include "brenloc/tool_binding.h"
#include "brenloc/utils/logging.h"

namespace brenloc::mcp {

namespace {

std::shared_ptr<spdlog::logger> logger() { return utils::get_logger("brenloc.mcp"); }

constexpr int kDefaultLevel = 1;  // info

std::string_view trim_line(std::string_view line) {
  while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
  while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
  return line;
}

json invalid_params(const json& id, const std::string& what, json data = nullptr) {
  return make_error(id, kInvalidParams, "Invalid params: " + what, std::move(data));
}

// What the broadcast sink shares with the server: it may be called after the server is gone.
struct Outbox {
  Outbox(int fd, std::size_t soft_limit) : writer(fd, soft_limit) {}
  LineWriter writer;
  std::atomic<int> min_level{kDefaultLevel};
};

}  // namespace

// The answers to the requests of one JSON-RPC batch, sent together once the last of them is in.
struct Batch {
  json answers = json::array();
  int outstanding = 1;    // the dispatch of the batch itself counts until all its members are seen
  std::size_t slots = 0;  // of the requests in flight: one per member that is answered
};

struct McpServer::Core : std::enable_shared_from_this<Core> {
  struct Running {
    aio::Future<void> task;
    bool cancellable = true;
    bool cancelled = false;  // the client asked to hear no more of it
  };

  // Forgets a request once its task has ended, however it ended (also when it was cancelled before
  // its body ever ran).
  struct Reaper final : aio::DoneListener {
    Reaper(std::weak_ptr<Core> c, std::string k) : core(std::move(c)), key(std::move(k)) {}
    void on_done() override {
      if (auto c = core.lock()) c->running.erase(key);
      delete this;
    }
    std::weak_ptr<Core> core;
    std::string key;
  };

  Core(aio::EventLoop& l, ToolHost& h, int in, int out_fd, ServerOptions o)
      : loop(&l),
        host(&h),
        input_fd(in),
        options(o),
        out(std::make_shared<Outbox>(out_fd, o.max_queued_output_bytes)),
        ended(std::make_shared<aio::FutureState<void>>()) {}

  aio::EventLoop* loop;
  ToolHost* host;
  int input_fd;
  ServerOptions options;
  std::shared_ptr<Outbox> out;
  std::unique_ptr<LineReader> reader;
  std::unique_ptr<aio::FairTurns::Party> party;  // when the server takes turns with others
  // Requests taken in and not answered, or answered and not yet written; lines wait in `backlog` (and
  // the reader stops) while they are at the limit.
  std::size_t in_flight = 0;
  std::deque<InputEvent> backlog;
  bool input_over = false;  // the reader has delivered its last event
  bool throttled = false;   // said once per session in the log
  std::unordered_map<std::string, Running> running;
  std::shared_ptr<aio::FutureState<void>> ended;
  std::optional<int> subscription;
  std::string protocol_version;  // negotiated by initialize
  bool client_roots = false;     // the client offers its roots (capabilities.roots in its initialize)
  std::string roots_request;     // the id key of the last roots/list sent, until its answer
  long long roots_asked = 0;
  aio::Future<void> stopping_task;
  bool stopping = false;

  // A request (or a message answered with an error) takes its place among those in flight.
  void take_slot(const std::shared_ptr<Batch>& batch) {
    ++in_flight;
    if (batch) ++batch->slots;
  }

  void release_slots(std::size_t n) {
    in_flight -= std::min(n, in_flight);
    while (!stopping && in_flight < options.max_in_flight && !backlog.empty()) {
      InputEvent ev = std::move(backlog.front());
      backlog.pop_front();
      take_in(std::move(ev));
    }
    if (input_over && backlog.empty() && !ended->done()) ended->set_result();
  }

  // Sends an answer that holds `slots` places in flight; they are given back once it is written (or lost
  // with the client).
  void send_answer(const json& message, std::size_t slots) {
    std::weak_ptr<Core> weak = weak_from_this();
    aio::EventLoop* l = loop;
    out->writer.send(serialize(message), false, [weak, l, slots] {
      l->post([weak, slots] {
        if (auto c = weak.lock()) c->release_slots(slots);
      });
    });
  }

  // An answer goes to the client, or into its batch; a null one (the client cancelled the request) only
  // gives its place back.
  void answer_to(const std::shared_ptr<Batch>& batch, json reply) {
    if (!batch) {
      if (reply.is_null()) {
        release_slots(1);
      } else {
        send_answer(reply, 1);
      }
      return;
    }
    if (!reply.is_null()) batch->answers.push_back(std::move(reply));
    if (--batch->outstanding != 0) return;
    if (!batch->answers.empty()) {
      send_answer(batch->answers, batch->slots);
    } else if (batch->slots != 0) {
      release_slots(batch->slots);
    }
  }

  // An answer to a line as a whole (not to one of its requests).
  void answer_line(const json& reply) {
    take_slot(nullptr);
    send_answer(reply, 1);
  }

  void start() {
    std::weak_ptr<Core> weak = weak_from_this();
    aio::EventLoop* l = loop;
    ReadLimits limits{.max_line = options.max_line_bytes,
                      .max_pending_bytes = options.max_pending_input_bytes,
                      .max_pending_lines = 4};
    if (options.turns) party = options.turns->join();
    reader = std::make_unique<LineReader>(input_fd, limits, [weak, l](InputEvent ev) {
                                            l->post([weak, ev = std::move(ev)]() mutable {
                                              if (auto c = weak.lock()) c->on_input(std::move(ev));
                                            });
                                          });
    subscription = host->subscribe([out = out](const std::string& level, const json& data) {
      // A level the protocol does not know would make clients drop the message: it goes out as info.
      auto rank = level_rank(level);
      if (rank.value_or(kDefaultLevel) < out->min_level.load()) return;
      json params = json::object();
      params["level"] = rank ? level : "info";
      params["logger"] = "brenloc";
      params["data"] = data;
      out->writer.send(serialize(make_notification("notifications/message", std::move(params))), true);
    });
    reader->start();
  }

  void unsubscribe() {
    if (subscription) host->unsubscribe(*std::exchange(subscription, std::nullopt));
  }

  void on_input(InputEvent ev) {
    switch (ev.kind) {
      case InputEvent::Kind::line:
      case InputEvent::Kind::oversized:
        if (stopping) {
          if (ev.kind == InputEvent::Kind::line && reader) reader->consumed(ev.size);
        } else if (in_flight >= options.max_in_flight || !backlog.empty()) {
          if (!throttled) {
            throttled = true;
            logger()->info("MCP client has {} requests in flight; its further input waits until answers are taken",
                           in_flight);
          }
          backlog.push_back(std::move(ev));
        } else {
          take_in(std::move(ev));
        }
        break;
      case InputEvent::Kind::end:
        if (ev.text.empty()) {
          logger()->info("MCP input ended");
        } else {
          logger()->warn("MCP input ended: {}", ev.text);
        }
        // The input has ended once every line of it is taken in; a client that hung up is owed nothing.
        if (ev.text == LineReader::kHungUp) backlog.clear();
        input_over = true;
        if (backlog.empty()) ended->set_result();
        break;
    }
  }

  // Handles a line (or a skipped one) once there is room for what it asks.
  void take_in(InputEvent ev) {
    if (ev.kind == InputEvent::Kind::oversized) {
      logger()->warn("Refused an MCP input line of {} bytes (limit {})", ev.size, options.max_line_bytes);
      answer_line(make_error(nullptr, kInvalidRequest,
                             "Invalid Request: line of " + std::to_string(ev.size) +
                                 " bytes is longer than the limit of " + std::to_string(options.max_line_bytes) +
                                 " bytes"));
      return;
    }
    if (reader) reader->consumed(ev.size);
    on_line(ev.text);
  }

  void on_line(std::string_view raw) {
    std::string_view line = trim_line(raw);
    if (line.empty()) return;
    // Batches are part of the 2025-03-26 revision only: under the others an array is refused below.
    if (line.front() == '[' && protocol_version == "2025-03-26") {
      on_batch(line);
      return;
    }
    on_message(parse_message(line), nullptr);
  }

  void on_batch(std::string_view line) {
    json members;
    if (auto why = check_shape(line, ShapeLimits{})) {
      answer_line(make_error(nullptr, kInvalidRequest, "Invalid Request: " + *why));
      return;
    }
    try {
      members = json(nlohmann::json::parse(line.begin(), line.end()));
    } catch (const nlohmann::json::exception&) {
      on_message(parse_message(line), nullptr);  // the parse error, worded as for any line
      return;
    }
    if (members.empty()) {
      answer_line(make_error(nullptr, kInvalidRequest, "Invalid Request: an empty batch"));
      return;
    }
    if (members.size() > options.max_in_flight) {
      answer_line(make_error(nullptr, kInvalidRequest,
                             "Invalid Request: a batch of " + std::to_string(members.size()) +
                                 " messages is more than the limit of " + std::to_string(options.max_in_flight)));
      return;
    }
    auto batch = std::make_shared<Batch>();
    for (const auto& member : members) {
      Incoming m = member.is_array() ? parse_message("[]") : parse_message(serialize(member));
      if (m.kind == Incoming::Kind::invalid && member.is_array()) {
        m.error_message = "Invalid Request: a batch may not hold a batch";
      } else if (m.kind == Incoming::Kind::request && m.method == "initialize") {
        m.kind = Incoming::Kind::invalid;
        m.error_code = kInvalidRequest;
        m.error_message = "Invalid Request: initialize may not be part of a batch";
      }
      ++batch->outstanding;
      on_message(std::move(m), batch);
    }
    answer_to(batch, nullptr);
  }

  void on_message(Incoming m, const std::shared_ptr<Batch>& batch) {
    switch (m.kind) {
      case Incoming::Kind::invalid:
        logger()->warn("Refused an MCP message: {}", m.error_message);
        take_slot(batch);
        answer_to(batch, make_error(m.id, m.error_code, std::move(m.error_message)));
        break;
      case Incoming::Kind::response:
        if (!roots_request.empty() && id_key(m.id) == roots_request) {
          roots_request.clear();
          host->roots_known(m.result);
        } else {
          logger()->debug("Dropped an MCP response to id {}: no request of this server waits for it", id_key(m.id));
        }
        if (batch) answer_to(batch, nullptr);
        break;
      case Incoming::Kind::notification:
        on_notification(m);
        if (batch) answer_to(batch, nullptr);
        break;
      case Incoming::Kind::request:
        begin_request(std::move(m), batch);
        break;
    }
  }

  void on_notification(const Incoming& m) {
    if (m.method == "notifications/cancelled") {
      if (!m.params.is_object() || !m.params.contains("requestId")) return;
      std::string key = id_key(m.params["requestId"]);
      auto it = running.find(key);
      if (it == running.end() || !it->second.cancellable) return;
      logger()->debug("MCP request {} cancelled by the client", key);
      it->second.cancelled = true;
      // Copied: the task may end during cancel() and its entry be erased with it.
      aio::Future<void> task = it->second.task;
      task.cancel();
    } else if (m.method == "notifications/initialized") {
      logger()->debug("MCP client initialised");
      if (client_roots) ask_roots();
    } else if (m.method == "notifications/roots/list_changed") {
      if (client_roots) ask_roots();
    }
    // Any other notification needs nothing from this server.
  }

  // Asks the client for its roots; an answer to an earlier request still unanswered is not waited for.
  void ask_roots() {
    const json id = "brenloc-roots-" + std::to_string(++roots_asked);
    roots_request = id_key(id);
    host->roots_asked();
    out->writer.send(serialize(json{{"jsonrpc", "2.0"}, {"id", id}, {"method", "roots/list"}}));
  }

  void begin_request(Incoming m, std::shared_ptr<Batch> batch) {
    take_slot(batch);
    std::string key = id_key(m.id);
    if (running.contains(key)) {
      answer_to(batch, make_error(m.id, kInvalidRequest,
                                  "Invalid Request: id " + key + " is already in use by a running request"));
      return;
    }
    bool cancellable = m.method != "initialize";
    // The revision is settled as the initialize is read, not when its answer is written: a batch in the
    // same write is read under it.
    if (m.method == "initialize") {
      const bool asked = m.params.is_object() && m.params.contains("protocolVersion");
      protocol_version = negotiate_protocol_version(asked ? m.params["protocolVersion"] : json());
      const json capabilities = m.params.is_object() ? m.params.value("capabilities", json::object()) : json();
      client_roots = capabilities.is_object() && capabilities.contains("roots") && capabilities["roots"].is_object();
    }
    auto task = aio::spawn(
        run_request(shared_from_this(), m.id, key, std::move(m.method), std::move(m.params), std::move(batch)), loop);
    running.emplace(key, Running{task, cancellable});
    task.state()->add_listener(new Reaper(weak_from_this(), key));
  }

  bool cancelled_by_client(const std::string& key) const {
    auto it = running.find(key);
    return it != running.end() && it->second.cancelled;
  }

  static aio::Task<void> run_request(std::shared_ptr<Core> self, json id, std::string key, std::string method,
                                     json params, std::shared_ptr<Batch> batch) {
    auto ended = co_await aio::outcome_of(self->answer(id, method, std::move(params)));
    if (ended.cancelled()) std::rethrow_exception(ended.error);
    json reply;
    if (!ended.failed()) {
      reply = std::move(ended).get();
    } else {
      utils::log_exception(*logger(), "MCP request '" + method + "' failed", ended.error);
      reply = make_error(id, kInternalError, "Internal error: " + utils::error_text(ended.error));
    }
    // A batch is still answered (without this request) when the client cancelled one of its members.
    self->answer_to(batch, self->cancelled_by_client(key) ? json() : std::move(reply));
  }

  aio::Task<json> answer(json id, std::string method, json params) {
    if (method == "tools/call") co_return co_await call_tool(std::move(id), std::move(params));
    if (method == "initialize") {
      log_client(params);
      json result = initialize_result(params, host->instructions());
      protocol_version = result["protocolVersion"].get<std::string>();
      co_return make_result(id, std::move(result));
    }
    if (method == "ping") co_return make_result(id, json::object());
    if (method == "tools/list") {
      // Every tool fits in one page: no cursor was ever handed out, so any cursor is unknown.
      if (params.is_object() && params.contains("cursor") && !params["cursor"].is_null()) {
        co_return invalid_params(id, "unknown cursor");
      }
      co_return make_result(id, tool_listing(host->tools()));
    }
    if (method == "logging/setLevel") co_return set_level(id, params);
    co_return make_error(id, kMethodNotFound, "Method not found: " + method);
  }

  static void log_client(const json& params) {
    if (!params.is_object()) return;
    auto info = params.value("clientInfo", json::object());
    if (!info.is_object()) return;
    auto text = [](const json& v) { return v.is_string() ? v.get<std::string>() : std::string("?"); };
    logger()->info("MCP client {} {} connected", text(info.value("name", json())),
                   text(info.value("version", json())));
  }

  json set_level(const json& id, const json& params) {
    std::optional<int> rank;
    if (params.is_object() && params.contains("level") && params["level"].is_string()) {
      rank = level_rank(params["level"].get<std::string>());
    }
    if (!rank) {
      return invalid_params(
          id, "\"level\" must be one of debug, info, notice, warning, error, critical, alert, emergency");
    }
    out->min_level.store(*rank);
    return make_result(id, json::object());
  }

  aio::Task<json> call_tool(json id, json params) {
    if (!params.is_object() || !params.contains("name") || !params["name"].is_string()) {
      co_return invalid_params(id, "\"name\" must be a string");
    }
    std::string name = params["name"].get<std::string>();
    json arguments = params.contains("arguments") ? params["arguments"] : json();
    if (!arguments.is_null() && !arguments.is_object()) co_return invalid_params(id, "\"arguments\" must be an object");

    aio::Turn turn;
    if (party) turn = co_await options.turns->take(*party);
    auto ended = co_await aio::outcome_of(host->call_tool(name, std::move(arguments)));
    turn.release();
    if (!ended.failed()) co_return make_result(id, tool_call_result(std::move(ended).get()));
    try {
      std::rethrow_exception(ended.error);
    } catch (const UnknownTool& e) {
      co_return invalid_params(id, e.what());
    } catch (const ArgumentError& e) {
      // A tool result, not a protocol error: the model reads it and can correct its call.
      co_return make_result(id, tool_failure_result("Invalid arguments for " + name + ": " + e.what()));
    } catch (const aio::Cancelled&) {
      throw;
    } catch (...) {
      utils::log_exception(*logger(), "MCP tool '" + name + "' failed", ended.error);
    }
    co_return make_result(id, tool_failure_result(utils::error_text(ended.error)));
  }

  // Stops the reader and cancels the requests without waiting: what stop() does first, and all the
  // destructor can do.
  std::vector<std::shared_ptr<aio::FutureBase>> halt() {
    stopping = true;
    if (reader) reader->stop();
    unsubscribe();
    std::vector<aio::Future<void>> tasks;
    for (auto& [key, r] : running) {
      r.cancelled = true;
      tasks.push_back(r.task);
    }
    std::vector<std::shared_ptr<aio::FutureBase>> bases;
    for (auto& t : tasks) {
      t.cancel();
      bases.push_back(t.base());
    }
    return bases;
  }

  static aio::Task<void> shutdown(std::shared_ptr<Core> self) {
    co_await aio::wait_all(self->halt());
    // Raw pointers: `self` keeps both alive until this coroutine resumes on the loop.
    LineReader* reader = self->reader.get();
    LineWriter* writer = &self->out->writer;
    auto timeout = self->options.flush_timeout;
    co_await aio::to_thread([reader, writer, timeout] {
      if (reader != nullptr) reader->join();
      writer->close(timeout);
    });
  }

  static aio::Task<void> stop(std::shared_ptr<Core> self) {
    if (!self->stopping_task.valid()) self->stopping_task = aio::spawn(shutdown(self), self->loop);
    co_await aio::shield(self->stopping_task);
  }
};

McpServer::McpServer(aio::EventLoop& loop, ToolHost& host, int input_fd, int output_fd, ServerOptions options)
    : core_(std::make_shared<Core>(loop, host, input_fd, output_fd, options)) {}

McpServer::~McpServer() {
  core_->halt();
  if (core_->reader) core_->reader->join();
  core_->out->writer.abort();
}

void McpServer::start() { core_->start(); }

aio::Future<void> McpServer::input_ended() const { return aio::Future<void>(core_->ended); }

aio::Task<void> McpServer::stop() { return Core::stop(core_); }

std::size_t McpServer::running_requests() const { return core_->running.size(); }

std::size_t McpServer::requests_in_flight() const { return core_->in_flight; }

}  // namespace brenloc::mcp
