#include "brenloc/utils/logging.h"

#include <cxxabi.h>

#include <cstdlib>
#include <mutex>
#include <typeinfo>

#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "brenloc/aio/cancelled.h"
#include "brenloc/aio/future.h"

namespace brenloc::utils {

namespace {

std::shared_ptr<spdlog::sinks::dist_sink_mt> shared_sink() {
  static auto sink = [] {
    auto dist = std::make_shared<spdlog::sinks::dist_sink_mt>();
    auto err = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    err->set_pattern("%Y-%m-%d %H:%M:%S.%e %l %n: %v");
    dist->add_sink(err);
    return dist;
  }();
  return sink;
}

spdlog::level::level_enum& default_level() {
  static spdlog::level::level_enum level = spdlog::level::info;
  return level;
}

std::mutex& registry_mutex() {
  static std::mutex m;
  return m;
}

std::string demangle(const char* name) {
  int status = 0;
  char* out = abi::__cxa_demangle(name, nullptr, nullptr, &status);
  std::string result = status == 0 && out != nullptr ? out : name;
  std::free(out);
  return result;
}

std::string type_name(const std::exception_ptr& e) {
  const std::type_info* t = e.__cxa_exception_type();
  return t != nullptr ? demangle(t->name()) : "unknown";
}

void describe_into(std::string& out, const std::exception_ptr& e, int depth) {
  out += depth == 0 ? "  " : "  caused by ";
  out += type_name(e);
  try {
    std::rethrow_exception(e);
  } catch (const std::exception& ex) {
    out += ": ";
    out += ex.what();
    try {
      std::rethrow_if_nested(ex);
    } catch (...) {
      out += "\n";
      describe_into(out, std::current_exception(), depth + 1);
    }
  } catch (...) {
  }
}

void log_unfetched_failure(const std::exception_ptr& failure) {
  log_exception(*get_logger("brenloc.aio"), "Future exception was never retrieved", failure);
}

// A failure that nobody fetched from a future is logged like any other error, once this unit is part of
// the program (it is whenever anything logs).
[[maybe_unused]] const bool unfetched_failures_logged = [] {
  aio::set_unfetched_failure_reporter(&log_unfetched_failure);
  return true;
}();

}  // namespace

void set_log_level(spdlog::level::level_enum level) {
  std::lock_guard lock(registry_mutex());
  default_level() = level;
  spdlog::apply_all([level](const std::shared_ptr<spdlog::logger>& l) { l->set_level(level); });
}

std::shared_ptr<spdlog::logger> get_logger(const std::string& name) {
  std::lock_guard lock(registry_mutex());
  if (auto existing = spdlog::get(name)) return existing;
  auto logger = std::make_shared<spdlog::logger>(name, shared_sink());
  logger->set_level(default_level());
  spdlog::register_logger(logger);
  return logger;
}

void add_sink(spdlog::sink_ptr sink) { shared_sink()->add_sink(std::move(sink)); }

void remove_sink(const spdlog::sink_ptr& sink) { shared_sink()->remove_sink(sink); }

std::string describe_exception(const std::exception_ptr& e) {
  std::string out = "Trace (most recent error first):\n";
  describe_into(out, e, 0);
  return out;
}

void log_exception(spdlog::logger& logger, std::string_view message, const std::exception_ptr& e) {
  std::string text(message);
  text += "\n";
  text += describe_exception(e);
  logger.log(spdlog::level::err, spdlog::string_view_t(text));
}

std::string error_text(const std::exception_ptr& e) {
  try {
    std::rethrow_exception(e);
  } catch (const std::exception& ex) {
    return ex.what();
  } catch (const aio::Cancelled& c) {
    return c.what();
  } catch (...) {
    return "unknown error";
  }
}

}  // namespace brenloc::utils
