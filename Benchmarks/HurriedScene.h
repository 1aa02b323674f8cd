#pragma once

#include "Benchmarks/AgentScene.h"
#include "Benchmarks/Footprint.h"

#include <string>

namespace benchmarks {

/// After so long an agent that has nothing to do has closed its connections and ended the threads behind them.
inline constexpr std::chrono::seconds settlingTime{20};

/// The agent in a hurry (HurriedAgent.cpp), started and done with its first check.
class HurriedScene {
 public:
  /// `prepare` sees the scene before the agent starts.
  HurriedScene(const Plan& plan, const std::string& list, const std::function<void(AgentScene&)>& prepare = {});

  [[nodiscard]] AgentScene& on() { return on_; }

  /// So many checks, four hours apart for the agent, each of which ends with this record.
  void check(int times, const std::string& lastRecord);

  /// What the agent holds when nothing is under way any more.
  Footprint settled();

 private:
  std::chrono::seconds settling_;
  AgentScene on_;
};

}  // namespace benchmarks
