// The library prints every request and reply on standard output: benchmarks
// send it to /dev/null while they run, so the report stays readable.
#pragma once

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

class QuietStdout {
public:
  QuietStdout() : saved_(dup(STDOUT_FILENO))
  {
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    close(null);
  }
  ~QuietStdout()
  {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }
  QuietStdout(const QuietStdout&) = delete;
  QuietStdout& operator=(const QuietStdout&) = delete;

private:
  int saved_;
};
