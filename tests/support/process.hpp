// What a test checks of its own process: that it does not end inside a test
// (some replies make the library end it with status 0, which would pass
// silently), and how many descriptors it holds; and other processes it starts.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <pthread.h>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "varkel.h"

namespace varkel::testing {

inline bool g_exit_expected = false;
inline varkel_t* g_exiting_handle = nullptr;

inline void fail_unexpected_exit()
{
  if (::testing::UnitTest::GetInstance()->current_test_info() != nullptr && !g_exit_expected) {
    std::fputs("\nthe process ended inside a test\n", stderr);
    _exit(1);
  }
}
// The test registry is made first, so it is still there when the check runs.
inline const bool g_exit_guard =
    ::testing::UnitTest::GetInstance() != nullptr && std::atexit(fail_unexpected_exit) == 0;

// In a death test's child: runs `step`, which is to end the process. What it
// prints reaches the checked stream, followed by the state of the data-server
// lock and socket at the end: "<lock free, socket closed>" and the like.
template <typename Step> void run_until_exit(varkel_t* v, Step&& step)
{
  dup2(STDERR_FILENO, STDOUT_FILENO);
  g_exit_expected = true;
  g_exiting_handle = v;
  std::atexit([] {
    std::fflush(stdout);
    const bool free = pthread_mutex_trylock(&g_exiting_handle->backend_socket_mutex) == 0;
    std::fprintf(stderr, "<lock %s, socket %s>", free ? "free" : "held",
                 g_exiting_handle->backend_socket == -1 ? "closed" : "open");
  });
  step(v);
}

// Descriptors this process holds open, but those `skip` names.
template <typename Skip = bool (*)(int)> int open_descriptors(Skip skip = [](int) { return false; })
{
  int n = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    n += !skip(std::stoi(entry.path().filename().string()));
  return n;
}

// The receive time-out of socket `fd` in microseconds, -1 when it has none to tell.
inline long long receive_timeout_us(int fd)
{
  timeval tv{};
  socklen_t len = sizeof tv;
  return getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len) == 0 ? tv.tv_sec * 1000000LL + tv.tv_usec : -1;
}

// Starts `args` (the program first), its stdout into `out` and stderr into `err`
// (into `out` when that is -1), unless that is -1. Returns its process id, -1 when
// it cannot.
inline pid_t spawn(std::vector<std::string> args, int out, int err = -1)
{
  std::vector<char*> argv;
  for (std::string& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (out >= 0) {
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err >= 0 ? err : out, STDERR_FILENO);
  }
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0)
    pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// The exit status of process `pid` once it has ended, 128 + the signal that ended
// it (as a shell tells), -1 when it cannot tell.
inline int exit_status(pid_t pid)
{
  int status = 0;
  if (pid <= 0 || waitpid(pid, &status, 0) != pid)
    return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

} // namespace varkel::testing
