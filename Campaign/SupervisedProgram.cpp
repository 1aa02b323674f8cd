#include "Campaign/SupervisedProgram.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace campaign {

std::optional<WrittenRecord> recordWritten(const rehearsal::SystemCall& call) {
  if (call.number != SYS_write) return std::nullopt;
  const std::string line = call.bytesAt(1, std::min<std::uint64_t>(call.arguments[2], 1024));
  const auto valueOf = [&](const std::string& key) -> std::string {
    const auto start = line.find(fmt::format("\"{}\":\"", key));
    if (start == std::string::npos) return "";
    const auto value = start + key.size() + 4;
    return line.substr(value, line.find_first_of("\"=:\\", value) - value);
  };
  WrittenRecord record{.message = valueOf("eventMessage"), .category = valueOf("category")};
  if (record.message.empty()) return std::nullopt;
  return record;
}

SupervisedProgram::SupervisedProgram(const rehearsal::Scene::Command& command, Judge judge)
    : mark_(command.environment.at(0)), judge_(std::move(judge)) {
  // The filter is of one thread, which starts the program and ends; its own last calls are let through like the rest.
  std::atomic_flag listens;
  std::jthread starter([&] {
    listener_ = rehearsal::listenToOwnCalls({});
    listens.test_and_set();
    if (listener_) start(command);
  });
  while (!listens.test()) std::this_thread::yield();
  if (!listener_) throw std::runtime_error("system calls cannot be supervised here");
  supervisor_ = std::jthread(
      [this] { rehearsal::superviseCalls(listener_, [this](const auto& call) { return this->judge(call); }); });
  starter.join();
  if (!program_) throw std::runtime_error(failure_);
}

SupervisedProgram::~SupervisedProgram() {
  killAll();
  program_.reset();
}

void SupervisedProgram::start(const rehearsal::Scene::Command& command) {
  try {
    program_.emplace(command.executable, command.arguments, command.environment);
  } catch (const std::runtime_error& error) {
    failure_ = error.what();  // for the constructor to throw
  }
}

void SupervisedProgram::killProgram() {
  killIfOurs(itself_);
}

void SupervisedProgram::killAll() {
  isToEnd_ = true;
  const std::lock_guard lock(mutex_);
  for (const auto& [thread, process] : processes_) killIfOurs(process);
}

void SupervisedProgram::killIfOurs(pid_t process) const {
  std::ifstream file(fmt::format("/proc/{}/environ", process));
  const std::string environment{std::istreambuf_iterator<char>(file), {}};
  if (process != getpid() && environment.find(mark_) != std::string::npos) kill(process, SIGKILL);
}

pid_t SupervisedProgram::processOf(pid_t thread) {
  const std::lock_guard lock(mutex_);
  const auto [known, isNew] = processes_.try_emplace(thread, thread);
  if (isNew) {
    std::ifstream status(fmt::format("/proc/{}/status", thread));
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("Tgid:")) known->second = std::stoi(line.substr(line.find('\t')));
    }
    if (itself_ == 0 && known->second != getpid()) itself_ = known->second;
  }
  return known->second;
}

int SupervisedProgram::judge(const rehearsal::SystemCall& call) {
  const pid_t process = processOf(call.thread);
  if (process == getpid()) return 0;
  const int error = judge_(*this, call, process == itself_);
  if (isToEnd_) killIfOurs(process);
  return error;
}

}  // namespace campaign
