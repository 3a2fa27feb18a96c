#include "support/log_capture.h"

#include "brenloc/utils/logging.h"

namespace brenloc::testing {

class LogCapture::Sink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<LogRecord> snapshot() {
    std::lock_guard lock(mutex_);
    return records_;
  }
  void reset() {
    std::lock_guard lock(mutex_);
    records_.clear();
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
std::vector<LogRecord> LogCapture::records() const { return sink_->snapshot(); }
std::vector<LogRecord> LogCapture::of(const std::string& logger) const {
  std::vector<LogRecord> out;
  for (auto& r : sink_->snapshot()) {
    if (r.logger == logger) out.push_back(r);
  }
  return out;
}
void LogCapture::clear() { sink_->reset(); }

}  // namespace brenloc::testing
