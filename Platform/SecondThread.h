// Runs a piece of work on a thread of its own while the caller goes on, for the sync pass's
// large writes that need nothing the pass changes meanwhile (the served catalogs' compressed
// forms, the product index caches). Without a thread to be had (the system's limit reached) the
// work is done on the caller's thread before runOnSecondThread returns, so the caller never
// needs a second way of doing it. The future gives the work's result or its exception; like
// std::async's, it waits for the work when it is destroyed. Any thread.
#pragma once

#include <exception>
#include <future>
#include <memory>
#include <system_error>
#include <type_traits>
#include <utility>

namespace ondrel {

template <typename Work>
auto runOnSecondThread(Work work) -> std::future<decltype(work())> {
  using Result = decltype(work());
  // Shared, so that the work is still here to be done when no thread could be started.
  auto shared = std::make_shared<Work>(std::move(work));
  try {
    return std::async(std::launch::async, [shared] { return (*shared)(); });
  } catch (const std::system_error&) {
    std::promise<Result> here;
    try {
      if constexpr (std::is_void_v<Result>) {
        (*shared)();
        here.set_value();
      } else {
        here.set_value((*shared)());
      }
    } catch (...) {
      here.set_exception(std::current_exception());
    }
    return here.get_future();
  }
}

}  // namespace ondrel
