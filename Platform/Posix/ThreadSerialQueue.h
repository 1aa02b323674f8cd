#pragma once

#include "Platform/SerialQueue.h"

namespace platform::posix {

/// Queues without a thread while there is nothing to do: one is started for the first action, named after the last part
/// of the label, and ends when none has come for two seconds, so that a burst of actions pays for one thread only.
/// Actions left in a queue that nobody holds any more are still run. When no thread can be had, they wait for the next
/// async() or resume().
class ThreadSerialQueues final : public SerialQueues {
 public:
  std::shared_ptr<SerialQueue> serialQueue(const std::string& label) override;
};

}  // namespace platform::posix
