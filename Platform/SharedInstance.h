// The process-wide slot behind each shared default instance (the logger, the preferences):
// made on first use by a plain check, kept for the process, and reset by the test support.
// Not synchronised: first use is expected from one thread, as for the library as a whole.
#pragma once

#include <memory>

namespace ondrel {

template <typename T>
class SharedInstance {
 public:
  // The instance, made with make() when there is none yet.
  template <typename Make>
  static std::shared_ptr<T> get(Make make) {
    std::shared_ptr<T>& instance = slot();
    if (!instance) instance = make();
    return instance;
  }
  // The instance, or none when it was never made.
  static std::shared_ptr<T> current() { return slot(); }
  static void reset() { slot().reset(); }

 private:
  static std::shared_ptr<T>& slot() {
    static std::shared_ptr<T> instance;
    return instance;
  }
};

}  // namespace ondrel
