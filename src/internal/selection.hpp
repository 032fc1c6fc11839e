// Who may record a chip selection in the handle. The per-module workers of a
// fan-out select chips on their own channels at the same time; only the thread
// that owns the handle writes `sensor_pos`, so the workers never race on it and
// main-channel operations find there the chip the caller selected last.
#pragma once

namespace varkel::detail {

// True while the current thread runs a per-module worker step.
inline thread_local bool on_module_worker = false;

// Marks the current thread as a per-module worker for the scope's lifetime. Every
// fan-out that runs steps on worker threads (OpenMP or POSIX threads) wraps each
// step in one; the caller's thread, when it runs a step itself, gets its flag back.
class ModuleWorkerScope {
public:
  ModuleWorkerScope() : previous_(on_module_worker) { on_module_worker = true; }
  ~ModuleWorkerScope() { on_module_worker = previous_; }
  ModuleWorkerScope(const ModuleWorkerScope&) = delete;
  ModuleWorkerScope& operator=(const ModuleWorkerScope&) = delete;

private:
  bool previous_;
};

} // namespace varkel::detail
