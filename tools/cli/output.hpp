// What one run of `varkel` says: text for a person, or one JSON object on standard
// output for a script; errors always on standard error, naming the module and
// chip they concern. The exit status follows from what was reported.
#pragma once

#include <cstdio>
#include <json-c/json.h>
#include <memory>
#include <string>

#include "common/console.hpp"

namespace varkel::cli {

// Exit statuses: everything succeeded, the detector or the library failed, the
// command line itself was wrong (unknown name, bad value, bad option); a signal
// adds its number to 128.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitSignal = 128;

struct JsonFree {
  void operator()(json_object* o) const { json_object_put(o); }
};
using Json = std::unique_ptr<json_object, JsonFree>;

// New JSON values; a double keeps the digits `shown` (json-c would print 0.05f as
// 0.05000000074505806).
json_object* json_number(double value, const char* shown = nullptr);
json_object* json_text(const std::string& text);
// {"module": M, "chip": C}, each left out when 0.
json_object* json_place(int module, int chip);

// "what: <the library's text for code> (code N)".
std::string coded(const std::string& what, int code);

class Output {
public:
  Output(tools::Console& console, FILE* errors, bool json, std::string command);

  bool json() const { return json_; }
  // Whether text goes to a terminal, where a progress line can be redrawn.
  bool tty_text() const { return !json_ && console_.tty; }
  // Members of the object printed at the end.
  void set(const char* key, json_object* value) { json_object_object_add(root_.get(), key, value); }
  // Text for a person; nothing in JSON mode.
  void text(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  // A failure of the detector or the library: "varkel: module M chip C: message"
  // (module and chip 0 when the failure concerns neither); `code` goes to JSON.
  void fail(int module, int chip, int code, const std::string& message);
  void fail(int module, int chip, const std::string& message) { fail(module, chip, 0, message); }
  // The command line asked for something that does not exist.
  void refuse(const std::string& what);
  // The run was ended by signal `signo` after `what` was done.
  void interrupted(int signo, const std::string& what);

  bool ok() const { return status_ == kExitOk; }
  // Prints the JSON object (JSON mode) and returns the exit status.
  int finish();

private:
  void report(int module, int chip, int code, const std::string& message, int status);

  tools::Console& console_;
  FILE* errors_;
  bool json_;
  Json root_;
  json_object* error_list_ = nullptr; // owned by root_
  int status_ = kExitOk;
};

} // namespace varkel::cli
