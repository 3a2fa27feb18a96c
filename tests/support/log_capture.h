// Captures the log records of every logger while alive, for exact comparisons of log lines.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <spdlog/common.h>

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

  // Records of one logger, in order.
  std::vector<LogRecord> of(const std::string& logger) const;

 private:
  class Sink;
  std::shared_ptr<Sink> sink_;
};

}  // namespace brenloc::testing
