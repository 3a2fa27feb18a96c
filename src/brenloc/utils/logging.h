// Named loggers on one shared stderr sink, and logging of an error "with its trace".
// stdout is reserved for the protocol; every logger writes to stderr (tests add their own sinks).
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include <spdlog/spdlog.h>

namespace brenloc::utils {

// The logger called `name`, created on first use with the shared sinks.
std::shared_ptr<spdlog::logger> get_logger(const std::string& name);

// The level of every logger, present and future (info unless set).
void set_log_level(spdlog::level::level_enum level);

// Adds a sink to every logger, present and future (tests capture log lines this way).
void add_sink(spdlog::sink_ptr sink);
void remove_sink(const spdlog::sink_ptr& sink);

// The trace of an error: its dynamic type and message, then each nested error, one per line, and the
// stack where it was thrown when the error carries one.
std::string describe_exception(const std::exception_ptr& e);

// Logs `message` at error level, followed by the error's trace on the next lines.
void log_exception(spdlog::logger& logger, std::string_view message, const std::exception_ptr& e);

// The text of an error: what() of a std::exception, a fixed text otherwise.
std::string error_text(const std::exception_ptr& e);

}  // namespace brenloc::utils
