#include "Benchmarks/HurriedScene.h"

#include <csignal>
#include <thread>

namespace benchmarks {

HurriedScene::HurriedScene(const Plan& plan, const std::string& list, const std::function<void(AgentScene&)>& prepare)
    : settling_(plan.isShrunk ? std::chrono::seconds(1) : settlingTime), on_(plan, list) {
  std::filesystem::copy_file(plan.hurriedAgent, on_.scene().agentExecutable(),
                             std::filesystem::copy_options::overwrite_existing);
  if (prepare) prepare(on_);
  on_.scene().startAgent();
  on_.scene().reach({"Validation succeeded with no updates"});
}

void HurriedScene::check(int times, const std::string& lastRecord) {
  sigqueue(on_.scene().agentProcessIdentifier(), SIGUSR1, {.sival_int = times});
  for (int i = 0; i < times; ++i) on_.scene().reach({lastRecord});
}

Footprint HurriedScene::settled() {
  std::this_thread::sleep_for(settling_);
  return footprintOf(on_.scene().agentProcessIdentifier());
}

}  // namespace benchmarks
