// Data-server link internals shared with the handle.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include "varkel.h"

namespace varkel::detail {

// Closes the data-server connection and unmaps the frame buffer, if any.
void release_backend(varkel_t* v);

// Writes one 400-byte record in a single send (no SIGPIPE). True when all 400
// bytes went out; a partial send is not continued.
bool send_record(int fd, const void* record);

// Receives one 400-byte record into `record`, waiting for all of it. Returns
// what the receive gave: 400 on success; fewer on close, error or time-out.
// Never writes past the record.
ssize_t receive_record(int fd, void* record);

// Holds `backend_socket_mutex` for a scope, or nothing when `engage` is false.
class BackendLock {
public:
  explicit BackendLock(pthread_mutex_t& mutex, bool engage = true) : mutex_(engage ? &mutex : nullptr)
  {
    if (mutex_ != nullptr)
      pthread_mutex_lock(mutex_);
  }
  ~BackendLock() { unlock(); }
  BackendLock(const BackendLock&) = delete;
  BackendLock& operator=(const BackendLock&) = delete;
  void unlock()
  {
    if (mutex_ != nullptr)
      pthread_mutex_unlock(mutex_);
    mutex_ = nullptr;
  }

private:
  pthread_mutex_t* mutex_;
};

} // namespace varkel::detail
