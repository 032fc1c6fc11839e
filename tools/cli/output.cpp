#include "output.hpp"

#include <algorithm>
#include <cstdarg>

#include "common/text.hpp"
#include "varkel.h"

namespace varkel::cli {

using tools::format;

json_object* json_number(double value, const char* shown)
{
  const std::string digits = shown != nullptr ? shown : format("%.9g", value);
  return json_object_new_double_s(value, digits.c_str());
}

json_object* json_text(const std::string& text) { return json_object_new_string(text.c_str()); }

json_object* json_place(int module, int chip)
{
  json_object* o = json_object_new_object();
  if (module > 0)
    json_object_object_add(o, "module", json_object_new_int(module));
  if (chip > 0)
    json_object_object_add(o, "chip", json_object_new_int(chip));
  return o;
}

std::string coded(const std::string& what, int code)
{
  return format("%s: %s (code %d)", what.c_str(), varkel_error_string(code), code);
}

Output::Output(tools::Console& console, FILE* errors, bool json, std::string command)
    : console_(console), errors_(errors), json_(json), root_(json_object_new_object())
{
  set("command", json_text(command));
}

void Output::text(const char* fmt, ...)
{
  if (json_)
    return;
  va_list args;
  va_start(args, fmt);
  std::vfprintf(console_.out, fmt, args);
  va_end(args);
  std::fflush(console_.out);
}

// One line on standard error ("varkel: module 2 chip 7: ..."), one entry of "errors".
void Output::report(int module, int chip, int code, const std::string& message, int status)
{
  const std::string where =
      module > 0 ? (chip > 0 ? format("module %d chip %d: ", module, chip) : format("module %d: ", module)) : "";
  std::fprintf(errors_, "varkel: %s%s\n", where.c_str(), message.c_str());
  std::fflush(errors_);
  if (error_list_ == nullptr) {
    error_list_ = json_object_new_array();
    set("errors", error_list_);
  }
  json_object* e = json_place(module, chip);
  if (code != 0)
    json_object_object_add(e, "code", json_object_new_int(code));
  json_object_object_add(e, "message", json_text(message));
  json_object_array_add(error_list_, e);
  status_ = std::max(status_, status); // a usage error is the worst: nothing asked for was done
}

void Output::fail(int module, int chip, int code, const std::string& message)
{
  report(module, chip, code, message, kExitFailed);
}

void Output::refuse(const std::string& what) { report(0, 0, 0, what, kExitUsage); }

void Output::interrupted(int signo, const std::string& what)
{
  report(0, 0, 0, what, kExitSignal + signo);
  set("signal", json_object_new_int(signo));
}

int Output::finish()
{
  set("ok", json_object_new_boolean(status_ == kExitOk));
  if (json_) {
    std::fprintf(console_.out, "%s\n",
                 json_object_to_json_string_ext(root_.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE));
    std::fflush(console_.out);
  }
  return status_;
}

} // namespace varkel::cli
