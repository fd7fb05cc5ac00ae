// Runs a piece of work that might hang under a time limit, so that a
// deadlock fails its test instead of stopping the whole run.
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

// False when work has not finished within limit. The thread is then left
// behind, blocked; nothing else of the test may wait for it.
inline bool FinishesWithin(std::chrono::milliseconds limit, std::function<void()> work) {
  auto finished = std::make_shared<std::promise<void>>();
  std::future<void> done = finished->get_future();
  std::thread([finished, work] {
    work();
    finished->set_value();
  }).detach();
  return done.wait_for(limit) == std::future_status::ready;
}
