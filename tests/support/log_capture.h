// Captures the log records of every logger while alive, for exact comparisons of log lines.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <spdlog/sinks/base_sink.h>

namespace brenloc::testing {

struct LogRecord {
  std::string logger;
  spdlog::level::level_enum level;
  std::string message;  // the whole payload, trace lines included
  // The first line of the payload: the message without its trace.
  std::string first_line() const { return message.substr(0, message.find('\n')); }
};

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> records() const;
  // Records of one logger, in order.
  std::vector<LogRecord> of(const std::string& logger) const;
  void clear();

 private:
  class Sink;
  std::shared_ptr<Sink> sink_;
};

}  // namespace brenloc::testing
