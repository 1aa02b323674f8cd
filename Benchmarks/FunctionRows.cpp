#include "Benchmarks/Rows.h"
#include "EmergencyUpdateList/EmergencyUpdateList.h"
#include "EmergencyUpdateList/EmergencyUpdateListValidator.h"
#include "Logging/EmergencyUpdateServiceLogger.h"
#include "Logging/EmergencyUpdateServiceNimbetLogSender.h"
#include "Logging/EmergencyUpdateServicePrintLogSender.h"
#include "Posix/ThreadSerialQueue.h"

#include <atomic>
#include <map>
#include <thread>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <spdlog/async.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

namespace benchmarks {
namespace {

using corvane::EmergencyUpdateServiceLogger;
using Sender = corvane::EmergencyUpdateServiceNimbetLogSender;

/// Fewer than the reference's queue holds, so that nobody waits for room.
constexpr int recordsInABurst = 1000;

/// Counts what has come out at the far end of a logger.
class Deliveries {
 public:
  void add() { ++count_; }
  void waitFor(std::uint64_t count) const {
    while (count_ < count) std::this_thread::yield();
  }

 private:
  std::atomic<std::uint64_t> count_ = 0;
};

/// Answers every post at once.
class DroppingSession final : public platform::URLSession {
 public:
  explicit DroppingSession(Deliveries& deliveries) : deliveries_(deliveries) {}

  std::shared_ptr<platform::URLSessionTask> downloadTask(const platform::URL&, DownloadCompletion) override {
    return nullptr;
  }
  std::shared_ptr<platform::URLSessionTask> dataTask(const platform::URLRequest& with,
                                                     DataCompletion completionHandler) override {
    benchmark::DoNotOptimize(with.httpBody.data());
    return std::make_shared<Task>(deliveries_, std::move(completionHandler));
  }

 private:
  class Task final : public platform::URLSessionTask {
   public:
    Task(Deliveries& deliveries, DataCompletion completion)
        : deliveries_(deliveries), completion_(std::move(completion)) {}
    void resume() override {
      completion_("", std::nullopt, std::nullopt);
      deliveries_.add();
    }

   private:
    Deliveries& deliveries_;
    DataCompletion completion_;
  };

  Deliveries& deliveries_;
};

/// Renders each record, as every sink does, and drops the text.
class DroppingSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit DroppingSink(Deliveries& deliveries) : deliveries_(deliveries) {}

 private:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t text;
    formatter_->format(message, text);
    benchmark::DoNotOptimize(text.data());
    deliveries_.add();
  }
  void flush_() override {}

  Deliveries& deliveries_;
};

class DroppingSystemLog final : public platform::SystemLog {
 public:
  void write(std::string_view, std::string_view, Type, std::string_view message) override {
    benchmark::DoNotOptimize(message.data());
  }
};

std::shared_ptr<Sender> makeRemoteSender(Deliveries& deliveries) {
  return std::make_shared<Sender>(
      platform::posix::ThreadSerialQueues().serialQueue("benchmark"), std::make_shared<DroppingSession>(deliveries),
      Sender::Configuration{.baseURL = *platform::URL::parse("https://log.corvane.example/logv2"),
                            .origin = "https://www.corvane.example",
                            .application = "emergency-update-service",
                            .environment = corvane::LogEnvironment::prod,
                            .version = "1.0.0",
                            .osVersion = "14.5.0",
                            .osArch = "arm64",
                            .minLogLevel = corvane::LogLevel::info});
}

/// The caller's time for a burst of records; the time until the last has been delivered does not count.
void measureBursts(benchmark::State& state, const Deliveries& deliveries, const std::function<void(int)>& log) {
  std::uint64_t sent = 0;
  for (auto _ : state) {
    state.SetIterationTime(timed([&] {
      for (int i = 0; i < recordsInABurst; ++i) log(i);
    }));
    deliveries.waitFor(sent += recordsInABurst);
  }
}

void keptRecord(benchmark::State& state) {
  Deliveries deliveries;
  const auto before = EmergencyUpdateServiceLogger::setSharedSender(makeRemoteSender(deliveries));
  const EmergencyUpdateServiceLogger logger("EmergencyUpdateAppDownloader");
  measureBursts(state, deliveries,
                [&](int i) { logger.info({"Download attempt {}/{}", i, "3"}, corvane::at("download(from:)")); });
  EmergencyUpdateServiceLogger::setSharedSender(before);
}

void asynchronousReference(benchmark::State& state) {
  constexpr std::size_t queueLength = 8192;
  Deliveries deliveries;
  const auto threads = std::make_shared<spdlog::details::thread_pool>(queueLength, 1);
  const auto logger = std::make_shared<spdlog::async_logger>("EmergencyUpdateAppDownloader",
                                                             std::make_shared<DroppingSink>(deliveries), threads);
  measureBursts(state, deliveries, [&](int i) { SPDLOG_LOGGER_INFO(logger, "Download attempt {}/{}", i, "3"); });
}

void unwantedRecord(benchmark::State& state) {
  Deliveries deliveries;
  DroppingSystemLog systemLog;
  using Print = corvane::EmergencyUpdateServicePrintLogSender;
  using Composite = corvane::EmergencyUpdateServiceCompositeLogSender;
  const auto before = EmergencyUpdateServiceLogger::setSharedSender(
      std::make_shared<Composite>(std::vector<std::shared_ptr<corvane::EmergencyUpdateServiceLogSender>>{
          std::make_shared<Print>(systemLog, corvane::LogLevel::debug), makeRemoteSender(deliveries)}));
  const EmergencyUpdateServiceLogger logger("EmergencyUpdateAppDownloader");
  for (auto _ : state) {
    state.SetIterationTime(timed([&] {
      for (int i = 0; i < recordsInABurst; ++i) {
        logger.trace({"Download attempt {}/{}", i, "3"}, corvane::at("download(from:)"));
      }
    }));
  }
  EmergencyUpdateServiceLogger::setSharedSender(before);
}

std::string longList(int updates) {
  std::string text = R"({"version":"1","updates":[)";
  for (int i = 0; i < updates; ++i) {
    if (i > 0) text += ',';
    text += fmt::format(R"({{"date":"2026-11-02","appVersions":["1.{}","1.{}.3"],"osVersions":["14","15.1"],)"
                        R"("devicePlatforms":["arm64","x86_64"],)"
                        R"("actions":[{{"install":{{"url":"https://images.corvane.example/{}/Orvik.dmg"}}}}]}})",
                        i, i + 1, i);
  }
  return text + "]}";
}

constexpr int updatesInAList = 5000;

void parsedList(benchmark::State& state) {
  const std::string bytes = longList(updatesInAList);
  const corvane::EmergencyUpdateListParser parser(EmergencyUpdateServiceLogger("EmergencyUpdateListParser"));
  const corvane::EmergencyUpdateListValidator validator;
  const corvane::EmergencyUpdateContext context{
      .appBundleVersion = "2.0", .isApplicationRunning = false, .osVersion = "14.5.0", .devicePlatform = "arm64"};
  for (auto _ : state) {
    const auto list = parser.parse(bytes);
    if (!list || !validator.validate(*list, context)) state.SkipWithError("not an acceptable list");
  }
}

void parsedReference(benchmark::State& state) {
  const std::string bytes = longList(updatesInAList);
  for (auto _ : state) benchmark::DoNotOptimize(nlohmann::json::parse(bytes));
}

/// Keeps the best repetition of each benchmark, in seconds.
class BestRuns final : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) throw std::runtime_error(run.error_message);
      if (run.run_type != Run::RT_Iteration) continue;
      const double seconds = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      const auto [entry, isNew] = best.emplace(run.run_name.function_name, seconds);
      if (!isNew) entry->second = std::min(entry->second, seconds);
    }
  }
  std::map<std::string, double> best;
};

/// Runs benchmarks in random order, repeatedly.
std::map<std::string, double> bestTimes(const Plan& plan,
                                        const std::vector<std::pair<const char*, void (*)(benchmark::State&)>>& which,
                                        bool measureThemselves) {
  benchmark::ClearRegisteredBenchmarks();
  for (const auto& [name, function] : which) {
    auto* registered = benchmark::RegisterBenchmark(name, function)->Repetitions(plan.times(15))->MinTime(0.1);
    measureThemselves ? registered->UseManualTime() : registered->UseRealTime();
  }
  std::string program = "benchmarks";
  std::string interleaving = "--benchmark_enable_random_interleaving=true";
  std::array<char*, 3> arguments{program.data(), interleaving.data(), nullptr};
  int count = 2;
  benchmark::Initialize(&count, arguments.data());
  BestRuns reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return reporter.best;
}

}  // namespace

void logRows(const Plan& plan, Table& table) {
  const auto seconds =
      bestTimes(plan, {{"kept", keptRecord}, {"reference", asynchronousReference}, {"unwanted", unwantedRecord}}, true);
  const double kept = seconds.at("kept") / recordsInABurst;
  table.compare("a record that the remote sender keeps, to its caller", "spdlog, asynchronous",
                {.subject = kept, .reference = seconds.at("reference") / recordsInABurst}, 1.0);
  table.compare("a record below every sender's level", "the one above",
                {.subject = seconds.at("unwanted") / recordsInABurst, .reference = kept}, 0.05);
}

void listRow(const Plan& plan, Table& table) {
  const auto seconds = bestTimes(plan, {{"ours", parsedList}, {"reference", parsedReference}}, false);
  table.compare(fmt::format("parsing and validating a list of {} updates", updatesInAList), "nlohmann::json::parse",
                {.subject = seconds.at("ours"), .reference = seconds.at("reference")}, 1.3);
}

}  // namespace benchmarks
