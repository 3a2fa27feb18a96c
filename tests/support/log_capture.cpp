#include "support/log_capture.h"

#include <mutex>

#include <spdlog/sinks/base_sink.h>

#include "brenloc/utils/logging.h"

namespace brenloc::testing {

class LogCapture::Sink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<LogRecord> of(const std::string& logger) {
    std::lock_guard lock(mutex_);
    std::vector<LogRecord> out;
    for (const auto& r : records_) {
      if (r.logger == logger) out.push_back(r);
    }
    return out;
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    records_.push_back(LogRecord{std::string(msg.logger_name.data(), msg.logger_name.size()), msg.level,
                                 std::string(msg.payload.data(), msg.payload.size())});
  }
  void flush_() override {}

 private:
  std::vector<LogRecord> records_;
};

LogCapture::LogCapture() : sink_(std::make_shared<Sink>()) { utils::add_sink(sink_); }
LogCapture::~LogCapture() { utils::remove_sink(sink_); }
std::vector<LogRecord> LogCapture::of(const std::string& logger) const { return sink_->of(logger); }

}  // namespace brenloc::testing
