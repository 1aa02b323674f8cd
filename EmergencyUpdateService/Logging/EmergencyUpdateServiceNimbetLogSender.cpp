#include "Logging/EmergencyUpdateServiceNimbetLogSender.h"

namespace corvane {

void EmergencyUpdateServiceNimbetLogSender::setAgentID(const std::string& agentID) {
  queue_->async([weak = weak_from_this(), agentID] {
    if (const auto self = weak.lock()) self->agentID_ = agentID;
  });
}

void EmergencyUpdateServiceNimbetLogSender::send(const LogRecord& record) {
  if (record.level < configuration_.minLogLevel) return;
  using Extra = const nlohmann::ordered_json;
  Waiting waiting{.name = record.name,
                  .file = record.file,
                  .function = record.function,
                  .message = record.message.description(),
                  .extra = record.extra.isPresent() ? std::make_unique<Extra>(record.extra.encoded()) : nullptr,
                  .line = record.line,
                  .level = record.level};
  queue_->async([weak = weak_from_this(), waiting = std::move(waiting)] {
    if (const auto self = weak.lock()) self->process(waiting);
  });
}

void EmergencyUpdateServiceNimbetLogSender::process(const Waiting& record) {
  const Entry entry{.file = record.file.substr(record.file.rfind('/') + 1),
                    .line = record.line,
                    .function = record.function,
                    .application = configuration_.application,
                    .environment = configuration_.environment,
                    .version = configuration_.version,
                    .osVersion = configuration_.osVersion,
                    .osArch = configuration_.osArch,
                    .logger = record.name,
                    .level = record.level,
                    .agentID = agentID_,
                    .message = record.message,
                    .extra = record.extra.get()};
  if (auto body = entry.encoded()) post(std::move(*body));
}

void EmergencyUpdateServiceNimbetLogSender::post(std::string body) {
  const platform::URLRequest request{
      .url = configuration_.baseURL,
      .timeoutInterval = requestTimeoutSeconds,
      .httpMethod = "POST",
      .httpHeaderFields = {{"Origin", configuration_.origin}, {"Content-Type", "application/json;charset=UTF-8"}},
      .httpBody = std::move(body)};
  if (++underWay_ == maximumUnderWay) queue_->suspend();
  const auto task = networkSession_->dataTask(
      request, [weak = weak_from_this()](const auto& /*data*/, const auto& /*response*/, const auto& /*error*/) {
        if (const auto self = weak.lock()) self->postEnded();
      });
  task->resume();
}

void EmergencyUpdateServiceNimbetLogSender::postEnded() {
  if (underWay_-- == maximumUnderWay) queue_->resume();
}

}  // namespace corvane
