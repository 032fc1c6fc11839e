// get, put and config: the library's readable names and its snapshots.
#include <cstdlib>
#include <cstring>
#include <set>

#include "commands.hpp"
#include "common/text.hpp"
#include "snapshot.h"

namespace varkel::cli {

using tools::format;

const varkel_setting_t* find_setting(const std::string& name, Output& out)
{
  const varkel_setting_t* s = varkel_setting_find(name.c_str());
  if (s == nullptr)
    out.refuse("unknown name '" + name + "' (varkel --help lists them)");
  return s;
}

std::string shown(const varkel_setting_t* s, double value)
{
  char text[64];
  if (varkel_setting_format(s, value, text, sizeof text) != 0)
    return format("%g", value);
  return text;
}

json_object* json_value(const varkel_setting_t* s, double value)
{
  const std::string text = shown(s, value);
  char* end = nullptr;
  std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0' ? json_number(value, text.c_str()) : json_number(value);
}

std::string setting_names_help()
{
  static const char* const kScope[] = {"per module", "per chip", "detector"};
  std::string help = "Names (get NAME, put NAME VALUE):\n";
  for (int i = 0; i < varkel_settings_count(); ++i) {
    const varkel_setting_t* s = varkel_setting_at(i);
    const char* scope = s->scope >= 0 && s->scope <= 2 ? kScope[s->scope] : "";
    const std::string about = format("%s (%s%s)", s->help, scope, s->writable ? "" : ", read-only");
    // Long lists of value names get a line of their own.
    if (std::strlen(s->values) > 28)
      help += format("  %-22s %-28s %s\n  %-22s %s\n", s->name, "", about.c_str(), "", s->values);
    else
      help += format("  %-22s %-28s %s\n", s->name, s->values, about.c_str());
  }
  return help;
}

bool check_address(const Detector& d, Address at, Output& out)
{
  const int modules = varkel::sim::geometry_of(d.model()).modules;
  if (at.module < 0 || at.module > modules) {
    out.refuse(format("--module %d: this detector has modules 1 to %d", at.module, modules));
    return false;
  }
  if (at.chip != 0 && !d.on_model(at.chip)) {
    out.refuse(format("--chip %d: no such chip number on this model", at.chip));
    return false;
  }
  return true;
}

std::vector<int> modules_of(const Detector& d, Address at)
{
  if (at.module != 0)
    return {at.module};
  std::vector<int> all;
  for (int m = 1; m <= varkel::sim::geometry_of(d.model()).modules; ++m)
    all.push_back(m);
  return all;
}

std::vector<int> chips_of(const Detector& d, Address at)
{
  if (at.chip != 0)
    return {at.chip};
  std::vector<int> all;
  for (int c = 1; c <= 36; ++c)
    if (d.on_model(c))
      all.push_back(c);
  return all;
}

namespace {

// Where one setting is read or written. Module settings go module by module, so
// that a failure names its module; a chip setting is read chip by chip, written
// to the named chip or, with chip 0, by the library's all-chips write; a
// detector-wide setting once.
struct Place {
  int module;
  int chip;
};

std::vector<Place> places(const Detector& d, const varkel_setting_t* s, Address at, bool reading)
{
  if (s->scope == VARKEL_SETTING_DETECTOR)
    return {{reading ? 1 : 0, 0}};
  std::vector<Place> all;
  for (int m : modules_of(d, at)) {
    if (s->scope != VARKEL_SETTING_CHIP || !reading)
      all.push_back({m, s->scope == VARKEL_SETTING_CHIP ? at.chip : 0});
    else
      for (int c : chips_of(d, at))
        all.push_back({m, c});
  }
  return all;
}

json_object* place_json(Place p)
{
  json_object* o = json_object_new_object();
  if (p.module > 0)
    json_object_object_add(o, "module", json_object_new_int(p.module));
  if (p.chip > 0)
    json_object_object_add(o, "chip", json_object_new_int(p.chip));
  return o;
}

std::string place_text(Place p)
{
  if (p.module == 0)
    return "detector";
  return p.chip > 0 ? format("module %d chip %d", p.module, p.chip) : format("module %d", p.module);
}

} // namespace

void get(Detector& d, Output& out, const std::string& name, Address at)
{
  const varkel_setting_t* s = find_setting(name, out);
  if (s == nullptr || !check_address(d, at, out) || !d.open(Reach::modules, false, out))
    return;
  out.set("name", json_text(s->name));
  json_object* list = json_object_new_array();
  out.set("values", list);
  std::vector<std::pair<Place, std::string>> read;
  int failed_module = -1; // a module that failed once is not asked again
  for (const Place& p : places(d, s, at, true)) {
    if (p.module == failed_module)
      continue;
    double value = 0;
    if (const int rc = varkel_setting_get(d.handle(), s, p.module, p.chip, &value); rc != 0) {
      out.fail(p.module, p.chip, rc, "get " + name);
      failed_module = p.module;
      continue;
    }
    json_object* o = place_json(s->scope == VARKEL_SETTING_DETECTOR ? Place{0, 0} : p);
    json_object_object_add(o, "value", json_value(s, value));
    json_object_object_add(o, "text", json_text(shown(s, value)));
    json_object_array_add(list, o);
    read.emplace_back(p, shown(s, value));
  }
  // One value when every place reads the same: the usual answer to "what is it now?"
  std::set<std::string> distinct;
  for (const auto& r : read)
    distinct.insert(r.second);
  if (distinct.size() == 1 && out.ok()) {
    out.text("%s\n", distinct.begin()->c_str());
    return;
  }
  for (const auto& [p, text] : read)
    out.text("%-18s %s\n", place_text(p).c_str(), text.c_str());
}

void put(Detector& d, Output& out, const std::string& name, const std::string& text, Address at)
{
  const varkel_setting_t* s = find_setting(name, out);
  if (s == nullptr || !check_address(d, at, out))
    return;
  double value = 0;
  if (!s->writable) {
    out.refuse(name + " is read-only");
    return;
  }
  if (varkel_setting_parse(s, text.c_str(), &value) != 0) {
    out.refuse(format("bad value '%s' for %s: %s", text.c_str(), s->name, *s->values ? s->values : "a number"));
    return;
  }
  if (!d.open(Reach::modules, false, out))
    return;
  out.set("name", json_text(s->name));
  out.set("value", json_value(s, value));
  out.set("text", json_text(shown(s, value)));
  json_object* list = json_object_new_array();
  out.set("written", list);
  std::string where;
  for (const Place& p : places(d, s, at, false)) {
    if (const int rc = varkel_setting_put(d.handle(), s, p.module, p.chip, value); rc != 0) {
      out.fail(p.module, p.chip, rc, "put " + name);
      continue;
    }
    json_object_array_add(list, place_json(p));
    where += (where.empty() ? "" : ", ") + place_text(p);
  }
  if (!where.empty())
    out.text("%s = %s on %s%s\n", s->name, shown(s, value).c_str(), where.c_str(),
             s->scope == VARKEL_SETTING_CHIP && at.chip == 0 ? " (every chip)" : "");
}

// ---- config ----

namespace {

struct Report : varkel_snapshot_report_t {
  Report() : varkel_snapshot_report_t{} {}
  ~Report() { varkel_snapshot_report_free(this); }
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;
};

// An entry's value as its setting shows it; snapshot-only entries as numbers.
std::string entry_value(const varkel_snapshot_entry_t& e, double value)
{
  const varkel_setting_t* s = e.name != nullptr ? varkel_setting_find(e.name) : nullptr;
  return s != nullptr ? shown(s, value) : format("%g", value);
}

// The entries as JSON and, for a person, one line each.
void list_entries(Output& out, const Report& r, const char* wanted, const char* found)
{
  json_object* list = json_object_new_array();
  out.set("entries", list);
  for (std::size_t i = 0; i < r.count && r.entries != nullptr; ++i) {
    const varkel_snapshot_entry_t& e = r.entries[i];
    const char* name = e.name != nullptr ? e.name : "?";
    json_object* o = place_json({e.module, e.chip});
    json_object_object_add(o, "name", json_text(name));
    json_object_object_add(o, wanted, json_text(entry_value(e, e.wanted)));
    json_object_object_add(o, found, json_text(entry_value(e, e.found)));
    json_object_object_add(o, "written", json_object_new_boolean(e.written));
    json_object_object_add(o, "verified", json_object_new_boolean(e.verified));
    json_object_array_add(list, o);
    out.text("  %-18s %-22s %s %s, %s %s%s\n", place_text({e.module, e.chip}).c_str(), name, wanted,
             entry_value(e, e.wanted).c_str(), found, entry_value(e, e.found).c_str(),
             e.written ? (e.verified ? ": written, verified" : ": written, NOT verified") : "");
  }
}

} // namespace

void config(Detector& d, Output& out, const std::string& action, const std::string& file, const std::string& against)
{
  out.set("action", json_text(action));
  out.set("file", json_text(file));
  if (!against.empty() && action != "diff") {
    out.refuse("--against is for config diff");
    return;
  }
  // Two files are compared without a detector.
  if (against.empty() && !d.open(Reach::modules, false, out))
    return;
  Report r;
  int rc = 0;
  if (action == "save")
    rc = varkel_snapshot_save(d.handle(), file.c_str(), &r);
  else if (action == "apply")
    rc = varkel_snapshot_apply(d.handle(), file.c_str(), &r);
  else
    rc = varkel_snapshot_diff(against.empty() ? d.handle() : nullptr, file.c_str(),
                              against.empty() ? nullptr : against.c_str(), &r);
  out.set("commands", json_object_new_int64(static_cast<int64_t>(r.commands)));
  if (r.line > 0)
    out.set("line", json_object_new_int(r.line));
  const bool two_files = !against.empty();
  if (rc == 0 && action == "save")
    out.text("saved to %s (%zu commands)\n", file.c_str(), r.commands);
  else if (rc == 0 && action == "diff")
    out.text("%zu difference(s) between %s and %s\n", r.count, file.c_str(),
             two_files ? against.c_str() : "the detector");
  else if (action == "apply" && r.count > 0)
    out.text("%s applied (%zu commands):\n", file.c_str(), r.commands);
  // An apply that stopped still says what it wrote.
  if (action != "save")
    list_entries(out, r, "snapshot", two_files ? "other" : action == "apply" ? "read-back" : "detector");
  std::size_t unverified = 0;
  for (std::size_t i = 0; action == "apply" && i < r.count && r.entries != nullptr; ++i)
    if (r.entries[i].written && !r.entries[i].verified) {
      out.fail(r.entries[i].module, r.entries[i].chip, format("%s does not read back as written", r.entries[i].name));
      ++unverified;
    }
  if (rc == 0 || (rc == VARKEL_SNAPSHOT_UNVERIFIED && unverified > 0))
    return;
  // The refusal of a two-file diff does not say which file it is about: the
  // first is checked alone.
  std::string refused = file;
  Report alone;
  if (two_files && varkel_snapshot_diff(nullptr, file.c_str(), file.c_str(), &alone) == 0)
    refused = against;
  out.fail(0, 0, rc, r.message[0] ? format("%s: %s", refused.c_str(), r.message) : action + " " + file);
}

} // namespace varkel::cli
